#include <unistd.h>

#include "core/config_generator.h"

int ConfigGenerator::GenerateDovecotMailConfig() {
  char temp[] = "/var/packages/Brindlecot/target/etc/dovecot/conf.d/10-mail.confXXXXXX";
  (void)MakeTempFile(temp);
  if (CopyFile("/var/packages/Brindlecot/target/etc/template/10-mail.template", temp) == kPartialCopy) {
    (void)unlink(temp);
    return -1;
  }
  (void)ApplyCustomization(temp, "/var/packages/Brindlecot/etc/customize/dovecot/10-mail.conf");
  return InstallFile(temp, "/var/packages/Brindlecot/target/etc/dovecot/conf.d/10-mail.conf");
}
