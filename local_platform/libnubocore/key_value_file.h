/// Key/value files, for the libraries that read one.
#pragma once

#include <string_view>

#include "libnubocore/strings.h"

/// Adds the pairs of `content`, the text of the key/value file at `path`, to `hash`. False when a line is no
/// pair; then the line's number and the fault are logged, but not its text, which may be a secret.
bool ParsePairs(const char* path, std::string_view content, ZELBCSzHash& hash);
