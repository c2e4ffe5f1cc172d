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

/// Holds back the signals that end a run (INT, TERM, HUP, QUIT) while this object lives. For the time in
/// which a file with a secret exists that must not stay.
struct SignalsWait {
  sigset_t before = {};

  SignalsWait() {
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&ending, signal);
    sigprocmask(SIG_BLOCK, &ending, &before);
  }
  SignalsWait(const SignalsWait&) = delete;
  SignalsWait& operator=(const SignalsWait&) = delete;
  ~SignalsWait() { sigprocmask(SIG_SETMASK, &before, nullptr); }
};
