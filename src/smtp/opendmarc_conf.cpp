#include <cstdio>

#include "core/config_generator.h"

int ConfigGenerator::GenerateDmarcConfig() {
  char temp[] = "/var/packages/Brindlecot/target/etc/opendmarc.confXXXXXX";
  std::ofstream opendmarcConf;
  OpenFromTemplate(opendmarcConf, temp, "/var/packages/Brindlecot/target/etc/template/opendmarc.template");
  opendmarcConf << "AuthservID " << GetString(smtp, "smtp_hostname") << EndLine;
  if (CloseOrRemove(opendmarcConf, temp) < 0) return -1;
  // Not InstallFile: the file stays owner-only. A failed rename is not logged, as nubo_set_config(8) says.
  if (SyncOrRemove(temp) < 0) return -1;
  return std::rename(temp, "/var/packages/Brindlecot/target/etc/opendmarc.conf");
}
