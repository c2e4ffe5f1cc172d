#include "preview/sandbox.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <system_error>

namespace {

namespace fs = std::filesystem;

constexpr const char* kTarget = "/var/packages/Brindlecot/target";
constexpr const char* kHelper = "/usr/nubo/sbin/nubopkghelper";
constexpr sockaddr_un kLogAddress = {AF_UNIX, "/dev/log"};

int logFile = -1;  // what was sent to the log, each message closed by a NUL
int logRead = -1;  // a byte comes when all that was sent before an empty message is in logFile
off_t logTaken = 0;

/// `result`; throws when it is negative.
int Need(int result, const std::string& what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), "cannot " + what);
  return result;
}

// ---- Files -------------------------------------------------------------------------------------------

/// Copies a file or what is below a directory, with owners, modes and times; only directories and links when
/// `files` is false. What goes away meanwhile is left out: real runs make temporary files.
void Copy(const fs::path& from, const fs::path& to, bool files = true) {
  struct stat status = {};
  if (lstat(from.c_str(), &status) != 0) return;
  if (S_ISDIR(status.st_mode)) {
    fs::create_directory(to);
    std::error_code gone;
    for (const fs::directory_entry& entry : fs::directory_iterator(from, gone)) {
      if (files || entry.is_directory()) Copy(entry.path(), to / entry.path().filename(), files);
    }
  } else if (S_ISLNK(status.st_mode)) {
    fs::copy_symlink(from, to);
  } else if (S_ISREG(status.st_mode)) {
    std::error_code error;
    fs::copy_file(from, to, error);
    if (error == std::errc::no_such_file_or_directory) return;
    if (error) throw fs::filesystem_error("cannot copy", from, error);
  } else {
    return;
  }
  Need(lchown(to.c_str(), status.st_uid, status.st_gid), "keep the owner of " + from.string());
  if (!S_ISLNK(status.st_mode)) Need(chmod(to.c_str(), status.st_mode & 07777), "keep the mode");
  const timespec times[] = {status.st_atim, status.st_mtim};
  utimensat(AT_FDCWD, to.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

void Mount(const std::string& source, const std::string& target, const char* type, unsigned long flags,
           const std::string& options = "") {
  Need(mount(source.c_str(), target.c_str(), type, flags, options.c_str()), "cover " + target);
}

/// Puts a copy of `path`, kept in memory, in its place.
void ReplaceByCopy(const fs::path& path, bool files) {
  if (!fs::is_directory(path)) return;
  const fs::path copy = kWork + path.string();
  fs::create_directories(copy.parent_path());
  Copy(fs::canonical(path), copy, files);
  Mount(copy, path, nullptr, MS_BIND);
}

// ---- The sandbox -------------------------------------------------------------------------------------

/// Nothing of the machine can be changed through the mounts of this process from here on.
void ProtectMachine() {
  Need(unshare(CLONE_NEWNS | CLONE_NEWIPC), "make a mount namespace");
  // In a chroot, / may be no mount: the mounts are reached from the root of the namespace.
  const int root = Need(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC), "open /");
  const int self = Need(open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC), "open /proc/self/ns/mnt");
  Need(setns(self, CLONE_NEWNS), "go to the root of the mounts");
  mount_attr attributes = {};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  attributes.propagation = MS_PRIVATE;
  if (mount_setattr(AT_FDCWD, "/", AT_RECURSIVE, &attributes, sizeof attributes) != 0) {
    throw std::runtime_error(errno == ENOSYS ? "this takes Linux 5.12 or later: mount_setattr(2) is missing"
                                             : std::string("cannot protect the machine's files: ") +
                                                   std::strerror(errno));
  }
  Need(fchdir(root) < 0 ? -1 : chroot("."), "go back to /");
  close(self);
  close(root);
}

void LayOut() {
  Mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
  Cover("/tmp");
  Need(mkdir(kWork, 0700), "make a directory");
  Copy(fs::canonical(kEtc), kInstalled);
  const std::string changed = std::string(kWork) + "/new";
  Copy(kInstalled, changed);
  Mount(changed, kEtc, nullptr, MS_BIND);
  CoverByDirectories(std::string(kTarget) + "/var");
  for (const char* state : {"/var/lib/samba", "/var/cache/samba"}) ReplaceByCopy(state, true);  // for net(8)
  // The users of a directory or a domain are asked for through sockets, names too.
  Cover("/run", {"nscd", "nslcd", "samba/winbindd", "systemd/resolve", "systemd/userdb"});
  Cover("/dev", {"full", "null", "random", "tty", "urandom", "zero"});
  ReplaceByText(kHelper, std::string("#!/bin/sh\nprintf %s \"$4\" >") + kPamConfig + "\n");
  clearenv();  // cron's PATH has no sbin, and MAIL_CONFIG would lead Postfix elsewhere
  setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
  setenv("LC_ALL", "C", 1);
  setenv("HOME", kWork, 1);
}

