#include "change/state.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <list>
#include <vector>

#include "change/basics.h"
#include "core/config_generator.h"
#include "mail/paths.h"

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

std::string Folder(FileKind kind, const std::string& tree) {
  return tree == kLive ? "" : tree + (kind == FileKind::kInput ? "/in" : "/out");
}

// The path of the file that a temporary name belongs to: six letters and digits follow it, as mkstemp(3)
// makes them, or a directory of such a name in which a table is compiled. Empty for other names, such as
// main.cfbackup.
std::string FileOfTemporary(const std::string& path) {
  const auto suffixed = [](const std::string& name) {
    if (name.size() < 6) return false;
    const std::string letters = name.substr(name.size() - 6);
    const auto capital = [](unsigned char c) { return std::isupper(c) != 0; };
    const auto other = [](unsigned char c) { return std::islower(c) != 0 || std::isdigit(c) != 0; };
    return std::all_of(letters.begin(), letters.end(),
                       [](unsigned char c) { return std::isalnum(c) != 0; }) &&
           std::any_of(letters.begin(), letters.end(), capital) &&
           std::any_of(letters.begin(), letters.end(), other);
  };
  for (const std::string& name : {path, fs::path(path).parent_path().string()}) {
    if (!suffixed(name)) continue;
    const std::string file = name.substr(0, name.size() - 6);
    return EndsWith(file, ".") ? file.substr(0, file.size() - 1) : file;
  }
  return "";
}

bool IsTemporary(const std::string& folder, const std::string& path) {
  const std::string file = FileOfTemporary(path);
  return !file.empty() && fs::is_regular_file(folder + file);
}

// Calls `add` for a file, or for all below a directory. Links to directories are followed. What goes away
// meanwhile was somebody else's.
void Walk(const fs::path& path, const std::function<void(const fs::path&)>& add) {
  std::error_code gone;
  if (!fs::is_directory(path, gone)) return add(path);
  for (const fs::directory_entry& entry : fs::directory_iterator(path, gone)) Walk(entry.path(), add);
}

// The files at and below `top` in a folder, without the folder's name.
Paths FilesAt(const std::string& folder, const std::string& top, bool followed) {
  Paths found;
  Walk(folder + top, [&](const fs::path& path) {
    std::error_code gone;
    const bool file = fs::is_regular_file(path, gone);
    const bool link = fs::is_symlink(path, gone);
    if (followed && link && !fs::exists(path, gone)) {
      throw Fault(path.string() + " is a link to nothing: remove it, or make the file that it leads to");
    }
    if (file || link) found.insert(path.string().substr(folder.size()));
  });
  return found;
}

// By a hard link if both are on one file system, else a copy with mode, owner and time.
void LinkOrCopy(const std::string& source, const std::string& target) {
  fs::create_directories(fs::path(target).parent_path());
  fs::remove(target);
  if (link(source.c_str(), target.c_str()) == 0) return;
  RunOrThrow({"cp", "-aT", source, target}, "not copied");
}

// Replaces an installed file by one rename.
void Replace(const std::string& source, const std::string& target, bool byLink) {
  const std::string temp = target + ".apply";
  try {
    fs::create_directories(fs::path(target).parent_path());
    fs::remove(temp);
    if (byLink && !fs::is_symlink(source) && fs::hard_link_count(source) == 1) {
      LinkOrCopy(source, temp);
    } else {
      RunOrThrow({"cp", "-aT", source, temp}, "not copied");
    }
    if (!fs::is_symlink(temp)) Sync({temp});
    fs::rename(temp, target);
  } catch (const std::exception&) {
    fs::remove(temp);
    throw;
  }
}

// Where an installed file of the kind is written. Throws Fault when it must go, and is a link.
std::string TargetOf(FileKind kind, const std::string& path, bool wanted) {
  if (kind == FileKind::kOutput || !fs::is_symlink(path)) return path;
  if (!wanted) throw Fault(path + " is a link, and the state has no such file: remove the link first");
  return fs::canonical(path);
}

}  // namespace

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

bool HasFiles(const std::string& tree, FileKind kind) { return fs::exists(Folder(kind, tree)); }

std::string PlaceOf(FileKind kind, const std::string& tree, const std::string& path) {
  return Folder(kind, tree) + path;
}

Paths Files(FileKind kind, const std::string& tree) {
  const std::string folder = Folder(kind, tree);
  const bool followed = kind == FileKind::kInput;
  Paths inputs;
  for (const char* input : kInputs) inputs.merge(FilesAt(folder, input, followed));
  if (followed) return inputs;
  Paths all = FilesAt(folder, kEtc, followed);
  all.merge(FilesAt(folder, kPamConfig, followed));
  Paths outputs;
  for (const std::string& path : all) {
    if (inputs.count(path) == 0 && !StartsWith(path, kTemplates) && !IsTemporary(folder, path)) {
      outputs.insert(path);
    }
  }
  return outputs;
}

