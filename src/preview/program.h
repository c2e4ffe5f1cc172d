/// Runs the mail system's programs and keeps what they print, and waits, reads files and takes texts apart.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// How a program ended.
struct Ended {
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
  Ended Wait();

 private:
  void Start(const std::function<int()>& work, const std::string& input);

  int files_[3];  ///< its input, output and errors
  pid_t child_ = -1;
};

/// Runs a program and waits for its end.
Ended RunProgram(const std::vector<std::string>& command, const std::string& input = "");

/// True when somebody on this machine listens on the TCP port.
bool Listens(const std::string& port);

/// Waits until the condition holds. False when it does not within the limit.
bool WaitFor(const std::function<bool()>& condition, std::chrono::seconds limit);

/// The bytes of a file; none when it cannot be read.
std::string TextOf(const std::string& path);

/// The lines of a text, without their ends.
std::vector<std::string> Lines(const std::string& text);

/// The words of a text, between blanks, tabs, newlines and commas.
std::vector<std::string> Words(const std::string& text);
