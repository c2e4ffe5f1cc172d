/// The library's last error, for callers that can tell no more than that a call failed.
#pragma once

/// Codes of ZELBCErrGet. A failure that has none of them leaves the last error as it was.
enum class Error : unsigned int {
  kNone = 0,
  kMissing = 1,     ///< the file is missing, or holds no value
  kUnreadable = 2,  ///< the file cannot be read, or is a secret open to others
  kTooLong = 3,     ///< the value does not fit the caller's buffer
};

void SetLastError(Error error);
