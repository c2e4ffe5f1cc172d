#include "apply/commands.h"
#include "change/basics.h"
#include "change/daemons.h"
#include "change/state.h"
#include "core/config_generator.h"

int Restart(const Request&) {
  // A machine on which none runs needs no states.
  const std::set<DaemonId> running = RunningDaemons();
  if (running.empty()) return 0;
  LockStates(std::chrono::seconds(60), false);
  std::list<std::string> failed;
  for (const Daemon& daemon : Daemons()) {
    if (running.count(daemon.id) == 0) continue;
    try {
      RestartDaemon(daemon);
    } catch (const Fault& fault) {
      failed.emplace_back(fault.what());
    }
  }
  if (!failed.empty()) throw Fault(JoinList(failed, "; "));
  return 0;
}
