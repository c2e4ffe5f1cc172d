#include <strings.h>
#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>

#include "common/files.h"
#include "common/text.h"
#include "libnubocore/error.h"
#include "platform/nubosdk.h"

namespace {

constexpr const char* kSecret = "/usr/nubo/etc/ldap.secret";

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// Removes the first word, and the blanks after it, from `text` and returns the word.
std::string_view TakeWord(std::string_view& text) {
  const std::string_view word = text.substr(0, text.find_first_of(" \t\r"));
  text = Trim(text.substr(word.size()));
  return word;
}

// True when `word` is the name of a map, nslcd.conf(5). A line `base MAP DN` is for that map only.
bool IsMapName(std::string_view word) {
  constexpr std::string_view kMaps[] = {"aliases", "ethers",    "group", "hosts",    "netgroup", "networks",
                                        "passwd",  "protocols", "rpc",   "services", "shadow"};
  return std::any_of(std::begin(kMaps), std::end(kMaps),
                     [=](std::string_view map) { return EqualsIgnoringCase(word, map); });
}

// The value of `key` on its first line; of `uri`, the first word of the value. Empty when the key is missing.
std::string_view FindValue(std::string_view content, std::string_view key) {
  while (!content.empty()) {
    std::string_view value = Trim(TakeLine(content));
    if (!EqualsIgnoringCase(TakeWord(value), key)) continue;
    std::string_view rest = value;
    const std::string_view word = TakeWord(rest);
    if (EqualsIgnoringCase(key, "uri")) return word;
    if (!EqualsIgnoringCase(key, "base") || !IsMapName(word)) return value;
  }
  return {};
}

// The first line of `content` without its line end (LF or CRLF). Blanks stay: they belong to the secret.
std::string_view FirstLine(std::string_view content) {
  const size_t end = content.find('\n');
  const bool crlf = end != std::string_view::npos && end > 0 && content[end - 1] == '\r';
  return content.substr(0, crlf ? end - 1 : end);
}

}  // namespace

int NUBOLDAPInfoGetFromConf(const char* path, const char* key, char* value, int size) {
  CopyToBuffer({}, value, size);
  std::string content;
  if (ReadFile(path, content) == ReadResult::kFailed) return -1;
  const std::string_view found = FindValue(content, key);
  const int length = CopyToBuffer(found, value, size);
  if (found.empty()) {
    syslog(LOG_ERR, "%s is missing or has no %s", path, key);
  } else if (length < 0) {
    syslog(LOG_ERR, "%s: %s: expected a text of less than %d bytes", path, key, size);
  }
  return length;
}

int NUBOLDAPSecretGet(char* secret, int size) {
  CopyToBuffer({}, secret, size);
  std::string content;
  if (ReadSecretFile(kSecret, content) == ReadResult::kFailed) {
    lastError = Error::kUnreadable;
    return -1;
  }
  const std::string_view line = FirstLine(content);
  if (line.empty()) {
    syslog(LOG_ERR, "%s is missing or empty", kSecret);
    lastError = Error::kMissing;
    return -1;
  }
  const int length = CopyToBuffer(line, secret, size);
  if (length < 0) {
    syslog(LOG_ERR, "%s: expected a text of less than %d bytes", kSecret, size);
    lastError = Error::kTooLong;
  }
  return length;
}
