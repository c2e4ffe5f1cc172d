#include "preview/differences.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

#include "core/paths.h"
#include "mail/paths.h"
#include "preview/sandbox.h"
#include "system/files.h"
#include "system/program.h"
#include "system/text.h"

namespace {

namespace fs = std::filesystem;

// The text of a file; of a compiled table, its entries without the one that has the time of compilation.
std::string EntriesOrText(const fs::path& path) {
  if (path.extension() != ".db" || !fs::exists(path)) return ReadFile(path);
  std::vector<std::string> entries =
      Lines(RunProgram({kPostmap, "-s", "hash:" + fs::path(path).replace_extension().string()}).output);
  std::sort(entries.begin(), entries.end());
  std::string text;
  for (const std::string& entry : entries) {
    if (entry.rfind("YP_LAST_MODIFIED", 0) != 0) text += entry + "\n";
  }
  return text;
}

// Mode and owner of each file below a directory, by its path from there.
std::map<std::string, std::string> FilesBelow(const std::string& folder) {
  std::map<std::string, std::string> files;
  for (const std::string& line :
       Lines(RunProgram({"find", folder, "-type", "f", "-printf", "%P\\0%m %u:%g\\n"}).output)) {
    files[line.c_str()] = line.substr(line.find('\0') + 1);
  }
  return files;
}

// Adds the difference between two files, of which one may be missing, unless they are the same. `difference`
// has its path, modes and owners already.
void Compare(std::vector<Difference>& found, Masks& masks, Difference difference, const fs::path& before,
             const fs::path& after) {
  const std::string name = fs::path(difference.path).filename();
  const bool sameAccess = difference.before == difference.after;
  const bool sameBytes = ReadFile(before) == ReadFile(after);
  if (sameBytes && sameAccess && !Masks::MayHaveSecrets(name)) return;
  const std::string texts[] = {EntriesOrText(before), sameBytes ? "" : EntriesOrText(after)};
  for (const std::string& text : texts) masks.Learn(name, text);
  const bool same = sameBytes || texts[0] == texts[1];
  if (same && sameAccess) return;
  if (!same) {
    const std::string shown[] = {Masks::MaskFile(name, texts[0]), Masks::MaskFile(name, texts[1])};
    const std::string files[] = {std::string(kWork) + "/shown.before", std::string(kWork) + "/shown.after"};
    for (const int i : {0, 1}) std::ofstream(files[i], std::ios::binary) << shown[i];
    difference.diff = RunProgram({"diff", "-u", "--label", difference.path + "\tinstalled", "--label",
                                  difference.path + "\tnew", files[0], files[1]})
                          .output;
    difference.secret = shown[0] == shown[1];
  }
  found.push_back(difference);
}

}  // namespace

std::vector<Difference> FindDifferences(Masks& masks) {
  std::map<std::string, std::string> before = FilesBelow(kInstalled);
  std::map<std::string, std::string> after = FilesBelow(kEtc);
  for (const auto& [name, access] : after) before.emplace(name, "");
  std::vector<Difference> found;
  for (const auto& [name, access] : before) {
    const fs::path path = fs::path(kEtc) / name;
    Compare(found, masks, {path, access, after[name], "", false}, fs::path(kInstalled) / name, path);
  }
  // The appliance's own helper does not show what it has stored.
  if (fs::exists(kToldPamConfig) && fs::is_directory(fs::path(kKeptPamConfig).parent_path())) {
    fs::permissions(kToldPamConfig, fs::perms(0644));
    Compare(found, masks,
            {kKeptPamConfig, FilesBelow(kKeptPamConfig)[""], FilesBelow(kToldPamConfig)[""], "", false},
            kKeptPamConfig, kToldPamConfig);
  }
  return found;
}
