#include "apply/state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <list>

#include "apply/basics.h"
#include "core/config_generator.h"
#include "mail_check/configuration.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kTemplates = "/var/packages/Brindlecot/target/etc/template/";
constexpr const char* kPamConfig = "/usr/nubo/etc/pam-config/Brindlecot.json";
constexpr const char* kInputs[] = {
    "/var/packages/Brindlecot/etc/settings",
    "/var/packages/Brindlecot/etc/customize",
    "/var/packages/Brindlecot/etc/brindlecot.conf",
    "/var/packages/Brindlecot/target/etc/access",
    "/var/packages/Brindlecot/target/etc/login_map",
    "/var/packages/Brindlecot/target/etc/login_map.db",
    "/var/packages/Brindlecot/target/etc/dovecot/dovecot.conf",
    "/var/packages/Brindlecot/target/etc/template/header_checks.template",
};

std::string Folder(Kind kind, const std::string& tree) {
  return tree == kLive ? "" : tree + (kind == Kind::kInput ? "/in" : "/out");
}

// The regular files at and below `top` in a folder, without the folder's name.
Paths FilesAt(const std::string& folder, const std::string& top) {
  Paths found;
  const auto add = [&](const std::string& path) {
    if (fs::is_regular_file(fs::symlink_status(path))) found.insert(path.substr(folder.size()));
  };
  add(folder + top);
  std::error_code noDirectory;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder + top, noDirectory)) {
    add(entry.path());
  }
  return found;
}

Paths Files(Kind kind, const std::string& tree) {
  const std::string folder = Folder(kind, tree);
  Paths inputs;
  for (const char* input : kInputs) inputs.merge(FilesAt(folder, input));
  if (kind == Kind::kInput) return inputs;
  Paths all = FilesAt(folder, kEtc);
  all.merge(FilesAt(folder, kPamConfig));
  Paths outputs;
  for (const std::string& path : all) {
    if (inputs.count(path) == 0 && path.rfind(kTemplates, 0) != 0) outputs.insert(path);
  }
  return outputs;
}

bool Same(const std::string& one, const std::string& other) {
  struct stat a = {};
  struct stat b = {};
  return lstat(one.c_str(), &a) == 0 && lstat(other.c_str(), &b) == 0 && a.st_size == b.st_size &&
         a.st_mode == b.st_mode && a.st_uid == b.st_uid && a.st_gid == b.st_gid &&
         ReadFile(one) == ReadFile(other);
}

// With mode, owner and time, by a rename.
void Copy(const std::string& source, const std::string& target) {
  const std::string temp = target + ".apply";
  try {
    fs::create_directories(fs::path(target).parent_path());
    RunOrThrow({"cp", "-aT", source, temp}, "not copied");
    Sync({temp});
    fs::rename(temp, target);
  } catch (const std::exception&) {
    fs::remove(temp);
    throw;
  }
}

}  // namespace

void LockStates(std::chrono::seconds patience, bool settled) {
  fs::create_directories(fs::path(kStates).parent_path());
  mkdir(kStates.c_str(), 0700);
  const int file = open((kStates + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0) throw Fault("cannot lock " + kStates + ": " + std::strerror(errno));
  const auto lock = [&] {
    if (flock(file, LOCK_EX | LOCK_NB) != 0) return false;
    const bool good = !settled || !fs::exists(kPending);
    if (!good) flock(file, LOCK_UN);
    return good;
  };
  if (!WaitFor(lock, patience)) throw Fault("another change is under way");
  RunOrThrow({"flock", "-w", "60", kRunLock, "true"}, "nubo_set_config is still running");
  for (const fs::directory_entry& entry : fs::directory_iterator(kStates)) {
    if (entry.path().extension() == ".new") fs::remove_all(entry.path());
  }
}

std::string StateDirectory(int number) { return kStates + "/" + std::to_string(number); }

std::set<int> States() {
  std::set<int> numbers;
  std::error_code none;
  for (const fs::directory_entry& entry : fs::directory_iterator(kStates, none)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos) numbers.insert(std::stoi(name));
  }
  return numbers;
}

bool Holds(const std::string& tree, Kind kind) { return fs::exists(Folder(kind, tree)); }

Paths Differing(Kind kind, const std::string& tree, const std::string& other) {
  Paths all = Files(kind, tree);
  all.merge(Files(kind, other));
  Paths differing;
  for (const std::string& path : all) {
    if (!Same(Folder(kind, tree) + path, Folder(kind, other) + path)) differing.insert(path);
  }
  return differing;
}

void Mirror(Kind kind, const std::string& from, const std::string& to) {
  const Paths wanted = Files(kind, from);
  Paths changed;
  std::list<std::string> failed;
  for (const std::string& path : Differing(kind, from, to)) {
    const std::string target = Folder(kind, to) + path;
    try {
      if (wanted.count(path) != 0) {
        Copy(Folder(kind, from) + path, target);
      } else {
        fs::remove(target);
      }
      changed.insert(target);
    } catch (const std::exception& error) {
      failed.emplace_back(error.what());
    }
  }
  Sync(changed);
  if (!failed.empty()) throw Fault(JoinList(failed, "; "));
}

void LinkTree(const std::string& from, const std::string& to) {
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::create_hard_links);
}

void Keep(Kind kind, const std::string& tree, const std::string& earlier) {
  const std::string folder = Folder(kind, tree);
  fs::create_directories(folder);
  if (Holds(earlier, kind)) LinkTree(Folder(kind, earlier), folder);
  Mirror(kind, kLive, tree);
}

void Install(const std::string& directory, const std::string& name) {
  Paths all = {directory};
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
    all.insert(entry.path());
  }
  Sync(all);
  const unsigned how = fs::exists(name) ? RENAME_EXCHANGE : 0;
  if (renameat2(AT_FDCWD, directory.c_str(), AT_FDCWD, name.c_str(), how) != 0) {
    throw Fault("cannot rename " + directory + ": " + std::strerror(errno));
  }
  Sync({name});
  fs::remove_all(directory);
}
