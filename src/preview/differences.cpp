#include "preview/differences.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>

#include "preview/program.h"
#include "preview/sandbox.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kKeptPamConfig = "/usr/nubo/etc/pam-config/Brindlecot.json";

/// The text of a file. For a compiled table, its entries without the one with the time of compilation.
std::string Shown(const fs::path& path) {
  if (path.extension() != ".db" || !fs::exists(path)) return TextOf(path);
  std::vector<std::string> entries =
      Lines(RunProgram({kPostmap, "-s", "hash:" + fs::path(path).replace_extension().string()}).output);
  std::sort(entries.begin(), entries.end());
  std::string text;
  for (const std::string& entry : entries) {
    if (entry.rfind("YP_LAST_MODIFIED", 0) != 0) text += entry + "\n";
  }
  return text;
}

/// Mode and owner of a file; empty when there is no file.
std::string Access(const fs::path& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return "";
  char mode[8];
  std::snprintf(mode, sizeof mode, "%o", status.st_mode & 07777);
  const passwd* user = getpwuid(status.st_uid);
  const group* owners = getgrgid(status.st_gid);
  return std::string(mode) + " " + (user != nullptr ? user->pw_name : std::to_string(status.st_uid)) + ":" +
         (owners != nullptr ? owners->gr_name : std::to_string(status.st_gid));
}

/// Compares two files, of which one may be missing, and adds their difference if there is one.
void Compare(std::vector<Difference>& found, Masks& masks, const fs::path& before, const fs::path& after,
             const std::string& path) {
  Difference difference = {path, Access(before), Access(after), "", false};
  const std::string name = fs::path(path).filename();
  const bool sameBytes =
      !difference.before.empty() && !difference.after.empty() && TextOf(before) == TextOf(after);
  if (sameBytes && difference.before == difference.after && !Masks::HoldsSecrets(name)) return;
  const std::string texts[] = {Shown(before), sameBytes ? "" : Shown(after)};
  for (const std::string& text : texts) masks.Learn(name, text);
  const bool same = sameBytes || texts[0] == texts[1];
  if (same && difference.before == difference.after) return;
  if (!same) {
    const std::string shown[] = {Masks::File(name, texts[0]), Masks::File(name, texts[1])};
    const std::string files[] = {std::string(kWork) + "/shown.before", std::string(kWork) + "/shown.after"};
    for (const int i : {0, 1}) std::ofstream(files[i], std::ios::binary) << shown[i];
    difference.diff = RunProgram({"diff", "-u", "--label", path + "\tinstalled", "--label", path + "\tnew",
                                  files[0], files[1]})
                          .output;
    difference.secret = shown[0] == shown[1];
  }
  found.push_back(difference);
}

void AddNames(std::set<std::string>& names, const fs::path& folder) {
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file() && !entry.is_symlink()) names.insert(entry.path().lexically_relative(folder));
  }
}

}  // namespace

std::vector<Difference> FindDifferences(Masks& masks) {
  std::set<std::string> names;
  AddNames(names, kInstalled);
  AddNames(names, kEtc);
  std::vector<Difference> found;
  for (const std::string& name : names) {
    Compare(found, masks, fs::path(kInstalled) / name, fs::path(kEtc) / name, fs::path(kEtc) / name);
  }
  // The appliance's own helper does not show what it has stored.
  if (fs::exists(kPamConfig) && fs::is_directory(fs::path(kKeptPamConfig).parent_path())) {
    fs::permissions(kPamConfig, fs::perms(0644));
    Compare(found, masks, kKeptPamConfig, kPamConfig, kKeptPamConfig);
  }
  return found;
}
