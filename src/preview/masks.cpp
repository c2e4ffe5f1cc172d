#include "preview/masks.h"

#include <regex>

#include "system/program.h"
#include "system/text.h"

namespace {

constexpr size_t kShortestKnown = 6;

bool IsPasswordMap(const std::string& name) { return name.rfind("sasl_passwd", 0) == 0; }

/// Two groups: what stands before a secret, and the secret. In a directory's table, a line that begins with a
/// blank continues the value above it.
const std::regex& FormOf(const std::string& name) {
  static const std::regex map(R"(^([^ \t\r\v\f\n]*)[ \t\r\v\f]([^\n]*))", std::regex::multiline);
  static const std::regex table(R"(^([ \t\r\v\f]*bind_pw[ \t\r\v\f]*=)([^\n]*(?:\n[ \t\r\v\f][^\n]*)*))",
                                std::regex::multiline);
  return IsPasswordMap(name) ? map : table;
}

std::string Trimmed(const std::string& text) {
  constexpr const char* kBlanks = " \t\r\v\f";
  const size_t begin = text.find_first_not_of(kBlanks);
  return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

}  // namespace

bool Masks::HoldsSecrets(const std::string& name) {
  return IsPasswordMap(name) || name.find("-aliases.cf") != std::string::npos;
}

void Masks::Learn(const std::string& name, const std::string& text) {
  if (!HoldsSecrets(name)) return;
  for (std::sregex_iterator one(text.begin(), text.end(), FormOf(name)), end; one != end; ++one) {
    for (const std::string& secret : Lines((*one)[2])) {
      // In the password map, the user's name and a colon stand before the password.
      for (const std::string& known :
           {Trimmed(secret), Trimmed(secret.substr(IsPasswordMap(name) ? secret.find(':') + 1 : 0))}) {
        if (known.size() >= kShortestKnown) secrets_.insert(known);
      }
    }
  }
}

std::string Masks::File(const std::string& name, const std::string& text) {
  if (!HoldsSecrets(name)) return text;
  return std::regex_replace(text, FormOf(name), (IsPasswordMap(name) ? "$1 " : "$1") + std::string(kMask));
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
