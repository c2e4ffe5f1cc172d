#include "libnubocore/run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/files.h"
#include "platform/nubocore.h"

namespace {

using Clock = std::chrono::steady_clock;

// A million aliases take postalias one or two minutes on a small board.
constexpr std::chrono::minutes kMaxRunTime(5);
constexpr const char* kTimeLimit = "killed after 5 minutes";
constexpr const char* kOutputLimit = "killed after 8 MB of output";

// Adds the child's changes of its descriptors to `actions`. 0, or an error number.
int SetDescriptors(posix_spawn_file_actions_t& actions, int output) {
  // If the child started with descriptor 2 closed, the next file that it opens would get this number, and its
  // error messages would be written into that file.
  const int flags = fcntl(STDERR_FILENO, F_GETFD);
  const bool passOn = flags >= 0 && (flags & FD_CLOEXEC) == 0;
  // This order also works when the pipe has one of the numbers 0 to 2: its writing end is never 0, because
  // its reading end has a lower number, and it is copied to 1 before 2 is opened.
  return std::max({
      posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0),
      output < 0 ? posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0)
                 : posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO),
      passOn ? 0 : posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0),
      posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1),
  });
}

// The child starts with no signal blocked, with default actions, and in a process group of its own, so that
// it can be killed together with the programs that it starts. 0, or an error number.
int SetSignals(posix_spawnattr_t& attributes) {
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  return std::max({
      posix_spawnattr_setsigmask(&attributes, &none),
      posix_spawnattr_setsigdefault(&attributes, &all),
      posix_spawnattr_setpgroup(&attributes, 0),
      posix_spawnattr_setflags(&attributes,
                               POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP),
  });
}

// Starts the program `arguments[0]`. Its output goes to the descriptor `output`, or to /dev/null when
// `output` is negative. 0 with the process in `program`, or an error number.
int Start(std::vector<const char*> arguments, int output, pid_t& program) {
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  int error = posix_spawn_file_actions_init(&actions);
  if (error != 0) return error;
  error = posix_spawnattr_init(&attributes);
  if (error == 0) {
    error = std::max(SetDescriptors(actions, output), SetSignals(attributes));
    if (error == 0) {
      // posix_spawn(3) does not change the strings, though its type does not say so.
      error = posix_spawn(&program, arguments[0], &actions, &attributes,
                          const_cast<char* const*>(arguments.data()), environ);
    }
    posix_spawnattr_destroy(&attributes);
  }
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

std::string WithReason(const char* failure, int error) {
  return std::string(failure) + ": " + std::strerror(error);
}

// Waits until `file` has data to read or is at its end. False when that is not so before `end`.
bool WaitUntilReadable(int file, Clock::time_point end) {
  pollfd waiting = {file, POLLIN, 0};
  int ready = -1;
  do {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    ready = poll(&waiting, 1, std::max(0, static_cast<int>(left)));
  } while (ready < 0 && errno == EINTR);
  return ready != 0;
}

// Reads `file` to its end. Returns an empty text, or the reason of a failure.
std::string ReadAll(int file, Clock::time_point end, std::string& text) {
  char block[8192];
  while (text.size() <= kMaxBytes) {
    if (!WaitUntilReadable(file, end)) return kTimeLimit;
    const ssize_t got = read(file, block, sizeof block);
    if (got == 0) return "";
    if (got < 0 && errno != EINTR) return WithReason("killed after its output could not be read", errno);
    text.append(block, got > 0 ? static_cast<size_t>(got) : 0);
  }
  return kOutputLimit;
}

// Waits until `program` has ended. False when it runs longer than until `end`. True at once where the kernel
// cannot wait for a limited time (before Linux 5.3).
bool WaitUntilEnded(pid_t program, Clock::time_point end) {
  const auto file = static_cast<int>(syscall(SYS_pidfd_open, program, 0));
  const bool ended = file < 0 || WaitUntilReadable(file, end);
  if (file >= 0) {
    close(file);
  }
  return ended;
}

// Reads the output of a started program, unless `output` is null, and waits for the program. Returns an empty
// text, with the program's `status`, when the program ended by itself; otherwise the reason why not.
std::string Finish(pid_t program, int file, std::string* output, int& status) {
  const Clock::time_point end = Clock::now() + kMaxRunTime;
  std::string failure = output != nullptr ? ReadAll(file, end, *output) : "";
  if (failure.empty() && !WaitUntilEnded(program, end)) {
    failure = kTimeLimit;
  }
  if (!failure.empty()) {
    kill(-program, SIGKILL);
  }
  while (waitpid(program, &status, 0) < 0) {
    if (errno != EINTR) return WithReason("could not be waited for", errno);
  }
  return failure;
}

// Runs a program to its end and stores its output in `output`, unless `output` is null. Returns an empty
// text, with the program's `status`, or the reason why there is no status.
std::string Execute(const std::vector<const char*>& arguments, std::string* output, int& status) {
  int ends[2] = {-1, -1};
  if (output != nullptr && pipe2(ends, O_CLOEXEC) != 0) return WithReason("could not be run", errno);
  // When the caller ignores SIGCHLD, the kernel drops the child's status.
  struct sigaction standard = {};
  struct sigaction inherited = {};
  standard.sa_handler = SIG_DFL;
  sigaction(SIGCHLD, &standard, &inherited);
  pid_t program = 0;
  const int error = Start(arguments, ends[1], program);
  if (output != nullptr && close(ends[1]) != 0) {
    dup2(ends[0], ends[1]);  // closes it too: while the writing end is open, ReadAll would wait for it
  }
  std::string failure =
      error != 0 ? WithReason("could not be run", error) : Finish(program, ends[0], output, status);
  sigaction(SIGCHLD, &inherited, nullptr);
  if (output != nullptr) {
    close(ends[0]);
  }
  return failure;
}

// As RunProgram, but logs a failure. 0, or -1.
int RunOrLog(const std::vector<const char*>& arguments) {
  const std::string failure = RunProgram(arguments);
  if (failure.empty()) return 0;
  syslog(LOG_ERR, "%s: %s", arguments[0], failure.c_str());
  return -1;
}

// Opens a stream from which `text` can be read. Null, with the reason in errno, on failure.
FILE* OpenStreamOn(const std::string& text) {
  FILE* stream = fmemopen(nullptr, text.size() + 1, "w+");
  if (stream != nullptr) {
    std::fwrite(text.data(), 1, text.size(), stream);
    std::rewind(stream);
  }
  return stream;
}

}  // namespace

