/// What all parts of nubo_config_apply use.
#pragma once

#include <chrono>
#include <string>

#include "system/files.h"
#include "system/program.h"
#include "system/text.h"
#include "system/wait.h"

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

/// The time of day so many seconds from now, in a format of strftime(3).
std::string TimeOfDay(const char* format, long seconds);
