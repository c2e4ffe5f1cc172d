/// nubo_config_apply: brings the settings into force in the mail system, or puts everything back.

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "apply/commands.h"

int main(int argc, char* argv[]) {
  double minutes = 0;
  for (int option; (option = getopt(argc, argv, "+t:")) != -1;) {
    char* end = nullptr;
    minutes = option == 't' ? std::strtod(optarg, &end) : 0;
    if (end == nullptr || *end != '\0' || !(minutes > 0 && minutes < 10000)) return Usage();
  }
  if (geteuid() != 0) {
    std::cerr << "nubo_config_apply: only root may do this\n";
    return 1;
  }
  // The daemons must not inherit anything from the administrator's session.
  clearenv();
  setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
  setenv("LC_ALL", "C", 1);
  umask(022);
  openlog("nubo_config_apply", 0, LOG_MAIL);
  try {
    return RunCommandLine({argv + optind, argv + argc}, minutes);
  } catch (const std::exception& error) {
    std::cerr << "nubo_config_apply: " << error.what() << std::endl;
    return 1;
  }
}