std::string RunProgram(const std::vector<const char*>& arguments) {
  int status = 0;
  std::string failure = Execute(arguments, nullptr, status);
  if (!failure.empty()) return failure;
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return WEXITSTATUS(status) == 0 ? "" : "exit status " + std::to_string(WEXITSTATUS(status));
}

int ZELBCExec(const char* program, const char* arg1, const char* arg2, const char* arg3, const char* arg4) {
  std::vector<const char*> arguments = {program, arg1, arg2, arg3, arg4};
  arguments.erase(std::find(arguments.begin(), arguments.end(), nullptr), arguments.end());
  return RunOrLog(arguments);
}

int ZELBCExecl(const char* program, int options, ...) {
  std::vector<const char*> arguments = {program};
  va_list rest;
  va_start(rest, options);
  while (const char* argument = va_arg(rest, const char*)) {
    arguments.push_back(argument);
  }
  va_end(rest);
  return RunOrLog(arguments);
}

FILE* ZELBCPopen(const char* program, const char* mode, ...) {
  std::vector<const char*> arguments = {program};
  va_list rest;
  va_start(rest, mode);
  while (const char* argument = va_arg(rest, const char*)) {
    arguments.push_back(argument);
  }
  va_end(rest);
  std::string output;
  int status = 0;
  std::string failure = std::strcmp(mode, "r") == 0 ? Execute(arguments, &output, status)
                                                    : WithReason("could not be run", EINVAL);
  FILE* stream = failure.empty() ? OpenStreamOn(output) : nullptr;
  if (stream == nullptr) {
    failure = failure.empty() ? WithReason("output could not be kept", errno) : failure;
    syslog(LOG_ERR, "%s: %s", program, failure.c_str());
  }
  return stream;
}

int ZELBCPclose(FILE* stream) { return std::fclose(stream) == 0 ? 0 : -1; }
