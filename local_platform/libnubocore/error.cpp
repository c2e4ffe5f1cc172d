#include "libnubocore/error.h"

#include "platform/nubocore.h"

unsigned int ZELBCErrGet() { return static_cast<unsigned int>(lastError); }
