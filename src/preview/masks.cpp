#include "preview/masks.h"

#include <functional>
#include <sstream>

namespace {

constexpr const char* kBlanks = " \t\r\v\f";
constexpr size_t kShortestKnown = 6;

bool IsPasswordMap(const std::string& name) { return name.rfind("sasl_passwd", 0) == 0; }

/// Where the secret in a line of a directory's table begins; npos when there is none. `inside` is true when
/// the line before held one: a line that begins with a blank continues the value above it.
size_t FindBindSecret(const std::string& line, bool inside) {
  const size_t begin = line.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return begin;
  if (inside && begin > 0) return begin;
  constexpr std::string_view kName = "bind_pw";
  if (line.compare(begin, kName.size(), kName) != 0) return std::string::npos;
  const size_t sign = line.find_first_not_of(kBlanks, begin + kName.size());
  return sign == std::string::npos || line[sign] != '=' ? std::string::npos : sign + 1;
}

/// The text with each secret replaced by the result of `replace`.
std::string Replaced(const std::string& name, const std::string& text,
                     const std::function<std::string(const std::string&)>& replace) {
  if (!Masks::HoldsSecrets(name)) return text;
  std::istringstream lines(text);
  std::string result;
  bool inside = false;
  for (std::string line; std::getline(lines, line);) {
    size_t begin = IsPasswordMap(name) ? line.find_first_of(kBlanks) : FindBindSecret(line, inside);
    inside = begin != std::string::npos;
    if (inside && IsPasswordMap(name)) {
      line[begin] = ' ';  // a tab in the table, a blank in its source
      ++begin;
    }
    result += inside ? line.substr(0, begin) + replace(line.substr(begin)) : line;
    if (!lines.eof()) result += '\n';
  }
  return result;
}

std::string Trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(kBlanks);
  return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

}  // namespace

bool Masks::HoldsSecrets(const std::string& name) {
  return IsPasswordMap(name) || name.find("-aliases.cf") != std::string::npos;
}

void Masks::Learn(const std::string& name, const std::string& text) {
  Replaced(name, text, [&](const std::string& secret) {
    // In the password map, the user's name and a colon stand before the password.
    const size_t colon = IsPasswordMap(name) ? secret.find(':') : std::string::npos;
    for (const std::string& known :
         {Trimmed(secret), colon == std::string::npos ? "" : Trimmed(secret.substr(colon + 1))}) {
      if (known.size() >= kShortestKnown) secrets_.insert(known);
    }
    return "";
  });
}

std::string Masks::File(const std::string& name, const std::string& text) {
  return Replaced(name, text, [](const std::string&) { return kMask; });
}

std::string Masks::Said(std::string line) const {
  const size_t map = line.find("sasl_passwd");
  const size_t quote = map == std::string::npos ? map : line.find('"', map);
  if (quote != std::string::npos) line = line.substr(0, quote) + kMask;
  for (const std::string& secret : secrets_) {
    for (size_t at = 0; (at = line.find(secret, at)) != std::string::npos;
         at += std::string_view(kMask).size()) {
      line.replace(at, secret.size(), kMask);
    }
  }
  return line;
}
