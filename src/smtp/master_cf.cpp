#include "core/config_generator.h"

int ConfigGenerator::GenerateMasterCf() {
  char temp[] = "/var/packages/Brindlecot/target/etc/master.cfXXXXXX";
  OpenFromTemplate(masterCf, temp, "/var/packages/Brindlecot/target/etc/template/master.template");
  if (GetBool(smtp, "enable_spf_check")) {
    masterCf << "policy  unix  -       n       n       -       0       spawn" << EndLine;
    masterCf << " user=nobody argv=/usr/bin/perl -I /var/packages/Brindlecot/target/share/perl5/vendor_perl"
             << " /var/packages/Brindlecot/target/sbin/postfix-policyd-spf-perl" << EndLine;
  }
  masterCf << GetInt(smtp, "smtp_port") << " inet n - n - - smtpd" << EndLine;
  if (GetBool(smtp, "smtp_ssl_enabled")) {
    masterCf << GetInt(smtp, "smtps_port") << " inet n - n - - smtpd" << EndLine;
    masterCf << " -o smtpd_tls_wrappermode=yes" << EndLine;
    masterCf << " -o smtpd_sasl_auth_enable=yes" << EndLine;
    masterCf << " -o smtpd_client_restrictions=permit_sasl_authenticated,reject" << EndLine;
  }
  if (GetBool(smtp, "smtp_tls_enabled")) {
    masterCf << GetInt(smtp, "smtp_tls_port") << " inet n - n - - smtpd" << EndLine;
    masterCf << " -o smtpd_tls_security_level=encrypt" << EndLine;
    masterCf << " -o smtpd_sasl_auth_enable=yes" << EndLine;
    masterCf << " -o smtpd_client_restrictions=permit_sasl_authenticated,reject" << EndLine;
  }
  if (CloseOrRemove(masterCf, temp) < 0) return -1;
  return InstallFile(temp, "/var/packages/Brindlecot/target/etc/master.cf");
}
