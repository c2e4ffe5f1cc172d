#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "change/basics.h"
#include "change/state.h"

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kRunPatience(60);

int OpenLock(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0) throw Fault("cannot lock " + path + ": " + std::strerror(errno));
  return file;
}

}  // namespace

void LockStates(std::chrono::seconds patience, bool settled) {
  fs::create_directories(kStates);
  fs::permissions(kStates, fs::perms::owner_all);
  const std::string path = kStates + "/lock";
  const int file = OpenLock(path);
  const auto lock = [&] {
    if (flock(file, LOCK_EX | LOCK_NB) != 0) return false;
    const bool good = !settled || !fs::exists(kPending);
    if (!good) flock(file, LOCK_UN);
    return good;
  };
  if (!WaitFor(lock, patience)) {
    close(file);
    throw Fault("another change is under way" +
                (fs::exists(kPending) && settled ? ", or waits to be confirmed" : ": " + ReadFile(path)));
  }
  // For those who are kept waiting. Nobody needs it after a power cut, so it is not synced.
  std::string command = ReadFile("/proc/self/cmdline");
  std::replace(command.begin(), command.end(), '\0', ' ');
  std::ofstream(path) << "process " << getpid() << ", " << Trim(command) << ", since "
                      << TimeOfDay("%Y-%m-%d %H:%M:%S", 0);
  const int run = OpenLock(kRunLock);
  const bool free = WaitFor([&] { return flock(run, LOCK_EX | LOCK_NB) == 0; }, kRunPatience);
  close(run);
  if (!free) throw Fault("nubo_set_config is still running, after a change that was killed");
  for (const fs::directory_entry& entry : fs::directory_iterator(kStates)) {
    if (entry.path().extension() == ".new") fs::remove_all(entry.path());
  }
}
