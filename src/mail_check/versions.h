/// The versions of the programs that work together.
#pragma once

#include <string>

/// A line for `--version`: the program of ours, then each daemon that is installed.
std::string Versions(const std::string& program);
