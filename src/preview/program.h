/// Runs the mail system's own programs and keeps what they say.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

/// How a program ended.
struct Ended {
  int status;  ///< its exit status; kNotRun when it could not be run, 128 and the number of a signal that
               ///< ended it
  std::string output;  ///< what it printed on its standard output
  std::string errors;  ///< what it printed on its standard error
};
inline constexpr int kNotRun = 127;  ///< as in a shell

/// A running program. What it prints goes into memory (memfd_create(2)) and not through a pipe, so that a
/// daemon that it leaves behind does not delay the result.
class Program {
 public:
  /// Starts a program, looked for in PATH as execvp(3) does, with `input` as its standard input. Only the
  /// three standard descriptors are passed on.
  explicit Program(const std::vector<std::string>& command, const std::string& input = "");

  /// Runs `work` in a process of its own, which exits with its result.
  explicit Program(const std::function<int()>& work);

  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  /// Waits for its end. To be called once.
  Ended Wait();

 private:
  void Start(const std::function<int()>& work, const std::string& input);

  int files_[3];  ///< what it reads, and what it writes
  pid_t child_ = -1;
  std::string failure_;  ///< why it could not be run
};

/// Runs a program and waits for its end.
Ended RunProgram(const std::vector<std::string>& command, const std::string& input = "");

/// The words of a text, which blanks, tabs, newlines and commas divide.
std::vector<std::string> Words(const std::string& text);
