/// Guards: each releases what it holds on every exit, exceptions included.
#pragma once

#include <unistd.h>

#include <boost/noncopyable.hpp>
#include <csignal>
#include <utility>

#include "platform/nubocore.h"

/// A handle of the core library, or null. `Free` releases it. The handle is public because the library may
/// replace it through its address.
template <typename T, auto Free>
struct Owned : boost::noncopyable {
  T* handle = nullptr;

  ~Owned() {
    if (handle != nullptr) Free(handle);
  }
};

using OwnedHash = Owned<ZELBCSzHash, ZELBCSzHashFree>;
using OwnedList = Owned<ZELBCSzList, ZELBCSzListFree>;
using OwnedOutput = Owned<FILE, ZELBCPclose>;  ///< a program's output

/// An open file; negative when it could not be opened.
struct OwnedDescriptor : boost::noncopyable {
  int number;

  explicit OwnedDescriptor(int descriptor) : number(descriptor) {}
  ~OwnedDescriptor() { (void)Close(); }

  /// 0, or -1 with the reason in errno. A failed write may show only here.
  int Close() { return number < 0 ? 0 : close(std::exchange(number, -1)); }
};

/// Removes the file at `path` when this object is destroyed: a scratch file, or a temporary file that must
/// not stay when it is not installed. (Once it is installed, nothing stands at `path`.) Declare the object
/// before the file is created, so that a file that was created half-way is removed too.
struct FileRemover : boost::noncopyable {
  const char* path;

  explicit FileRemover(const char* name) : path(name) {}
  ~FileRemover() { unlink(path); }
};

/// Delays the signals that end a run while this object lives, because a file with a secret exists that must
/// not stay. A handler stores the signal, and the destructor raises it. A signal mask would not do: a program
/// that is started meanwhile would inherit it and could never be ended.
class DelayedSignals : boost::noncopyable {
 public:
  DelayedSignals() {
    struct sigaction store = {};
    store.sa_handler = [](int signal) { received_ = signal; };
    store.sa_flags = SA_RESTART;
    for (Ending& ending : endings_) {
      sigaction(ending.signal, &store, &ending.before);
      if (ending.before.sa_handler == SIG_IGN) sigaction(ending.signal, &ending.before, nullptr);
    }
  }
  ~DelayedSignals() {
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
