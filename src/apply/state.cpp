#include "apply/state.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/paths.h"

namespace {

namespace fs = std::filesystem;
using Paths = std::set<std::string>;

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

// The regular files at and below `top`.
void Collect(Paths& found, const std::string& top) {
  if (fs::is_regular_file(fs::symlink_status(top))) found.insert(top);
  if (!fs::is_directory(fs::symlink_status(top))) return;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top)) {
    if (fs::is_regular_file(entry.symlink_status())) found.insert(entry.path());
  }
}

Paths Live(Kind kind) {
  Paths inputs;
  for (const char* input : kInputs) Collect(inputs, input);
  if (kind == Kind::kInput) return inputs;
  Paths all;
  Collect(all, kEtc);
  Collect(all, kPamConfig);
  Paths outputs;
  std::copy_if(all.begin(), all.end(), std::inserter(outputs, outputs.end()), [&](const std::string& path) {
    return inputs.count(path) == 0 && path.rfind(kTemplates, 0) != 0;
  });
  return outputs;
}

std::string Folder(Kind kind, const std::string& tree) {
  return tree + (kind == Kind::kInput ? "/in" : "/out");
}

Paths Kept(Kind kind, const std::string& tree) {
  const std::string folder = Folder(kind, tree);
  Paths found;
  Collect(found, folder);
  Paths paths;
  for (const std::string& path : found) paths.insert(path.substr(folder.size()));
  return paths;
}

bool Same(const std::string& one, const std::string& other) {
  struct stat a = {};
  struct stat b = {};
  return lstat(one.c_str(), &a) == 0 && lstat(other.c_str(), &b) == 0 && a.st_size == b.st_size &&
         a.st_mode == b.st_mode && a.st_uid == b.st_uid && a.st_gid == b.st_gid &&
         TextOf(one) == TextOf(other);
}

void SyncPath(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  const bool synced = file >= 0 && fsync(file) == 0;
  const int error = errno;
  if (file >= 0) close(file);
  if (!synced) throw Fault("cannot sync " + path + ": " + std::strerror(error));
}

void SyncParents(const Paths& paths) {
  Paths parents;
  for (const std::string& path : paths) parents.insert(fs::path(path).parent_path());
  for (const std::string& parent : parents) SyncPath(parent);
}

// A copy with mode, owner and time, in place of what is there; synced, but for its directory.
void Copy(const std::string& source, const std::string& target) {
  fs::create_directories(fs::path(target).parent_path());
  std::string temp = target + "XXXXXX";
  const int made = mkostemp(temp.data(), O_CLOEXEC);
  struct stat status = {};
  if (made < 0 || stat(source.c_str(), &status) != 0) throw Fault(target + ": " + std::strerror(errno));
  close(made);
  try {
    fs::copy_file(source, temp, fs::copy_options::overwrite_existing);
    const timespec times[] = {status.st_atim, status.st_mtim};
    if (chown(temp.c_str(), status.st_uid, status.st_gid) != 0 ||
        chmod(temp.c_str(), status.st_mode & 07777) != 0 ||
        utimensat(AT_FDCWD, temp.c_str(), times, 0) != 0) {
      throw Fault(target + ": " + std::strerror(errno));
    }
    SyncPath(temp);
    fs::rename(temp, target);
  } catch (const std::exception&) {
    unlink(temp.c_str());
    throw;
  }
}

}  // namespace

std::string StateDirectory(int number) { return kStates + ("/" + std::to_string(number)); }

std::set<int> States() {
  std::set<int> numbers;
  if (!fs::exists(kStates)) return numbers;
  for (const fs::directory_entry& entry : fs::directory_iterator(kStates)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos) numbers.insert(std::stoi(name));
  }
  return numbers;
}

void Keep(Kind kind, const std::string& tree, const std::string& earlier) {
  const std::string folder = Folder(kind, tree);
  fs::create_directories(folder);
  for (const std::string& path : Live(kind)) {
    const std::string before = Folder(kind, earlier) + path;
    if (!earlier.empty() && Same(path, before)) {
      fs::create_directories(fs::path(folder + path).parent_path());
      fs::create_hard_link(before, folder + path);
    } else {
      Copy(path, folder + path);
    }
  }
}

void Install(const std::string& tree, const std::string& name) {
  SyncPath(tree);
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree)) {
    if (entry.is_directory()) SyncPath(entry.path());
  }
  // A directory can only replace an empty one.
  if (fs::exists(name)) fs::remove_all(name);
  fs::rename(tree, name);
  SyncPath(fs::path(name).parent_path());
}

bool Holds(const std::string& tree, Kind kind) { return fs::exists(Folder(kind, tree)); }

std::vector<std::string> Differing(Kind kind, const std::string& tree) {
  Paths all = Live(kind);
  all.merge(Kept(kind, tree));
  std::vector<std::string> differing;
  std::copy_if(all.begin(), all.end(), std::back_inserter(differing),
               [&](const std::string& path) { return !Same(path, Folder(kind, tree) + path); });
  return differing;
}

std::vector<std::string> PutBack(Kind kind, const std::string& tree) {
  const Paths kept = Kept(kind, tree);
  std::vector<std::string> failed;
  Paths changed;
  for (const std::string& path : Differing(kind, tree)) {
    try {
      if (kept.count(path) != 0) {
        Copy(Folder(kind, tree) + path, path);
      } else {
        fs::remove(path);
      }
      changed.insert(path);
    } catch (const std::exception& error) {
      failed.push_back(path + ": " + error.what());
    }
  }
  SyncParents(changed);
  return failed;
}

void Sync(const std::vector<std::string>& paths) {
  Paths there;
  std::copy_if(paths.begin(), paths.end(), std::inserter(there, there.end()),
               [](const std::string& path) { return fs::exists(path); });
  for (const std::string& path : there) SyncPath(path);
  SyncParents(there);
}

std::string TextOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  if (!file) throw Fault("cannot write " + path + ": " + std::strerror(errno));
  SyncPath(path);
}
