// A customisation file and the generated file that it is merged into, with a line "--" between them.
#include <algorithm>

#include "common/text.h"
#include "fuzz.h"
#include "libnubocore/strings.h"
#include "platform/nubocore.h"

static std::vector<std::string> Lines(const std::string& text) {
  return Split(text.empty() || text.back() == '\n' ? text : text + '\n', "\n");
}

// Moves the lines of the keys out of `lines`; their continuations go too, if `continued`.
static std::vector<std::string> Take(std::vector<std::string>& lines, const ZELBCSzHash& keys,
                                     bool continued) {
  std::vector<std::string> taken;
  std::vector<std::string> rest;
  bool ours = false;
  for (const std::string& line : lines) {
    const bool skipped = Trim(line).empty() || Trim(line)[0] == '#';
    const bool pair = !skipped && line[0] != ' ' && line[0] != '\t';
    if (pair) ours = line.find('=') != std::string::npos && keys.Find(Trim(line.substr(0, line.find('='))));
    if (pair && ours) taken.push_back(line);
    if (skipped || !ours || (!pair && !continued)) rest.push_back(line);
  }
  lines.swap(rest);
  return taken;
}

void Try(const std::string& input) {
  const auto files = Split(input, "\n--\n");
  ZELBCSzHash keys;
  ZELBCSzHash* handle = &keys;
  Put("/run/pairs", files.front());
  Put("/run/file", files.back());
  if (ZELBCFileGetPair("/run/pairs", &handle) < 0) return;
  assert(ZELBCFileSetKeys("/run/file", handle, 0, "%s = %s\n") == 0);

  auto before = Lines(files.back());
  auto after = Lines(Slurp("/run/file"));
  Take(before, keys, true);
  const auto ours = Take(after, keys, false);
  assert(ours.size() == keys.entries.size());
  assert(after == before);

  for (const auto& [key, value] : keys.entries) {
    assert(std::count(ours.begin(), ours.end(), key + " = " + value) == 1);
    std::string buffer(value.size() + 1, 'x');
    const auto length = static_cast<int>(value.size());
    assert(ZELBCFileGetKeyValue("/run/pairs", key.c_str(), buffer.data(), length + 1, 0) == length);
    assert(buffer == value + '\0');
    assert(ZELBCFileGetKeyValue("/run/pairs", key.c_str(), buffer.data(), length, 0) == -1);  // not cut
  }
}
