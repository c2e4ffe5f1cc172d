/// Runs programs, each for a limited time, and keeps what they print.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

/// How a program ended.
struct ProgramResult {
  int status;  ///< exit status; kNotRun when it could not be run; kTooLate; 128 + the signal that ended it
  std::string output;  ///< what it printed on its standard output
  std::string errors;  ///< what it printed on its standard error
};
inline constexpr int kNotRun = 127;   ///< as in a shell
inline constexpr int kTooLate = 124;  ///< its time was over, as in timeout(1)

/// How long a program of this name or path may take.
std::chrono::seconds TimeLimitOf(const std::string& program);

/// A running program. Its output goes into memory (memfd_create(2)), not through a pipe: a daemon that it
/// leaves behind would keep a pipe open.
class Program {
 public:
  /// Starts a program, which execvp(3) finds in PATH, with `input` as its standard input. It gets only the
  /// three standard descriptors, and a process group of its own, so that Ctrl-C does not reach it.
  explicit Program(const std::vector<std::string>& command, const std::string& input = "");
  Program(const std::vector<std::string>& command, const std::string& input, std::chrono::milliseconds limit);

  /// Runs `work` in a new process, which exits with the result. Its time is not limited.
  explicit Program(const std::function<int()>& work);

  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  /// Waits for its end. When its time is over, kills its process group, and says so in `errors`. Call it
  /// once.
  ProgramResult Wait();

 private:
  void Start(const std::function<int()>& work, const std::string& input);

  bool EndsInTime() const;

  int files_[3];  ///< its input, output and errors
  pid_t child_ = -1;
  std::string name_;  ///< of the program; empty for `work`
  std::chrono::milliseconds limit_{};
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
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
