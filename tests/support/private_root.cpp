#include "private_root.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace {

void Must(bool done, const std::string& what) {
  if (!done) {
    std::fprintf(stderr, "private root: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(EXIT_FAILURE);
  }
}

void WriteOnce(const char* path, const std::string& text) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  Must(file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
  close(file);
}

}  // namespace

void EnterPrivateRoot() {
  const auto uid = std::to_string(geteuid());
  const auto gid = std::to_string(getegid());
  if (uid == "0") {
    Must(unshare(CLONE_NEWNS) == 0, "unshare");
  } else {
    Must(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare (user namespaces are needed without root)");
    WriteOnce("/proc/self/setgroups", "deny");
    WriteOnce("/proc/self/uid_map", "0 " + uid + " 1");
    WriteOnce("/proc/self/gid_map", "0 " + gid + " 1");
  }
  Must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private propagation");
  // The overlays' upper layers live in a tmpfs that only this namespace sees.
  Must(mount("tmpfs", "/mnt", "tmpfs", 0, "mode=755") == 0, "tmpfs on /mnt");
  for (const std::string name : {"var", "usr", "etc"}) {
    fs::create_directories("/mnt/" + name + ".upper");
    fs::create_directories("/mnt/" + name + ".work");
    const std::string layers =
        "lowerdir=/" + name + ",upperdir=/mnt/" + name + ".upper,workdir=/mnt/" + name + ".work";
    Must(mount("overlay", ("/" + name).c_str(), "overlay", 0, layers.c_str()) == 0, "overlay on /" + name);
  }
  Must(mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") == 0, "tmpfs on /tmp");
  umask(022);
}

void ResetPrivateRoot() {
  for (const char* tree : {"/var/packages", "/usr/nubo"}) {
    fs::remove_all(tree);
  }
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    fs::remove_all(entry.path());
  }
}

void Put(const std::string& path, const std::string& content, unsigned mode) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
  chmod(path.c_str(), mode);
}

std::string Slurp(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return "(missing)";
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

int main(int argc, char* argv[]) {
  testing::InitGoogleTest(&argc, argv);
  EnterPrivateRoot();
  return RUN_ALL_TESTS();
}
