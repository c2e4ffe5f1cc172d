#include <syslog.h>

#include <string_view>

#include "core/config_generator.h"
#include "core/guards.h"
#include "platform/nubosdk.h"

namespace {

constexpr int kValueSize = 1024;

bool GetNslcdOption(const char* key, char (&value)[kValueSize], int line) {
  if (NUBOLDAPInfoGetFromConf("/usr/nubo/etc/nslcd.conf", key, value, kValueSize) > 0) return true;
  syslog(LOG_ERR, "%s:%d NUBOLDAPInfoGetFromConf(%s) failed", kLogSource, line, key);
  return false;
}

// Finds the text after "scheme://", with port and path; it may be empty. False when there is no scheme.
bool FindHostPart(std::string_view uri, std::string_view& host) {
  const size_t scheme = uri.find_first_not_of('/');
  if (scheme == std::string_view::npos) return false;
  const size_t slash = uri.find('/', scheme);
  const size_t start = slash == std::string_view::npos ? uri.size() : slash + 2;
  host = uri.substr(start < uri.size() ? start : uri.size());
  return true;
}

}  // namespace

int ConfigGenerator::GenerateLdapAliasMap() {
  char uri[kValueSize] = {};
  char base[kValueSize] = {};
  char bindDn[kValueSize] = {};
  char secret[kValueSize] = {};

  const DelayedSignals delayedSignals;
  char temp[] = "/var/packages/Brindlecot/target/etc/ldap-aliases.cfXXXXXX";
  const FileRemover remover(temp);
  if (MakeTempFileOrLog(temp) < 0) return -1;
  std::ofstream ldapAliases;
  if (OpenOrLog(ldapAliases, temp) < 0) return -1;
  ldapAliases << "query_filter=(&(cn=%s))" << EndLine;
  ldapAliases << "result_attribute=cn" << EndLine;
  ldapAliases << "version=3" << EndLine;

  std::string_view host;
  if (!GetNslcdOption("uri", uri, 574)) return -1;
  if (!FindHostPart(uri, host)) return -1;
  ldapAliases << "server_host=ldap://" << host << ",ldaps://" << host << ":636" << EndLine;

  if (!GetNslcdOption("base", base, 585)) return -1;
  ldapAliases << "search_base=" << base << EndLine;

  if (!GetNslcdOption("binddn", bindDn, 591)) return -1;
  ldapAliases << "bind_dn=" << bindDn << EndLine;

  if (NUBOLDAPSecretGet(secret, kValueSize) < 0) {
    syslog(LOG_ERR, "%s:%d NUBOLDAPSecretGet() failed, error=%X", kLogSource, 597, ZELBCErrGet());
    return -1;
  }
  ldapAliases << "bind_pw=" << secret << EndLine;
  if (CloseOrRemove(ldapAliases, temp) < 0) return -1;

  (void)InstallFile(temp, "/var/packages/Brindlecot/target/etc/ldap-aliases.cf");
  return 0;
}
