/// What all parts of nubo_config_apply use.
#pragma once

#include <chrono>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "preview/program.h"

/// Why a change cannot go on: a sentence for the administrator.
struct Fault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// One line with the time of one step. A terminal shows it from the beginning of the step, a file at its end.
class Step {
 public:
  explicit Step(const std::string& text);
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;
  ~Step();

  /// The result of the step, for the end of the line.
  void Say(const std::string& result) { result_ = result; }

 private:
  std::string text_;
  std::string result_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// Runs a program and returns its standard output. Throws Fault, with `fault` and what the program printed,
/// unless it ends with 0.
std::string RunOrThrow(const std::vector<std::string>& command, const std::string& fault);

/// Writes a file and waits until it is on disk. Throws Fault.
void WriteText(const std::string& path, const std::string& text);

/// Waits until these files and their directories, as far as they exist, are on disk. Throws Fault.
void Sync(const std::set<std::string>& paths);
