#include "libnubocore/run_program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/nubocore.h"

namespace {

/// The programs of the open streams.
struct OpenStream {
  FILE* stream;
  pid_t program;
};
std::vector<OpenStream> openStreams;

/// Adds what the child does with its descriptors. 0, or an error number.
int SetDescriptors(posix_spawn_file_actions_t& actions, int output) {
  // A descriptor 2 that is closed, or closes when a program starts, would be the next file that the
  // child opens: its messages would go there.
  const int flags = fcntl(STDERR_FILENO, F_GETFD);
  const bool passOn = flags >= 0 && (flags & FD_CLOEXEC) == 0;
  // In this order a pipe that took one of the three numbers is read before it is overwritten: its
  // writing end is never 0, the reading end has a lower number.
  return std::max({
      posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0),
      output < 0 ? posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0)
                 : posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO),
      passOn ? 0 : posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0),
      posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1),
  });
}

/// Gives the child every signal unblocked, with its default action. 0, or an error number.
int SetSignals(posix_spawnattr_t& attributes) {
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  return std::max({
      posix_spawnattr_setsigmask(&attributes, &none),
      posix_spawnattr_setsigdefault(&attributes, &all),
      posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF),
  });
}

/// Starts the program `arguments[0]` with its output going to the descriptor `output`, or to /dev/null
/// when that is negative. 0 with its process in `program`, or an error number.
int Start(std::vector<const char*> arguments, int output, pid_t& program) {
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  int error = posix_spawn_file_actions_init(&actions);
  if (error != 0) {
    return error;
  }
  error = posix_spawnattr_init(&attributes);
  if (error == 0) {
    error = std::max(SetDescriptors(actions, output), SetSignals(attributes));
    if (error == 0) {
      // posix_spawn(3) leaves the strings as they are; its type is older than const.
      error = posix_spawn(&program, arguments[0], &actions, &attributes,
                          const_cast<char* const*>(arguments.data()), environ);
    }
    posix_spawnattr_destroy(&attributes);
  }
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

/// Waits for `program` to end, whatever signals arrive. 0, or an error number.
int Wait(pid_t program, int& status) {
  while (waitpid(program, &status, 0) < 0) {
    if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

std::string NotRun(int error) { return std::string("could not be run: ") + std::strerror(error); }

std::string StartAndWait(const std::vector<const char*>& arguments) {
  pid_t program = 0;
  int status = 0;
  if (const int error = Start(arguments, -1, program)) {
    return NotRun(error);
  }
  if (const int error = Wait(program, status)) {
    return std::string("could not be waited for: ") + std::strerror(error);
  }
  if (WIFSIGNALED(status)) {
    return "killed by signal " + std::to_string(WTERMSIG(status));
  }
  return WEXITSTATUS(status) == 0 ? "" : "exit status " + std::to_string(WEXITSTATUS(status));
}

/// RunProgram, with a failure logged. 0, or -1.
int Run(const std::vector<const char*>& arguments) {
  const std::string failure = RunProgram(arguments);
  if (failure.empty()) {
    return 0;
  }
  syslog(LOG_ERR, "%s: %s", arguments[0], failure.c_str());
  return -1;
}

/// ZELBCPopen, for "r". Null with the reason in errno.
FILE* OpenStreamOn(const std::vector<const char*>& arguments) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return nullptr;
  }
  FILE* stream = fdopen(ends[0], "r");
  pid_t program = 0;
  const int error = stream == nullptr ? errno : Start(arguments, ends[1], program);
  if (close(ends[1]) != 0) {
    dup2(ends[0], ends[1]);  // a writing end that stayed open would keep the reader waiting for ever
  }
  if (error == 0) {
    openStreams.push_back({stream, program});
    return stream;
  }
  if (stream != nullptr) {
    std::fclose(stream);
  } else {
    close(ends[0]);
  }
  errno = error;
  return nullptr;
}

}  // namespace

std::string RunProgram(const std::vector<const char*>& arguments) {
  // Where SIGCHLD is ignored, and a parent may leave it so, the kernel drops the status of a child.
  struct sigaction standard = {};
  struct sigaction inherited = {};
  standard.sa_handler = SIG_DFL;
  if (sigaction(SIGCHLD, &standard, &inherited) != 0) {
    return NotRun(errno);
  }
  std::string failure = StartAndWait(arguments);
  sigaction(SIGCHLD, &inherited, nullptr);
  return failure;
}

int ZELBCExec(const char* program, const char* arg1, const char* arg2, const char* arg3, const char* arg4) {
  std::vector<const char*> arguments = {program, arg1, arg2, arg3, arg4};
  arguments.erase(std::find(arguments.begin(), arguments.end(), nullptr), arguments.end());
  return Run(arguments);
}

int ZELBCExecl(const char* program, int options, ...) {
  std::vector<const char*> arguments = {program};
  va_list rest;
  va_start(rest, options);
  while (const char* argument = va_arg(rest, const char*)) {
    arguments.push_back(argument);
  }
  va_end(rest);
  return Run(arguments);
}

FILE* ZELBCPopen(const char* program, const char* mode, ...) {
  std::vector<const char*> arguments = {program};
  va_list rest;
  va_start(rest, mode);
  while (const char* argument = va_arg(rest, const char*)) {
    arguments.push_back(argument);
  }
  va_end(rest);
  errno = EINVAL;
  FILE* stream = std::strcmp(mode, "r") == 0 ? OpenStreamOn(arguments) : nullptr;
  if (stream == nullptr) {
    syslog(LOG_ERR, "%s: %s", program, NotRun(errno).c_str());
  }
  return stream;
}

int ZELBCPclose(FILE* stream) {
  const auto found = std::find_if(openStreams.begin(), openStreams.end(),
                                  [=](const OpenStream& open) { return open.stream == stream; });
  if (found == openStreams.end()) {
    return -1;
  }
  const pid_t program = found->program;
  openStreams.erase(found);
  std::fclose(stream);
  int status = 0;
  // ECHILD: where SIGCHLD is ignored, waiting reports that the child is gone.
  const int error = Wait(program, status);
  return error == 0 || error == ECHILD ? 0 : -1;
}
