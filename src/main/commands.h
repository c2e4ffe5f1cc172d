/// The command words of nubo_set_config.
#pragma once

#include <string>
#include <vector>

/// The words in the order in which all of them are run.
std::vector<std::string> CommandWords();

/// What the program does with its command line; the exit status. Prints the usage where that is wrong.
int RunCommand(int argc, const char* const argv[]);
