#include "apply/commands.h"
#include "apply/daemons.h"
#include "apply/state.h"

int Restart(const Request&) {
  // A machine on which none runs needs no states.
  if (RunningDaemons().empty()) return 0;
  LockStates(std::chrono::seconds(60), false);
  StartAnew(RunningDaemons());
  return 0;
}
