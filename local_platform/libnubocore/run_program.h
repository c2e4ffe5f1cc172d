#pragma once

#include <string>
#include <vector>

/// Runs the program `arguments[0]` with the rest of `arguments` and waits for it; nothing is logged.
/// Empty when it exited with 0, otherwise how it ended, for a log line that names the program. After five
/// minutes it is killed, with all that it has started.
std::string RunProgram(const std::vector<const char*>& arguments);
