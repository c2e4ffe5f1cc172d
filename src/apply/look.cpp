#include <filesystem>
#include <iostream>
#include <sstream>

#include "apply/change.h"
#include "apply/go_back.h"
#include "apply/state.h"

int Check() {
  bool well = true;
  // Whether they run or not: a daemon that is down is not well.
  std::vector<RunningDaemon> daemons = {{"Postfix", false}};
  if (std::filesystem::exists("/usr/sbin/dovecot")) daemons.push_back({"Dovecot", false});
  for (const MailObservation& one :
       AskMail(daemons, "Mail is checked", "nubo_config_apply check asked for this.\n")) {
    std::cout << (one.good ? "good  " : "BAD   ") << one.what << ": " << one.detail << std::endl;
    well = well && one.good;
  }
  if (IsPending()) std::cout << "A change is pending: " << ReadPending().what << std::endl;
  if (States().empty()) return well ? 0 : 1;
  const int last = *States().rbegin();
  for (const Kind kind : {Kind::kInput, Kind::kOutput}) {
    if (!Holds(StateDirectory(last), kind)) continue;
    for (const std::string& path : Differing(kind, StateDirectory(last))) {
      std::cout << "differs from state " << last << ": " << path << std::endl;
    }
  }
  return well ? 0 : 1;
}

int History(int state) {
  const std::set<int> states = States();
  if (state > 0) {
    if (states.count(state) == 0) throw Fault("there is no such state");
    std::cout << TextOf(StateDirectory(state) + "/preview");
    return 0;
  }
  for (const int number : states) {
    std::istringstream text(TextOf(StateDirectory(number) + "/preview"));
    std::string line;
    std::getline(text, line);
    std::cout << number << "  " << line << std::endl;
  }
  if (IsPending()) std::cout << "pending: " << ReadPending().what << std::endl;
  return 0;
}
