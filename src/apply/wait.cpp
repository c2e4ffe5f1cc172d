#include <chrono>
#include <thread>

#include "apply/basics.h"
#include "apply/change.h"
#include "apply/commands.h"
#include "apply/state.h"

int Wait(const Request&) {
  const long deadline = ReadPending().deadline;
  const auto gone = [&] { return !IsPending() || ReadPending().deadline != deadline; };
  while (Now() < deadline) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    if (gone()) return 0;
  }
  // Until here a shutdown ends it; what is pending then is taken back at boot.
  OutliveSession();
  LockStates(std::chrono::hours(24), false);
  return gone() ? 0 : Recover({});
}
