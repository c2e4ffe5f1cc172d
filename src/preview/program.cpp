#include "preview/program.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

int MemoryFile() { return memfd_create("nubo", MFD_CLOEXEC); }

std::string Content(int file) {
  std::string text;
  char part[4096];
  // By position: the program, and what it left behind, share the descriptor's own.
  for (ssize_t count; (count = pread(file, part, sizeof part, static_cast<off_t>(text.size()))) > 0;) {
    text.append(part, static_cast<size_t>(count));
  }
  return text;
}

}  // namespace

Program::Program(const std::vector<std::string>& command, const std::string& input)
    : output_(MemoryFile()), errors_(MemoryFile()) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);

  const int from = MemoryFile();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, from, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output_, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errors_, STDERR_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  int error = ENOMEM;
  if (output_ >= 0 && errors_ >= 0 &&
      pwrite(from, input.data(), input.size(), 0) == static_cast<ssize_t>(input.size())) {
    error = posix_spawnp(&child_, arguments[0], &actions, nullptr, arguments.data(), environ);
  }
  posix_spawn_file_actions_destroy(&actions);
  if (from >= 0) close(from);
  if (error != 0) notRun_ = command[0] + ": " + std::strerror(error) + "\n";
}

Program::~Program() {
  if (output_ >= 0) close(output_);
  if (errors_ >= 0) close(errors_);
}

Ended Program::Wait() {
  if (!notRun_.empty()) return {127, "", notRun_};
  int status = 0;
  while (waitpid(child_, &status, 0) < 0 && errno == EINTR) {
  }
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), Content(output_),
          Content(errors_)};
}

Ended RunProgram(const std::vector<std::string>& command, const std::string& input) {
  return Program(command, input).Wait();
}

std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  size_t end = 0;
  for (size_t begin; (begin = text.find_first_not_of(" \t\n,", end)) != std::string::npos;) {
    end = text.find_first_of(" \t\n,", begin);
    words.push_back(text.substr(begin, end - begin));
  }
  return words;
}
