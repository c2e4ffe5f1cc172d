#include <syslog.h>

#include <string>
#include <string_view>

#include "common/files.h"
#include "common/text.h"
#include "libnubocore/error.h"
#include "platform/nubosdk.h"

namespace {

constexpr const char* kPath = "/usr/nubo/etc/ldap.secret";

/// The first line of `content` without its line end, LF or CRLF; blanks are part of a secret.
std::string_view FirstLine(std::string_view content) {
  std::string_view line = TakeLine(content);
  if (!line.empty() && line.back() == '\n') {
    line.remove_suffix(1);
    if (!line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
    }
  }
  return line;
}

}  // namespace

int NUBOLDAPSecretGet(char* secret, int size) {
  CopyToBuffer({}, secret, size);
  std::string content;
  if (ReadSecretFile(kPath, content) == ReadResult::kFailed) {
    SetLastError(Error::kUnreadable);
    return -1;
  }
  const std::string_view line = FirstLine(content);
  if (line.empty()) {
    syslog(LOG_ERR, "%s is missing or empty", kPath);
    SetLastError(Error::kMissing);
    return -1;
  }
  const int length = CopyToBuffer(line, secret, size);
  if (length < 0) {
    syslog(LOG_ERR, "%s: expected a text of less than %d bytes", kPath, size);
    SetLastError(Error::kTooLong);
  }
  return length;
}
