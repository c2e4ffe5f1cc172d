#include <unistd.h>

#include "core/config_generator.h"
#include "core/paths.h"

int ConfigGenerator::GenerateHeaderChecks() {
  char temp[] = "/var/packages/Brindlecot/target/etc/header_checksXXXXXX";
  std::ofstream headerChecks;
  OpenEmpty(headerChecks, temp);
  if (GetBool(smtp, "reject_spf_soft_fail")) {
    headerChecks << "/^Received-SPF: softfail/ REJECT" << EndLine;
  }
  if (GetBool(scanner, "spam_enable") || GetBool(scanner, "anti_virus_enable") ||
      GetBool(scanner, "enable_dangerous_content_scan")) {
    headerChecks << "/^Received:/ HOLD" << EndLine;
  }
  // The template comes last, because the first rule that matches wins.
  constexpr const char* kTemplate = "/var/packages/Brindlecot/target/etc/template/header_checks.template";
  if (CloseOrRemove(headerChecks, temp) == 0) {
    if (AppendFile(kTemplate, temp) == kPartialCopy) {
      (void)unlink(temp);
    } else {
      (void)InstallFile(temp, "/var/packages/Brindlecot/target/etc/header_checks");
    }
  }
  return CompileMap(kPostmap, "/var/packages/Brindlecot/target/etc/header_checks");
}
