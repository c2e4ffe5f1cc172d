/// Runs programs and keeps what they print.
#pragma once

#include <sys/types.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

/// How a program ended.
struct ProgramResult {
  int status;          ///< exit status; kNotRun when it could not be run; 128 + the signal that ended it
  std::string output;  ///< what it printed on its standard output
  std::string errors;  ///< what it printed on its standard error
};
inline constexpr int kNotRun = 127;  ///< as in a shell

/// A running program. Its output goes into memory (memfd_create(2)), not through a pipe: a daemon that it
/// leaves behind would keep a pipe open.
class Program {
 public:
  /// Starts a program, which execvp(3) finds in PATH, with `input` as its standard input. It gets only the
  /// three standard descriptors.
  explicit Program(const std::vector<std::string>& command, const std::string& input = "");

  /// Runs `work` in a new process, which exits with the result.
  explicit Program(const std::function<int()>& work);

  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  /// Waits for its end. Call it once.
  ProgramResult Wait();

 private:
  void Start(const std::function<int()>& work, const std::string& input);

  int files_[3];  ///< its input, output and errors
  pid_t child_ = -1;
};

/// Runs a program and waits for its end.
ProgramResult RunProgram(const std::vector<std::string>& command, const std::string& input = "");

/// Why something cannot be done: a sentence for the administrator.
struct Fault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Runs a program and returns its standard output. Throws Fault, with `fault` and what the program printed,
/// unless it ends with 0.
std::string RunOrThrow(const std::vector<std::string>& command, const std::string& fault);
