#include "preview/masks.h"

#include <algorithm>
#include <regex>
#include <vector>

#include "system/text.h"

namespace {

constexpr size_t kShortestLearned = 6;
constexpr const char* kBlanks = " \t\r\v\f";
constexpr const char* kBlanksAndBraces = " \t\r\v\f{}";

bool IsPasswordMap(const std::string& name) { return name.rfind("sasl_passwd", 0) == 0; }

std::string Trimmed(const std::string& text, const std::string& dropped) {
  const size_t begin = text.find_first_not_of(dropped);
  return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(dropped) + 1 - begin);
}

// The position of the secret in an entry; npos when it has none. An entry is a line with the lines that
// continue it. The secret is the whole rest of the entry, because a password may have any character.
size_t SecretIn(const std::string& entry, bool passwordMap) {
  if (passwordMap) return std::min(entry.find_first_of(kBlanks), entry.size() - 1) + 1;
  static const std::regex password("(bind_pw|passw(or)?d|dnpass)[ \t]*=");
  static const std::regex login("static:(?=\\{?[^ \t,{}:]*:)");  // static:USER:PASSWORD
  std::smatch match;
  size_t begin = std::string::npos;
  const auto earliest = [&](size_t at) { begin = std::min(begin, at); };
  for (const std::regex* form : {&password, &login}) {
    if (std::regex_search(entry, match, *form))
      earliest(static_cast<size_t>(match.position() + match.length()));
  }
  const size_t maps = entry.find("password_maps");
  for (const std::string type : {"static:", "inline:"}) {
    const size_t at = maps == std::string::npos ? maps : entry.find(type, maps);
    if (at != std::string::npos) earliest(at + type.size());
  }
  return begin;
}

// The entries of a file. Each line of the password map is one. In other files, a line that begins with a
// blank continues the entry above it; empty lines and comments between do not matter.
std::vector<std::string> Entries(const std::string& text, bool passwordMap) {
  std::vector<std::string> entries;
  std::vector<std::string> between;
  for (const std::string& line : Lines(text)) {
    const size_t begin = line.find_first_not_of(kBlanks);
    if (!passwordMap && (begin == std::string::npos || line[begin] == '#')) {
      between.push_back(line + "\n");
      continue;
    }
    if (passwordMap || begin == 0 || entries.empty()) {
      entries.insert(entries.end(), between.begin(), between.end());
      entries.emplace_back();
    } else {
      for (const std::string& skipped : between) entries.back() += skipped;
    }
    between.clear();
    entries.back() += line + "\n";
  }
  entries.insert(entries.end(), between.begin(), between.end());
  return entries;
}

}  // namespace

bool Masks::MayHaveSecrets(const std::string& name) {
  return IsPasswordMap(name) || name.find(".cf") != std::string::npos ||
         name.find(".conf") != std::string::npos;
}

void Masks::Learn(const std::string& name, const std::string& text) {
  if (!MayHaveSecrets(name)) return;
  const auto learn = [&](const std::string& secret) {
    for (const std::string& known : {secret, secret.substr(secret.find(':') + 1)}) {  // USER:PASSWORD
      for (const std::string& trimmed : {Trimmed(known, kBlanks), Trimmed(known, kBlanksAndBraces)}) {
        if (trimmed.size() >= kShortestLearned) secrets_.insert(trimmed);
      }
    }
  };
  const bool map = IsPasswordMap(name);
  static const std::regex login("=([^{}]*)");  // in an inline table: {HOST = USER:PASSWORD}
  for (const std::string& entry : Entries(text, map)) {
    for (const std::string& line : Lines(entry.substr(std::min(SecretIn(entry, map), entry.size())))) {
      learn(line);
      for (std::sregex_iterator one(line.begin(), line.end(), login), end; !map && one != end; ++one) {
        learn((*one)[1]);
      }
    }
  }
}

std::string Masks::MaskFile(const std::string& name, const std::string& text) {
  if (!MayHaveSecrets(name)) return text;
  std::string shown;
  for (const std::string& entry : Entries(text, IsPasswordMap(name))) {
    const size_t begin = SecretIn(entry, IsPasswordMap(name));
    shown += begin >= entry.size() ? entry : entry.substr(0, begin) + kMask + "\n";
  }
  if (!text.empty() && text.back() != '\n') shown.pop_back();
  return shown;
}

std::string Masks::MaskLine(std::string line) const {
  const size_t map = line.find("sasl_passwd");
  const size_t quote = map == std::string::npos ? map : line.find('"', map);
  const size_t begin = std::min(quote, SecretIn(line, false));
  if (begin < line.size()) line = line.substr(0, begin) + kMask;
  for (const std::string& secret : secrets_) {
    for (size_t at = 0; (at = line.find(secret, at)) != std::string::npos;
         at += std::string_view(kMask).size()) {
      line.replace(at, secret.size(), kMask);
    }
  }
  return line;
}
