#include "change/timer.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "apply/commands.h"
#include "change/change.h"

namespace {

namespace fs = std::filesystem;

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

void StartTimer() {
  // It has to outlive the session, and where systemd ends a session's processes, their group too.
  const std::string self = fs::read_symlink("/proc/self/exe");
  if (!fs::exists("/run/systemd/system") ||
      RunProgram({"systemd-run", "--quiet", "--collect", "--property=Restart=always",
                  "--property=RestartSec=1", "--property=RestartPreventExitStatus=0 1 3 4",
                  "--property=StartLimitIntervalSec=0", self, "wait"})
              .status != 0) {
    RunOrThrow({"setsid", "--fork", self, "wait"}, "cannot start the timer that takes the change back");
  }
}

int Wait(const Request&) {
  const long deadline = ReadPending().deadline;
  const auto gone = [&] { return !IsPending() || ReadPending().deadline != deadline; };
  Pair pair;
  while (Now() < deadline) {
    KeepWhole(pair);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    if (gone()) return 0;
  }
  // Until here a shutdown ends it; what is pending then is taken back at boot.
  IgnoreHangup();
  LockStates(std::chrono::hours(24), false);
  return gone() ? 0 : Recover({});
}
