/// The command words of nubo_set_config.
#pragma once

#include <string>
#include <vector>

/// All words, in the order in which a full run takes them.
std::vector<std::string> CommandWords();

/// Runs the command line and returns the exit status. Prints the usage when the command line is wrong.
int RunCommand(int argc, const char* const argv[]);
