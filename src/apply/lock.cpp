#include "apply/lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "apply/state.h"

namespace {

namespace fs = std::filesystem;

int Open(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0) throw Fault("cannot open " + path + ": " + std::strerror(errno));
  return file;
}

bool Take(int file, std::chrono::seconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (flock(file, LOCK_EX | LOCK_NB) != 0) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return true;
}

}  // namespace

Lock::Lock(std::chrono::seconds patience) {
  fs::create_directories(fs::path(kStates).parent_path());
  mkdir(kStates, 0700);
  file_ = Open(std::string(kStates) + "/lock");
  held_ = Take(file_, patience);
  if (!held_) return;
  const int run = Open(kRunLock);
  held_ = Take(run, std::chrono::seconds(60));
  close(run);
  if (!held_) return;
  for (const fs::directory_entry& entry : fs::directory_iterator(kStates)) {
    if (entry.path().extension() == ".new") fs::remove_all(entry.path());
  }
}

Lock::~Lock() { close(file_); }
