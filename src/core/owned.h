/// What an operation owns and gives back on every path out of it, an exception's included.
#pragma once

#include <unistd.h>

#include "platform/nubocore.h"

/// A handle of the core library, given back with `Free`; null when there is none. A plain handle, since the
/// library may replace it through its address.
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

/// A file that does not outlive the operation under the name in `path`: a scratch file, or a temporary
/// file with a secret that could not be installed. (After a rename there is nothing left to remove.)
struct RemovedFile {
  const char* path;

  explicit RemovedFile(const char* name) : path(name) {}
  RemovedFile(const RemovedFile&) = delete;
  RemovedFile& operator=(const RemovedFile&) = delete;
  ~RemovedFile() { unlink(path); }
};
