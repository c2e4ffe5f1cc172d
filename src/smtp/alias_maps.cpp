#include "core/config_generator.h"
#include "platform/nubocore.h"
#include "platform/nubowins.h"

namespace {

// True when Postfix gets a table of the domain's users instead of lookups in the domain's directory: when the
// administrator chooses so, and when the machine is not joined to the domain.
bool UsesDomainTable() {
  char choice[128] = {};
  (void)ZELBCFileGetKeyValue("/var/packages/Brindlecot/etc/brindlecot.conf", "domain_alias_map", choice,
                             sizeof choice, 0);
  return std::string(choice) == "yes" || NUBOWinsADSJoined() == 0;
}

}  // namespace

int ConfigGenerator::WriteAliasMaps() {
  const std::string accountType = GetString(smtp, "account_type");
  std::string maps = "hash:/var/packages/Brindlecot/target/etc/aliases";
  if (accountType == "ldap") {
    (void)GenerateLdapAliasMap();
    maps += ", ldap:/var/packages/Brindlecot/target/etc/ldap-aliases.cf";
  } else if (accountType == "win" && UsesDomainTable()) {
    (void)GenerateDomainAliases();
    maps += ", hash:/var/packages/Brindlecot/target/etc/domain-aliases";
  } else if (accountType == "win") {
    (void)GenerateDomainLdapAliasMap();
    maps += ", ldap:/var/packages/Brindlecot/target/etc/domain-aliases.cf";
  }
  mainCf << "alias_maps = " << maps << EndLine;
  return 0;
}
