#include "preview/sandbox.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

#include "preview/log.h"
#include "system/program.h"
#include "system/text.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kTarget = "/var/packages/Brindlecot/target";
constexpr int kMostDirectories = 10'000;
constexpr const char* kHelper = "/usr/nubo/sbin/nubopkghelper";

// `result`; throws when it is negative.
int Need(int result, const std::string& what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), "cannot " + what);
  return result;
}

// ---- Files -------------------------------------------------------------------------------------------

// Puts a file or directory in the place of another, with the mounts in it.
void Bind(const std::string& source, const std::string& target) {
  Need(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr), "cover " + target);
}

// Gives the file or directory the mode and owner of another.
void MakeLike(const struct stat& other, const fs::path& path) {
  Need(chown(path.c_str(), other.st_uid, other.st_gid), "keep the owner of " + path.string());
  Need(chmod(path.c_str(), other.st_mode & 07777), "keep the mode of " + path.string());
}

// Copies what is below a directory, with owners, modes and times. Real runs make temporary files: when one
// goes away meanwhile, it is done again.
void Copy(const fs::path& from, const fs::path& to) {
  fs::create_directories(to);
  ProgramResult copied = {};
  for (int tries = 0; tries < 5; ++tries) {
    copied = RunProgram({"cp", "-aT", fs::canonical(from), to});
    if (copied.status == 0) return;
  }
  throw std::runtime_error(copied.errors);
}

// Makes a directory as `from`, and in it directories as those below `from`. Links are not followed, and
// there are limits, since users make links and directories too.
void CopyDirectories(const fs::path& from, const fs::path& to, int depth, int& mostLeft) {
  struct stat status = {};
  if (lstat(from.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || --mostLeft < 0) return;
  fs::create_directories(to);
  MakeLike(status, to);
  std::error_code gone;
  if (depth == 0) return;
  for (const fs::directory_entry& entry : fs::directory_iterator(from, gone)) {
    CopyDirectories(entry.path(), to / entry.path().filename(), depth - 1, mostLeft);
  }
}

// ---- The sandbox -------------------------------------------------------------------------------------

// Nothing of the machine can be changed through the mounts of this process from here on.
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
  setenv("HOME", kWork, 1);
  Need(mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr), "mount /proc");
  // As large as any queue or disk: what has room on the machine has room here.
  Need(mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID, "size=1t,nr_inodes=0"), "mount /tmp");
  Need(mkdir(kWork, 0700), "make a directory");
  Need(mkdir(kMachineRoot.c_str(), 0700), "make a directory");
  Bind("/", kMachineRoot);
  Copy(kEtc, kInstalled);
  for (const std::string& directory :
       {kEtc, std::string("/var/lib/samba"), std::string("/var/cache/samba")}) {  // samba: for net(8)
    if (!fs::is_directory(directory)) continue;
    Copy(directory == kEtc ? kInstalled : directory, kWork + directory);
    Bind(kWork + directory, directory);
  }
  Cover(std::string(kTarget) + "/var", kDeepest);
  // The users of a directory or a domain are asked for through sockets, names too. Everybody may go there.
  const mode_t mask = umask(022);
  Cover("/run", kDeepest, {"nscd", "nslcd", "samba/winbindd", "systemd/resolve", "systemd/userdb"});
  umask(mask);
  Cover("/dev", 0, {"full", "null", "random", "tty", "urandom", "zero"});
  ReplaceByText(kHelper, std::string("#!/bin/sh\nprintf %s \"$4\" >") + kToldPamConfig + "\n");
}

}  // namespace

std::unique_ptr<Program> InSandbox(const std::function<int()>& work) {
  signal(SIGCHLD, SIG_DFL);
  clearenv();  // cron's PATH has no sbin, and MAIL_CONFIG would lead Postfix elsewhere
  setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
  setenv("LC_ALL", "C", 1);
  const int parent = Need(static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0)), "watch a process");
  const int own = Need(open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC), "open /proc/self/ns/pid");
  Need(unshare(CLONE_NEWPID), "make a process namespace");
  auto first = std::make_unique<Program>([&] {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd end = {parent, POLLIN, 0};
    if (poll(&end, 1, 0) != 0) return 2;  // the parent ended before it could be asked for
    try {
      ProtectMachine();
      LayOut();
      KeepLog();
      return work();
    } catch (const std::exception& error) {
      std::cerr << "nubo_config_preview: " << error.what() << std::endl;
    }
    return 2;
  });
  Need(setns(own, CLONE_NEWPID), "start processes outside again");
  close(own);
  close(parent);
  return first;
}

void Cover(const std::string& directory, int depth, const std::vector<std::string>& kept) {
  if (!fs::is_directory(directory)) return;
  int mostLeft = kMostDirectories;
  CopyDirectories(fs::canonical(directory), kWork + directory, depth, mostLeft);
  for (const std::string& name : kept) {
    const fs::path path = fs::path(directory) / name;
    const fs::path place = kWork + path.string();
    if (!fs::exists(path)) continue;
    if (fs::is_directory(path)) {
      fs::create_directories(place);
    } else {
      fs::create_directories(place.parent_path());
      std::ofstream(place).flush();
    }
    Bind(path, place);
  }
  Bind(kWork + directory, directory);
}

void CoverFile(const std::string& path) {
  if (path.empty() || StartsWith(path, kTarget + std::string("/var/")) || StartsWith(path, "/var/log/"))
    return;
  if (fs::is_regular_file(path)) {
    ReplaceByText(path, "");
  } else if (!fs::exists(path) && path.rfind('/') > 1) {
    Cover(path.substr(0, path.rfind('/')), kDeepest);
  }
}

void CopyShape(const std::string& path) {
  struct stat status = {};
  const std::string from = kMachineRoot + path;
  std::error_code none;
  if (stat(from.c_str(), &status) != 0 || !fs::exists(fs::path(path).parent_path()) || fs::exists(path))
    return;
  if (S_ISDIR(status.st_mode)) {
    int mostLeft = kMostDirectories;
    CopyDirectories(fs::canonical(from), path, 1, mostLeft);
  } else if (S_ISREG(status.st_mode)) {
    std::ofstream(path).flush();
    MakeLike(status, path);
  }
}

void ShowSocket(const std::string& path) {
  if (!fs::exists(fs::path(path).parent_path())) return;
  std::ofstream(path).flush();
  Bind(kMachineRoot + path, path);
}

void ReplaceByText(const std::string& path, const std::string& text) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return;
  const fs::path standIn = kWork + path;
  fs::create_directories(standIn.parent_path());
  std::ofstream(standIn) << text;
  MakeLike(status, standIn);
  Bind(standIn, path);
}
