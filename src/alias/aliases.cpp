#include "core/config_generator.h"
#include "core/paths.h"

int ConfigGenerator::GenerateAliases() {
  Alias alias;
  if (alias.load() < 0) return -1;

  char temp[] = "/var/packages/Brindlecot/target/etc/aliasesXXXXXX";
  (void)MakeTempFile(temp);
  if (alias.ExportAlias(temp) < 0) return -1;
  (void)InstallFile(temp, "/var/packages/Brindlecot/target/etc/aliases");
  return CompileMap(kPostalias, "/var/packages/Brindlecot/target/etc/aliases");
}
