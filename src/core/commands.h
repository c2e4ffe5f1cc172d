/// The command words of nubo_set_config.
#pragma once

#include <string>
#include <vector>

/// All command words, in the order in which to run them after a change of the settings.
std::vector<std::string> CommandWords();

/// Runs a command line of nubo_set_config and returns the exit status. Prints the usage line when the command
/// line is wrong.
int RunCommand(int argc, const char* const argv[]);
