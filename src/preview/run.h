/// Runs of the generators in the sandbox.
#pragma once

#include <string>
#include <vector>

/// What `nubo_set_config WORD` does.
struct Run {
  std::string word;
  int status;                     ///< its exit status
  std::vector<std::string> said;  ///< what it prints, and behind "log: " what it writes to the system log
  bool failed;  ///< by its status, or by its log: "smtp" ends with 0 once it could read the settings
};

/// Runs the generators of one command, in a process of their own.
Run RunGenerators(const std::string& word);

/// The lines of a text without their ends.
std::vector<std::string> Lines(const std::string& text);

/// What was logged since the last call by `program`, or by any program when that is empty.
std::vector<std::string> TakeLogOf(const std::string& program);
