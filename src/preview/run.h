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
