/// Runs the preview and nubo_set_config for a change.
#pragma once

#include <string>
#include <vector>

#include "system/program.h"

/// What the preview shows. Throws Refused (change.h), and prints it, unless the change can be tried. Nothing
/// would change when the status is 0.
ProgramResult Preview(const std::vector<std::string>& words);

/// Runs nubo_set_config. Throws Fault when a run fails, or when a file is still what it was that the preview
/// has named. (The exit status of "nubo_set_config smtp" does not tell.)
void Generate(const std::vector<std::string>& words, const std::string& shown);
