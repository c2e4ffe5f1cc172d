#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "apply/commands.h"
#include "change/change.h"

namespace {

// Two processes, each of which replaces the other one when that dies.
struct Pair {
  pid_t child = 0;   // 0 in the child
  pid_t parent = 0;  // 0 in the first process
};

void KeepWhole(Pair& pair) {
  const bool alone = pair.child > 0 ? waitpid(pair.child, nullptr, WNOHANG) != 0 : getppid() != pair.parent;
  if (!alone) return;
  const pid_t self = getpid();
  pair.child = fork();
  if (pair.child == 0) pair.parent = self;
}

}  // namespace

int Wait(const Request&) {
  const long deadline = PendingChange::Read().deadline;
  const auto gone = [&] { return !PendingChange::Exists() || PendingChange::Read().deadline != deadline; };
  Pair pair;
  while (Now() < deadline) {
    KeepWhole(pair);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    if (gone()) return 0;
  }
  // Until here a shutdown ends it; what is pending then is taken back at boot.
  IgnoreHangup();
  for (bool locked = false; !locked && !gone();) {
    try {
      LockStates(std::chrono::minutes(1), false);
      locked = true;
    } catch (const Fault& fault) {
      syslog(LOG_MAIL | LOG_ERR, "the change is over, and not taken back yet: %s", fault.what());
    }
  }
  return gone() ? 0 : Recover({});
}
