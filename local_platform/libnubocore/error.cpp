#include "libnubocore/error.h"

#include "platform/nubocore.h"

namespace {
Error lastError = Error::kNone;
}  // namespace

void SetLastError(Error error) { lastError = error; }

unsigned int ZELBCErrGet() { return static_cast<unsigned int>(lastError); }
