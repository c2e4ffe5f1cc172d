#include "preview/program.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

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

Ended Program::Wait() {
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

Ended RunProgram(const std::vector<std::string>& command, const std::string& input) {
  return Program(command, input).Wait();
}

bool Listens(const std::string& port) {
  return !RunProgram({"ss", "-Hltn", "sport = :" + port}).output.empty();
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::seconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

std::string TextOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
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
