#include "system/program.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Seconds that a program may take. A check of mail runs the first ones, and has to end soon.
constexpr struct {
  const char* program;
  int limit;
} kLimits[] = {
    {"sendmail", 10},  // waits while the queue takes no file
    {"openssl", 10},   // waits for who listens
    {"postqueue", 10},
    {"postconf", 10},
    {"doveconf", 10},
    {"doveadm", 10},
    {"env", 10},                   // asks for a version
    {"systemctl", 150},            // systemd gives a service 90 s to stop
    {"spamassassin", 180},         // compiles all of its rules
    {"cp", 300},                   // a list of a million aliases
    {"flock", 300},                // nubo_set_config, with a million users
    {"nubo_config_preview", 600},  // waits for all of them
};
constexpr seconds kOtherwise(60);

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

std::chrono::seconds TimeLimitOf(const std::string& program) {
  const std::string name = program.substr(program.rfind('/') + 1);
  const auto* const found = std::find_if(std::begin(kLimits), std::end(kLimits),
                                         [&](const auto& one) { return name == one.program; });
  return found == std::end(kLimits) ? kOtherwise : seconds(found->limit);
}

Program::Program(const std::vector<std::string>& command, const std::string& input)
    : Program(command, input, TimeLimitOf(command[0])) {}

Program::Program(const std::vector<std::string>& command, const std::string& input, milliseconds limit)
    : name_(command[0]), limit_(limit) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  Start(
      [&]() -> int {
        // Of a process with threads: only what signal-safety(7) allows, and no memory of the heap.
        std::signal(SIGPIPE, SIG_DFL);  // a daemon's own programs count on it
        setpgid(0, 0);
        close_range(STDERR_FILENO + 1, ~0U, 0);
        execvp(arguments[0], arguments.data());
        const char* const why[] = {arguments[0], ": ", strerrordesc_np(errno), "\n"};
        for (const char* text : why) {
          if (write(STDERR_FILENO, text, std::strlen(text)) < 0) break;
        }
        _exit(kNotRun);
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

// True, too, where there is nothing to wait with.
bool Program::EndsInTime() const {
  pollfd end = {static_cast<int>(syscall(SYS_pidfd_open, child_, 0)), POLLIN, 0};
  int ready = end.fd < 0 ? 1 : -1;
  while (ready < 0) {
    const auto left = limit_ - (std::chrono::steady_clock::now() - start_);
    ready = poll(&end, 1, std::max(0, static_cast<int>(duration_cast<milliseconds>(left).count())));
    if (ready < 0 && errno != EINTR) ready = 1;
  }
  close(end.fd);
  return ready > 0;
}

ProgramResult Program::Wait() {
  int status = 0;
  pid_t ended = -1;
  const bool late = child_ > 0 && !name_.empty() && !EndsInTime();
  if (late) kill(-child_, SIGKILL);
  if (child_ > 0) {
    do ended = waitpid(child_, &status, 0);
    while (ended < 0 && errno == EINTR);
  }
  if (ended < 0) return {kNotRun, "", "cannot be run"};
  if (late) {
    const auto waited = duration_cast<seconds>(limit_).count();
    return {kTooLate, ContentOf(files_[1]),
            ContentOf(files_[2]) + name_ + " did not end within " + std::to_string(waited) + " s\n"};
  }
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
