/// nubo_config_apply: brings the settings into force in the mail system, or puts everything back.

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>

#include "apply/change.h"
#include "apply/commands.h"
#include "apply/state.h"
#include "core/commands.h"

namespace {

int Usage() {
  std::cerr << "Usage: nubo_config_apply [-t MINUTES] "
               "[smtp|dovecot|mailscanner|alias|domain_alias|sender_quota_map]\n"
               "       nubo_config_apply [-t MINUTES] undo [N]\n"
               "       nubo_config_apply {check|confirm|history [N]|recover|renew CERTIFICATE KEY|dns}\n";
  return 2;
}

// A number of at most four digits that is greater than 0; else 0.
int Number(const std::string& text) {
  if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789") != std::string::npos) return 0;
  return std::stoi(text);
}

// Runs the command, with the lock if it needs one.
int Run(const std::vector<std::string>& words, double minutes) {
  const std::vector<std::string> all = CommandWords();
  const std::string first = words.empty() ? "" : words[0];
  const bool alone = words.size() < 2;
  const int number = words.size() == 2 ? Number(words[1]) : 0;
  const bool change = first.empty() || std::count(all.begin(), all.end(), first) != 0;
  const bool numbered = alone || number > 0;
  if (minutes > 0 && !change && first != "undo") return Usage();
  if (first == "check" && alone) return Check();
  if (first == "history" && numbered) return History(number);
  if (first == "dns" && alone) return Dns();
  if (first == "wait" && alone) return Wait();

  const bool renew = first == "renew" && words.size() == 3;
  const bool settles = (first == "confirm" || first == "recover") && alone;
  if (!renew && !settles && !(change && alone) && !(first == "undo" && numbered)) return Usage();
  // A certificate comes by a timer, which will not try again soon.
  const int patience = renew ? 3600 : first == "recover" ? 60 : 0;
  LockStates(std::chrono::seconds(patience), renew);
  OutliveSession();
  if (renew) return Renew(words[1], words[2]);
  if (first == "confirm") return Confirm();
  if (first == "recover") return Recover();
  if (first == "undo") return Undo(number, minutes);
  return Apply(change && !first.empty() ? words : all, minutes);
}

}  // namespace

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
    return Run({argv + optind, argv + argc}, minutes);
  } catch (const std::exception& error) {
    std::cerr << "nubo_config_apply: " << error.what() << std::endl;
    return 1;
  }
}
