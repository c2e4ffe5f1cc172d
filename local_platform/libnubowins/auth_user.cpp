#include <syslog.h>

#include <string>

#include "common/files.h"
#include "common/text.h"
#include "libnubocore/key_value_file.h"
#include "platform/nubowins.h"

namespace {

constexpr const char* kPath = "/usr/nubo/etc/wins.secret";

bool CopyValue(const ZELBCSzHash& secret, const char* key, char* buffer, int size) {
  const ZELBCSzHash::Entry* entry = secret.Find(key);
  if (entry == nullptr || entry->value.empty()) {
    syslog(LOG_ERR, "%s is missing or has no %s", kPath, key);
    return false;
  }
  if (CopyToBuffer(entry->value, buffer, size) < 0) {
    syslog(LOG_ERR, "%s: %s: expected a text of less than %d bytes", kPath, key, size);
    return false;
  }
  return true;
}

}  // namespace

int NUBOWinsGetAuthUser(char* domain, int domainSize, char* user, int userSize, char* password,
                        int passwordSize) {
  std::string content;
  ZELBCSzHash secret;
  if (ReadSecretFile(kPath, content) == ReadResult::kFailed || !ParsePairs(kPath, content, secret)) {
    return -1;
  }
  const bool copied = CopyValue(secret, "domain", domain, domainSize) &&
                      CopyValue(secret, "user", user, userSize) &&
                      CopyValue(secret, "password", password, passwordSize);
  return copied ? 0 : -1;
}
