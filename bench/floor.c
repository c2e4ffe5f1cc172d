#define _GNU_SOURCE
// The least that a command can cost: its system calls with nothing between them. bench.py writes calls.h from
// the output of strace(1). Valid as C and as C++.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

static char block[8192];
static struct stat status;

// A call with another result than the command's own has met other files: its time would be worth nothing.
static void same(long result, long wanted) {
  if (result != wanted) _exit(99);
}

static int set_signal(int number) {
  struct sigaction standard, inherited;
  sigemptyset(&standard.sa_mask);
  standard.sa_handler = SIG_DFL;
  standard.sa_flags = 0;
  return sigaction(number, &standard, &inherited);
}

// Runs a program and waits for it, with the signals and descriptors that the command gives it.
static int run(const char* const* arguments) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  sigset_t none, all;
  pid_t program;
  int result = -1;
  struct sigaction standard, inherited;
  sigemptyset(&none);
  sigfillset(&all);
  standard.sa_handler = SIG_DFL;
  standard.sa_mask = none;
  standard.sa_flags = 0;
  sigaction(SIGCHLD, &standard, &inherited);
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  same(fcntl(2, F_GETFD), 0);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  same(posix_spawn(&program, arguments[0], &actions, &attributes, (char* const*)arguments, environ), 0);
  struct pollfd waiting;
  waiting.fd = (int)syscall(SYS_pidfd_open, program, 0);
  waiting.events = POLLIN;
  same(poll(&waiting, 1, 300000), 1);
  same(close(waiting.fd), 0);
  same(waitpid(program, &result, 0), program);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  sigaction(SIGCHLD, &inherited, NULL);
  return result;
}

int main(void) {
#include "calls.h"
  return 0;
}
