/// One change at a time.
#pragma once

#include <chrono>

/// Holds the lock of kStates while it lives, and makes that directory if it is missing. Also waits for a
/// nubo_set_config that a killed change has left running, and removes what that change has not finished.
class Lock {
 public:
  explicit Lock(std::chrono::seconds patience);
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock();

  bool Held() const { return held_; }

 private:
  int file_;
  bool held_;
};

/// The file that every nubo_set_config of ours holds locked while it runs, by flock(1).
constexpr const char* kRunLock = "/var/packages/Brindlecot/target/var/lib/apply/run.lock";