bool IsSame(FileKind kind, const std::string& path, const std::string& tree, const std::string& other) {
  const auto look = kind == FileKind::kInput ? stat : lstat;
  const std::string one = PlaceOf(kind, tree, path);
  const std::string two = PlaceOf(kind, other, path);
  struct stat a = {};
  struct stat b = {};
  const bool first = look(one.c_str(), &a) == 0;
  const bool second = look(two.c_str(), &b) == 0;
  if (!first || !second) return first == second;
  if (a.st_size != b.st_size || a.st_mode != b.st_mode || a.st_uid != b.st_uid || a.st_gid != b.st_gid) {
    return false;
  }
  return S_ISLNK(a.st_mode) ? fs::read_symlink(one) == fs::read_symlink(two) : ReadFile(one) == ReadFile(two);
}

Paths Differing(FileKind kind, const std::string& tree, const std::string& other) {
  Paths all = Files(kind, tree);
  all.merge(Files(kind, other));
  Paths differing;
  for (const std::string& path : all) {
    if (!IsSame(kind, path, tree, other)) differing.insert(path);
  }
  return differing;
}

void SaveFiles(FileKind kind, const std::string& tree, const std::string& earlier) {
  const std::string folder = Folder(kind, tree);
  fs::create_directories(folder);
  std::vector<std::string> copied;
  for (const std::string& path : Files(kind, kLive)) {
    if (earlier != kLive && IsSame(kind, path, earlier)) {
      LinkOrCopy(PlaceOf(kind, earlier, path), folder + path);
    } else {
      copied.push_back(path);
    }
  }
  if (copied.empty()) return;
  std::vector<std::string> command = {"cp", kind == FileKind::kInput ? "-aL" : "-a", "--parents", "-t",
                                      folder};
  command.insert(command.end(), copied.begin(), copied.end());
  const ProgramResult result = RunProgram(command);
  for (const std::string& path : copied) {  // one that has gone meanwhile was somebody else's
    if (!fs::exists(fs::symlink_status(folder + path)) && fs::exists(path)) throw Fault(result.errors);
  }
}

void RestoreFiles(FileKind kind, const Paths& paths, const std::string& tree) {
  Paths changed;
  std::list<std::string> failed;
  for (const std::string& path : paths) {
    if (IsSame(kind, path, tree)) continue;
    const std::string source = PlaceOf(kind, tree, path);
    const bool wanted = fs::exists(fs::symlink_status(source));
    try {
      const std::string target = TargetOf(kind, path, wanted);
      wanted ? Replace(source, target, tree == kPending) : (void)fs::remove(target);
      changed.insert(target);
    } catch (const std::exception& error) {
      failed.emplace_back(error.what());
    }
  }
  try {
    Sync(changed);
  } catch (const std::exception& error) {
    failed.emplace_back(error.what());
  }
  if (!failed.empty()) throw Fault(JoinList(failed, "; "));
}

void SetAside(FileKind kind, const Paths& paths, const std::string& tree) {
  for (const std::string& path : paths) {
    if (!fs::exists(path)) continue;
    LinkOrCopy(kind == FileKind::kInput ? fs::canonical(path) : fs::path(path), PlaceOf(kind, tree, path));
  }
}

void RemoveLeftovers(const std::string& since) {
  struct stat begin = {};
  stat(since.c_str(), &begin);
  for (const std::string& path : FilesAt("", kEtc, false)) {
    struct stat status = {};
    if (!IsTemporary("", path) || lstat(path.c_str(), &status) != 0 || status.st_ctime < begin.st_mtime)
      continue;
    fs::remove(path);
    const fs::path directory = fs::path(path).parent_path();
    std::error_code notEmpty;
    if (directory != fs::path(FileOfTemporary(path)).parent_path()) fs::remove(directory, notEmpty);
  }
}

void ReserveRoom(const std::string& path, off_t bytes) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const int error = file < 0 ? errno : posix_fallocate(file, 0, bytes);
  close(file);
  if (error != 0) throw Fault("no room on the disk for going back: " + std::string(std::strerror(error)));
}

void Install(const std::string& directory, const std::string& name) {
  Paths all = {directory};
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
    if (!entry.is_symlink()) all.insert(entry.path());
  }
  Sync(all);
  const unsigned how = fs::exists(name) ? RENAME_EXCHANGE : 0;
  if (renameat2(AT_FDCWD, directory.c_str(), AT_FDCWD, name.c_str(), how) != 0) {
    throw Fault("cannot rename " + directory + ": " + std::strerror(errno));
  }
  Sync({name});
  fs::remove_all(directory);
}
