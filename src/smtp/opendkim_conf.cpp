#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/config_generator.h"

namespace {

// Not InstallFile: OpenDKIM's files stay owner-only.
int Install(std::ofstream& stream, const char* temp, const char* target, int line) {
  if (CloseOrRemove(stream, temp) < 0 || SyncOrRemove(temp) < 0) return -1;
  if (std::rename(temp, target) == 0) return 0;
  syslog(LOG_ERR, "%s:%d Failed to rename '%s' to '%s', %s", kLogSource, line, temp, target,
         std::strerror(errno));
  return -1;
}

}  // namespace

int ConfigGenerator::GenerateDkimConfig() {
  constexpr const char* kOpendkimConf = "/var/packages/Brindlecot/target/etc/opendkim.conf";
  constexpr const char* kKeyTable = "/var/packages/Brindlecot/target/etc/opendkim/KeyTable";
  constexpr const char* kSigningTable = "/var/packages/Brindlecot/target/etc/opendkim/SigningTable";
  constexpr const char* kTrustedHosts = "/var/packages/Brindlecot/target/etc/opendkim/TrustedHosts";
  char confTemp[] = "/var/packages/Brindlecot/target/etc/opendkim.confXXXXXX";
  char keyTemp[] = "/var/packages/Brindlecot/target/etc/opendkim/KeyTableXXXXXX";
  char signingTemp[] = "/var/packages/Brindlecot/target/etc/opendkim/SigningTableXXXXXX";
  char trustedTemp[] = "/var/packages/Brindlecot/target/etc/opendkim/TrustedHostsXXXXXX";

  const std::string hostname = GetString(smtp, "smtp_hostname");
  std::list<std::string> domains = smtp.GetAdditionDomain();
  const std::string selector = GetString(smtp, "dkim_selector");
  domains.push_front(hostname);

  std::ofstream file;
  OpenFromTemplate(file, confTemp, "/var/packages/Brindlecot/target/etc/template/opendkim.template");
  file << "KeyTable refile:" << kKeyTable << EndLine;
  file << "SigningTable refile:" << kSigningTable << EndLine;
  file << "ExternalIgnoreList refile:" << kTrustedHosts << EndLine;
  file << "InternalHosts refile:" << kTrustedHosts << EndLine;
  file << "ReportAddress postmaster@" << hostname << EndLine;
  if (Install(file, confTemp, kOpendkimConf, 410) < 0) return -1;

  OpenEmpty(file, keyTemp);
  for (const std::string& domain : domains) {
    // The double slash belongs to the value.
    file << selector << "._domainkey." << domain << " " << domain << ":" << selector << ":"
         << "/var/packages/Brindlecot/etc/dkim.key//dkim.private" << EndLine;
  }
  if (Install(file, keyTemp, kKeyTable, 424) < 0) return -1;

  OpenEmpty(file, signingTemp);
  for (const std::string& domain : domains) {
    file << "*@" << domain << " " << selector << "._domainkey." << domain << EndLine;
  }
  if (Install(file, signingTemp, kSigningTable, 438) < 0) return -1;

  OpenEmpty(file, trustedTemp);
  for (const std::string& domain : domains) {
    file << domain << EndLine;
  }
  return Install(file, trustedTemp, kTrustedHosts, 451);
}
