// nubo_config_apply: brings the settings into force in the mail system, or puts everything back.

#include <getopt.h>
#include <pwd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "apply/commands.h"
#include "mail/versions.h"
#include "system/files.h"

namespace {

constexpr uid_t kNobody = static_cast<uid_t>(-1);

// Who has logged in, also behind su and sudo: proc_pid_loginuid(5). Where nobody is recorded there, the name
// that sudo gives; else root.
std::string LoginUser() {
  const std::string recorded = ReadFile("/proc/self/loginuid");
  const uid_t id =
      recorded.empty() ? kNobody : static_cast<uid_t>(std::strtoul(recorded.c_str(), nullptr, 10));
  const char* sudo = std::getenv("SUDO_USER");
  const passwd* user = id != kNobody ? getpwuid(id) : sudo != nullptr ? getpwnam(sudo) : nullptr;
  return user == nullptr ? "root" : user->pw_name;
}

}  // namespace

int main(int argc, char* argv[]) {
  constexpr option kLong[] = {
      {"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'v'}, {}};
  Request request;
  for (int option; (option = getopt_long(argc, argv, "+t:m:", kLong, nullptr)) != -1;) {
    char* end = nullptr;
    switch (option) {
      case 'h':
        return Usage(true);
      case 'v':
        std::cout << Versions("nubo_config_apply") << std::endl;
        return 0;
      case 'm':
        request.message = optarg;
        break;
      case 't':
        request.minutes = std::strtod(optarg, &end);
        if (*end == '\0' && request.minutes > 0 && request.minutes < 10000) break;
        return Usage();
      default:
        return Usage();
    }
  }
  request.user = LoginUser();
  if (geteuid() != 0) {
    std::cerr << "nubo_config_apply: only root may do this\n";
    return 1;
  }
  // The daemons must not inherit anything from the administrator's session.
  clearenv();
  setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
  setenv("LC_ALL", "C", 1);
  umask(077);  // the relay password is in files that nubo_set_config makes and removes
  openlog("nubo_config_apply", 0, LOG_MAIL);
  try {
    return RunCommandLine({argv + optind, argv + argc}, request);
  } catch (const std::exception& error) {
    std::cerr << "nubo_config_apply: " << error.what() << std::endl;
    return 1;
  }
}
