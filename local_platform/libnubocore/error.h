/// The code of the library's last error, which a caller may log after a failed call.
#pragma once

/// Codes of ZELBCErrGet. Other failures do not change the last error.
enum class Error : unsigned int {
  kNone = 0,
  kMissing = 1,     ///< the file is missing, or holds no value
  kUnreadable = 2,  ///< the file cannot be read, or is a secret open to others
  kTooLong = 3,     ///< the value does not fit the caller's buffer
};

inline Error lastError = Error::kNone;
