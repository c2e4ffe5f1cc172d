/// Guards: each releases what it holds on every exit, exceptions included.
#pragma once

#include <unistd.h>

#include <csignal>
#include <utility>

#include "platform/nubocore.h"

/// A handle of the core library, released with `Free`; null when there is none. The handle is public because
/// the library may replace it through its address.
template <typename T, auto Free>
struct Owned {
  T* handle = nullptr;

  Owned() = default;
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() {
    if (handle != nullptr) Free(handle);
  }
};

using OwnedHash = Owned<ZELBCSzHash, ZELBCSzHashFree>;
using OwnedList = Owned<ZELBCSzList, ZELBCSzListFree>;
using OwnedOutput = Owned<FILE, ZELBCPclose>;  ///< of a program

/// An open file; negative when it could not be opened.
struct OwnedDescriptor {
  int number;

  explicit OwnedDescriptor(int descriptor) : number(descriptor) {}
  OwnedDescriptor(const OwnedDescriptor&) = delete;
  OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
  ~OwnedDescriptor() { (void)Close(); }

  /// 0, or -1 with the reason in errno. A failed write may show only here.
  int Close() { return number < 0 ? 0 : close(std::exchange(number, -1)); }
};

/// Removes the file at `path` when this object ends: a scratch file, or a temporary file that was not
/// installed and must not stay. (After its rename there is none to remove.) Declare it before the file is
/// made: then the file is also removed when making it fails half-way.
struct RemovedAtEnd {
  const char* path;

  explicit RemovedAtEnd(const char* name) : path(name) {}
  RemovedAtEnd(const RemovedAtEnd&) = delete;
  RemovedAtEnd& operator=(const RemovedAtEnd&) = delete;
  ~RemovedAtEnd() { unlink(path); }
};

/// Holds back the signals that end a run while this object lives: for the time in which a file with a secret
/// exists that must not stay. A handler stores the signal, and the destructor raises it. Not a signal mask: a
/// program that is started meanwhile would inherit that, and could never be ended.
class SignalsWait {
 public:
  SignalsWait() {
    struct sigaction store = {};
    store.sa_handler = [](int signal) { received_ = signal; };
    store.sa_flags = SA_RESTART;
    for (Ending& ending : endings_) {
      sigaction(ending.signal, &store, &ending.before);
      if (ending.before.sa_handler == SIG_IGN) sigaction(ending.signal, &ending.before, nullptr);
    }
  }
  SignalsWait(const SignalsWait&) = delete;
  SignalsWait& operator=(const SignalsWait&) = delete;
  ~SignalsWait() {
    for (const Ending& ending : endings_) sigaction(ending.signal, &ending.before, nullptr);
    const int signal = received_;
    received_ = 0;
    if (signal != 0) raise(signal);
  }

 private:
  struct Ending {
    int signal;
    struct sigaction before = {};
  };

  inline static volatile std::sig_atomic_t received_ = 0;

  Ending endings_[4] = {{SIGINT}, {SIGTERM}, {SIGHUP}, {SIGQUIT}};
};
