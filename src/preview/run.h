/// Runs of the generators in the sandbox.
#pragma once

#include <string>
#include <vector>

/// What `nubo_set_config WORD` does.
struct Run {
  std::string word;
  int status;                     ///< its exit status
  std::vector<std::string> said;  ///< what it prints, and with "log: " before it what it logs
  bool failed;  ///< by its status or its log lines, since "smtp" ends with 0 once the settings are read
};

/// Runs the generators of one command in a new process.
Run RunGenerators(const std::string& word);

/// The lines of a text without their ends.
std::vector<std::string> Lines(const std::string& text);

/// What `program`, or any program when that is empty, has logged since the last call.
std::vector<std::string> TakeLogOf(const std::string& program);
