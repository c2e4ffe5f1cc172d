#include <cstdio>

#include "core/config_generator.h"

int ConfigGenerator::GenerateDmarcConfig() {
  char temp[] = "/var/packages/Brindlecot/target/etc/opendmarc.confXXXXXX";
  std::ofstream opendmarcConf;
  OpenFromTemplate(opendmarcConf, temp, "/var/packages/Brindlecot/target/etc/template/opendmarc.template");
  opendmarcConf << "AuthservID " << GetString(smtp, "smtp_hostname") << std::endl;
  CloseStream(opendmarcConf);
  // Not InstallFile: the file stays owner-only.
  return std::rename(temp, "/var/packages/Brindlecot/target/etc/opendmarc.conf");
}
