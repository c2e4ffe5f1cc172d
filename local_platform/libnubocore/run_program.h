#pragma once

#include <string>
#include <vector>

/// Runs the program `arguments[0]` with the rest of `arguments` and waits for it. Returns an empty text when
/// it exited with 0, otherwise how it ended, for a log line. Logs nothing. After five minutes the program and
/// all programs that it has started are killed.
std::string RunProgram(const std::vector<const char*>& arguments);
