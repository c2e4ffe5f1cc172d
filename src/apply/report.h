/// What the administrator reads while a change is on its way.
#pragma once

#include <chrono>
#include <string>

/// One step, one line, with its time: on a terminal from its beginning on, elsewhere at its end.
class Step {
 public:
  explicit Step(const std::string& text);
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;
  ~Step();

  /// What came of it, for the end of the line.
  void Say(const std::string& result) { result_ = result; }

 private:
  std::string text_;
  std::string result_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};
