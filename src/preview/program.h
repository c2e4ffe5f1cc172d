/// Runs the mail system's own programs and keeps what they say.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/// How a program ended: its exit status (127 when it could not be run, 128 and the number of the signal that
/// ended it), and what it printed on its standard output and on its standard error.
struct Ended {
  int status;
  std::string output;
  std::string errors;
};

/// A program that runs beside this one. It is looked for in PATH, as execvp(3) does, and gets `input` as its
/// standard input; only the three standard descriptors are passed on. A daemon that it leaves behind delays
/// nothing, since what is printed goes into memory (memfd_create(2)) and not through a pipe.
class Program {
 public:
  explicit Program(const std::vector<std::string>& command, const std::string& input = "");
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  /// Waits for its end. To be called once.
  Ended Wait();

 private:
  pid_t child_ = 0;
  int output_;
  int errors_;
  std::string notRun_;  // why there is no child
};

/// Runs a program to its end.
Ended RunProgram(const std::vector<std::string>& command, const std::string& input = "");

/// The words of a text, which blanks, tabs, newlines and commas divide.
std::vector<std::string> Words(const std::string& text);
