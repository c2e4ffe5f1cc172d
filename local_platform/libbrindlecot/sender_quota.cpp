// The sender quotas: an object of sender addresses, each with the number of messages that it may send,
// written as the `address limit` lines of a postmap(1) table.
//
//     {"alice@example.com": 100}
#include <climits>

#include "common/files.h"
#include "libbrindlecot/json_file.h"
#include "platform/brindlecot.h"
#include "platform/nubocore.h"

int SenderQuota::GenerateConfig() {
  const char* const map = "/var/packages/Brindlecot/target/etc/sender_quota_map";
  JsonFile file("/var/packages/Brindlecot/etc/settings/sender_quotas.json");
  std::string lines;
  for (const std::string& address : file.ReadNames()) {
    if (address.find(' ') != std::string::npos || address.rfind('#', 0) == 0) {
      file.ReportFault(address, "an address without blanks that does not begin with #");
    }
    const int limit = file.ReadInteger(address, file.Object()[address], 0, INT_MAX);
    lines += address + ' ' + std::to_string(limit) + '\n';
  }
  if (file.Result() != 0 || ReplaceFile(map, lines, 0644) != 0) return -1;
  return ZELBCExec("/var/packages/Brindlecot/target/sbin/postmap", map, nullptr, nullptr, nullptr);
}
