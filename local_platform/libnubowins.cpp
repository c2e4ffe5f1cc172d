#include <syslog.h>

#include <string>

#include "common/files.h"
#include "common/text.h"
#include "libnubocore/key_value_file.h"
#include "libnubocore/run_program.h"
#include "platform/nubowins.h"

namespace {

constexpr const char* kSecret = "/usr/nubo/etc/wins.secret";

bool CopyValue(const ZELBCSzHash& secret, const char* key, char* buffer, int size) {
  const ZELBCSzHash::Entry* entry = secret.Find(key);
  if (entry == nullptr || entry->value.empty()) {
    syslog(LOG_ERR, "%s is missing or has no %s", kSecret, key);
    return false;
  }
  if (CopyToBuffer(entry->value, buffer, size) < 0) {
    syslog(LOG_ERR, "%s: %s: expected a text of less than %d bytes", kSecret, key, size);
    return false;
  }
  return true;
}

}  // namespace

int NUBOWinsADSJoined() {
  constexpr const char* kNet = "/usr/bin/net";
  const std::string failure = RunProgram({kNet, "ads", "testjoin"});
  if (failure.rfind("killed after ", 0) == 0) {
    syslog(LOG_ERR, "%s: %s", kNet, failure.c_str());  // after any other failure: not joined
  }
  return failure.empty() ? 1 : 0;
}

int NUBOWinsGetAuthUser(char* domain, int domainSize, char* user, int userSize, char* password,
                        int passwordSize) {
  std::string content;
  ZELBCSzHash secret;
  if (ReadSecretFile(kSecret, content) == ReadResult::kFailed || !ParsePairs(kSecret, content, secret)) {
    return -1;
  }
  const bool copied = CopyValue(secret, "domain", domain, domainSize) &&
                      CopyValue(secret, "user", user, userSize) &&
                      CopyValue(secret, "password", password, passwordSize);
  return copied ? 0 : -1;
}
