#include "apply/commands.h"
#include "change/change.h"

int Confirm(const Request&) {
  const PendingChange pending = PendingChange::Read();
  if (!PendingChange::IsGood()) {
    throw Fault("the change is not whole; take it back by: nubo_config_apply recover");
  }
  if (pending.boot != ThisBoot() || (pending.deadline > 0 && Now() >= pending.deadline)) {
    throw Fault("the time of the change is over; take it back by: nubo_config_apply recover");
  }
  Commit(pending);
  return 0;
}
