#include <filesystem>
#include <iostream>

#include "apply/basics.h"
#include "apply/change.h"
#include "apply/commands.h"
#include "apply/state.h"

int Check(const Request&) {
  bool well = true;
  // Whether they run or not: a daemon that is down is not well.
  std::set<std::string> daemons = {"Postfix"};
  if (std::filesystem::exists("/usr/sbin/dovecot")) daemons.insert("Dovecot");
  for (const MailObservation& one :
       AskMail(daemons, "Mail is checked", "nubo_config_apply check asked for this.\n")) {
    std::cout << (!one.Bad() ? "good  " : "BAD   ") << one.what << ": " << one.detail << std::endl;
    well = well && !one.Bad();
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
