#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "core/config_generator.h"
#include "core/guards.h"
#include "core/paths.h"

namespace {

bool HasControls(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

}  // namespace

int ConfigGenerator::GenerateDomainAliases() {
  const std::string domain = GetString(smtp, "win_domain_short_name");
  if (GetString(smtp, "account_type") != "win") return 0;

  char temp[] = "/var/packages/Brindlecot/target/etc/domain-aliasesXXXXXX";
  const FileRemover remover(temp);
  if (MakeTempFileOrLog(temp) < 0) return -1;

  constexpr int kDomainUsers = 2;  // the core library's number for users of a Windows domain
  OwnedList users;
  users.handle = ZELBCSzListAlloc(1024);
  if (users.handle == nullptr) {
    syslog(LOG_ERR, "%s:%d Out of memory", kLogSource, 1037);
    return -1;
  }
  if (ZELBUserEnum(&users.handle, kDomainUsers, domain.c_str()) < 0) {
    syslog(LOG_ERR, "%s:%d ZELBUserEnum(type=%d) failed", kLogSource, 1042, kDomainUsers);
    return -1;
  }

  std::ofstream domainAliases;
  if (OpenOrLog(domainAliases, temp) < 0) return -1;
  std::string line;
  for (int i = 0; i < users.handle->count; ++i) {
    const char* name = users.handle->items[i];
    const char* backslash = std::strchr(name, '\\');
    // A line without a user's name would continue the line above; a line feed would begin another alias.
    if (backslash == nullptr || backslash[1] == '\0' || HasControls(name)) continue;
    const char* user = backslash + 1;
    line.assign(user).append(" : ").append(name, backslash).append("\\\\").append(user);
    domainAliases << line << EndLine;
  }
  if (CloseOrRemove(domainAliases, temp) < 0) return -1;

  if (InstallFile(temp, "/var/packages/Brindlecot/target/etc/domain-aliases") < 0) {
    unlink(temp);  // before the old table is compiled
  }
  return CompileMap(kPostalias, "/var/packages/Brindlecot/target/etc/domain-aliases") < 0 ? -1 : 0;
}
