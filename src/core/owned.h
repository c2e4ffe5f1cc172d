/// What an operation owns and gives back on every path out of it, an exception's included.
#pragma once

#include <unistd.h>

#include "platform/nubocore.h"

/// A string hash of the core library. The library may replace it while filling it, hence the plain
/// handle.
struct OwnedHash {
  ZELBCSzHash* handle = nullptr;

  OwnedHash() = default;
  OwnedHash(const OwnedHash&) = delete;
  OwnedHash& operator=(const OwnedHash&) = delete;
  ~OwnedHash() {
    if (handle != nullptr) ZELBCSzHashFree(handle);
  }
};

/// A string list of the core library, likewise.
struct OwnedList {
  ZELBCSzList* handle = nullptr;

  OwnedList() = default;
  OwnedList(const OwnedList&) = delete;
  OwnedList& operator=(const OwnedList&) = delete;
  ~OwnedList() {
    if (handle != nullptr) ZELBCSzListFree(handle);
  }
};

/// The output of a program that ZELBCPopen started; null when it was not.
struct OwnedOutput {
  FILE* stream = nullptr;

  OwnedOutput() = default;
  OwnedOutput(const OwnedOutput&) = delete;
  OwnedOutput& operator=(const OwnedOutput&) = delete;
  ~OwnedOutput() {
    if (stream != nullptr) ZELBCPclose(stream);
  }
};

/// A file that does not outlive the operation under the name in `path`: a scratch file, or a temporary
/// file with a secret that could not be installed. (After a rename there is nothing left to remove.)
struct RemovedFile {
  const char* path;

  explicit RemovedFile(const char* name) : path(name) {}
  RemovedFile(const RemovedFile&) = delete;
  RemovedFile& operator=(const RemovedFile&) = delete;
  ~RemovedFile() { unlink(path); }
};