/// Process 1: takes what is sent to the log, and the end of every process whose parent has gone, until
/// `worker` ends. The worker's exit status.
int Serve(int log, int seen, int signals, pid_t worker) {
  pollfd sources[] = {{log, POLLIN, 0}, {signals, POLLIN, 0}};
  for (;;) {
    poll(sources, 2, -1);
    char message[65536];
    for (ssize_t size; (size = recv(log, message, sizeof message, MSG_DONTWAIT)) >= 0;) {
      if (size == 0) {
        if (write(seen, "", 1) != 1) return -1;
      } else if (write(logFile, message, static_cast<size_t>(size)) != size || write(logFile, "", 1) != 1) {
        return -1;
      }
    }
    signalfd_siginfo signal;
    if (sources[1].revents == 0 || read(signals, &signal, sizeof signal) < 0) continue;
    int status = 0;
    for (pid_t ended; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
      if (ended == worker) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
  }
}

int Init(const std::function<int()>& work) {
  ProtectMachine();
  LayOut();
  const int log = Need(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "make a socket");
  Need(bind(log, reinterpret_cast<const sockaddr*>(&kLogAddress), sizeof kLogAddress), "listen at /dev/log");
  Need(chmod(kLogAddress.sun_path, 0666), "open /dev/log");
  logFile = Need(memfd_create("log", MFD_CLOEXEC), "keep a log");
  int seen[2];
  Need(pipe2(seen, O_CLOEXEC), "make a pipe");
  logRead = seen[0];
  sigset_t childEnds;
  sigset_t usual;
  sigemptyset(&childEnds);
  sigaddset(&childEnds, SIGCHLD);
  Need(sigprocmask(SIG_BLOCK, &childEnds, &usual), "wait for signals");
  const int signals = Need(signalfd(-1, &childEnds, SFD_CLOEXEC), "wait for signals");
  const pid_t worker = Need(fork(), "start a process");
  if (worker != 0) return Serve(log, seen[1], signals, worker);
  close(log);
  sigprocmask(SIG_SETMASK, &usual, nullptr);
  return work();
}

/// The exit status of process 1 or of the worker, both of which leave here.
int Guarded(const std::function<int()>& work) try { return Init(work); } catch (const std::exception& error) {
  std::cerr << "nubo_config_preview: " << error.what() << std::endl;
  return 2;
}

}  // namespace

int InSandbox(const std::function<int()>& work) {
  signal(SIGCHLD, SIG_DFL);
  int alive[2];  // the writing end is this process's alone
  Need(pipe2(alive, O_CLOEXEC), "make a pipe");
  Need(unshare(CLONE_NEWPID), "make a process namespace");
  const pid_t init = Need(fork(), "start a process");
  if (init == 0) {
    close(alive[1]);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd parent = {alive[0], POLLIN, 0};
    if (poll(&parent, 1, 0) != 0) _exit(2);  // ended before it could be asked for
    const int status = Guarded(work);
    std::cout.flush();
    _exit(status);
  }
  int status = 0;
  while (waitpid(init, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> TakeLog() {
  const int sender = Need(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "make a socket");
  Need(static_cast<int>(
           sendto(sender, "", 0, 0, reinterpret_cast<const sockaddr*>(&kLogAddress), sizeof kLogAddress)),
       "ask for the log");
  close(sender);
  char byte;
  Need(static_cast<int>(read(logRead, &byte, 1)), "ask for the log");
  std::vector<std::string> lines(1);
  char part[4096];
  for (ssize_t size; (size = pread(logFile, part, sizeof part, logTaken)) > 0; logTaken += size) {
    for (ssize_t i = 0; i < size; ++i) {
      if (part[i] != '\0') {
        lines.back() += part[i];
      } else {
        lines.emplace_back();
      }
    }
  }
  lines.pop_back();
  return lines;
}

void Cover(const std::string& directory, const std::vector<std::string>& kept) {
  struct stat status = {};
  if (stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return;
  struct Kept {
    fs::path path;
    int tree;
  };
  std::vector<Kept> trees;
  for (const std::string& name : kept) {
    const fs::path path = fs::path(directory) / name;
    const int tree = open_tree(AT_FDCWD, path.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE);
    if (tree >= 0) trees.push_back({path, tree});
  }
  char options[64];
  std::snprintf(options, sizeof options, "mode=%o,uid=%u,gid=%u", status.st_mode & 07777, status.st_uid,
                status.st_gid);
  Mount("tmpfs", directory, "tmpfs", MS_NOSUID, options);
  for (const Kept& one : trees) {
    fs::create_directories(one.path.parent_path());
    fstat(one.tree, &status);
    if (S_ISDIR(status.st_mode)) {
      fs::create_directory(one.path);
    } else {
      std::ofstream created(one.path);
    }
    Need(move_mount(one.tree, "", AT_FDCWD, one.path.c_str(), MOVE_MOUNT_F_EMPTY_PATH),
         "keep " + one.path.string());
    close(one.tree);
  }
}

void CoverByDirectories(const std::string& directory) { ReplaceByCopy(directory, false); }

void ReplaceByText(const std::string& path, const std::string& text) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return;
  const std::string standIn = kWork + ("/" + fs::path(path).filename().string());
  std::ofstream(standIn) << text;
  Need(chmod(standIn.c_str(), status.st_mode & 07777), "make " + standIn);
  Mount(standIn, path, nullptr, MS_BIND);
}
