#include "system/program.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>

namespace {

std::string ContentOf(int file) {
  std::string text;
  char part[4096];
  // pread: the descriptor's position is shared with the program and with what it left behind.
  for (ssize_t count; (count = pread(file, part, sizeof part, static_cast<off_t>(text.size()))) > 0;) {
    text.append(part, static_cast<size_t>(count));
  }
  return text;
}

}  // namespace

Program::Program(const std::vector<std::string>& command, const std::string& input) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  Start(
      [&] {
        std::signal(SIGPIPE, SIG_DFL);  // a daemon's own programs count on it
        close_range(STDERR_FILENO + 1, ~0U, 0);
        execvp(arguments[0], arguments.data());
        std::cerr << arguments[0] << ": " << std::strerror(errno) << std::endl;
        return kNotRun;
      },
      input);
}

Program::Program(const std::function<int()>& work) { Start(work, ""); }

void Program::Start(const std::function<int()>& work, const std::string& input) {
  for (int& file : files_) file = memfd_create("text", MFD_CLOEXEC);
  if (files_[2] < 0 || write(files_[0], input.data(), input.size()) != static_cast<ssize_t>(input.size()))
    return;
  lseek(files_[0], 0, SEEK_SET);
  child_ = fork();
  if (child_ != 0) return;
  for (const int file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(files_[file], file);
  const int status = work();
  std::cout.flush();
  _exit(status);
}

Program::~Program() {
  for (const int file : files_) close(file);
}

ProgramResult Program::Wait() {
  int status = 0;
  pid_t ended = -1;
  if (child_ > 0) {
    do ended = waitpid(child_, &status, 0);
    while (ended < 0 && errno == EINTR);
  }
  if (ended < 0) return {kNotRun, "", "cannot be run"};
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), ContentOf(files_[1]),
          ContentOf(files_[2])};
}

ProgramResult RunProgram(const std::vector<std::string>& command, const std::string& input) {
  return Program(command, input).Wait();
}

std::string RunOrThrow(const std::vector<std::string>& command, const std::string& fault) {
  const ProgramResult result = RunProgram(command);
  if (result.status == 0) return result.output;
  std::string said = result.output + result.errors;
  said.erase(said.find_last_not_of('\n') + 1);
  throw Fault(fault + ": " + (said.empty() ? "exit status " + std::to_string(result.status) : said));
}
