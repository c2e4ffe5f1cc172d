#pragma once

#include "platform/nubocore.h"

/// Appends a copy of `text` to `list`. False, with the list as it was, when memory is exhausted.
bool AppendToList(ZELBCSzList& list, const char* text);
