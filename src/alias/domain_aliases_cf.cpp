#include <cstring>
#include <optional>

#include "core/config_generator.h"
#include "core/guards.h"
#include "platform/nubowins.h"

namespace {

constexpr const char* kNet = "/usr/bin/net";
constexpr int kLineSize = 512;

// Adds the domain's server, port and search base to `domain`, under the names that `net ads info` prints, and
// the distinguished name of `user` as "bind_dn". The scratch file's remover is declared after the programs'
// outputs, so that the file is removed before the programs are waited for.
bool GetDomainInfo(OwnedHash& domain, const char* user) {
  OwnedOutput info;
  OwnedOutput search;
  char scratch[] = "/tmp/ad_infoXXXXXX";
  const FileRemover remover(scratch);
  if (MakeTempFileOrLog(scratch) < 0) return false;
  info.handle = ZELBCPopen(kNet, "r", "ads", "info", static_cast<char*>(nullptr));
  if (info.handle == nullptr) return false;
  if (PopenToFile(info.handle, scratch, "w") != 0) return false;
  if (ZELBCFileGetPair(scratch, &domain.handle) < 0) return false;

  const std::string filter = std::string("(samaccountname=") + user + ")";
  // -P: as the machine account
  search.handle = ZELBCPopen(kNet, "r", "ads", "search", filter.c_str(), "-P", static_cast<char*>(nullptr));
  if (search.handle == nullptr) return false;
  char line[kLineSize] = {};
  char nameLine[kLineSize] = {};
  while (std::fgets(line, sizeof line, search.handle) != nullptr) {
    if (std::strstr(line, "distinguishedName") == nullptr) continue;
    // Other attributes may contain the word too. The name is on the last line with it.
    std::memcpy(nameLine, line, sizeof nameLine);
    (void)ZELBCStrTrimSpace(nameLine, 0);
  }
  constexpr size_t kPrefixLength = 19;  // "distinguishedName:" and the blank after it
  if (std::strstr(nameLine, "distinguishedName:") == nullptr || std::strlen(nameLine) < kPrefixLength) {
    return false;
  }
  (void)ZELBCSzHashSetValue(&domain.handle, "bind_dn", nameLine + kPrefixLength);
  return true;
}

}  // namespace

int ConfigGenerator::GenerateDomainLdapAliasMap() {
  char unused[128] = {};
  char user[1024] = {};
  char password[1024] = {};

  char temp[] = "/var/packages/Brindlecot/target/etc/domain-aliases.cfXXXXXX";
  std::optional<DelayedSignals> delayedSignals;  // from the password on; until then net(8) can be interrupted
  const FileRemover remover(temp);
  OwnedHash domain;
  if (MakeTempFileOrLog(temp) < 0) return -1;
  std::ofstream domainAliases;
  if (OpenOrLog(domainAliases, temp) < 0) return -1;
  domain.handle = ZELBCSzHashAlloc(1024);
  if (domain.handle == nullptr) return -1;
  domainAliases << "query_filter=(&(samaccountname=%s))" << EndLine;
  domainAliases << "result_attribute=samaccountname" << EndLine;
  domainAliases << "version=3" << EndLine;

  if (NUBOWinsGetAuthUser(unused, sizeof unused, user, sizeof user, password, sizeof password) < 0) return -1;
  if (!GetDomainInfo(domain, user)) return -1;

  const struct {
    const char* parameter;
    const char* key;
  } lines[] = {{"server_host=", "LDAP_server"},
               {"server_port=", "LDAP_port"},
               {"search_base=", "Bind_Path"},
               {"bind_dn=", "bind_dn"}};
  for (const auto& line : lines) {
    const char* value = ZELBCSzHashGetValue(domain.handle, line.key);
    if (value == nullptr) return -1;
    domainAliases << line.parameter << value << EndLine;
  }
  delayedSignals.emplace();
  domainAliases << "bind_pw=" << password << EndLine;
  if (CloseOrRemove(domainAliases, temp) < 0) return -1;

  (void)InstallFile(temp, "/var/packages/Brindlecot/target/etc/domain-aliases.cf");
  return 0;
}
