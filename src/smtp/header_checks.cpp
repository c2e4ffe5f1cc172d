#include <tuple>

#include "core/config_generator.h"
#include "core/paths.h"

int ConfigGenerator::GenerateHeaderChecks() {
  char temp[] = "/var/packages/Brindlecot/target/etc/header_checksXXXXXX";
  std::ofstream headerChecks;
  OpenEmpty(headerChecks, temp);
  if (GetBool(smtp, "reject_spf_soft_fail")) {
    headerChecks << "/^Received-SPF: softfail/ REJECT" << std::endl;
  }
  if (GetBool(scanner, "spam_enable") || GetBool(scanner, "anti_virus_enable") ||
      GetBool(scanner, "enable_dangerous_content_scan")) {
    headerChecks << "/^Received:/ HOLD" << std::endl;
  }
  CloseStream(headerChecks);
  // The template comes last: the first rule that matches wins.
  std::ignore = AppendFile("/var/packages/Brindlecot/target/etc/template/header_checks.template", temp);
  std::ignore = InstallFile(temp, "/var/packages/Brindlecot/target/etc/header_checks");
  return CompileMap(kPostmap, "/var/packages/Brindlecot/target/etc/header_checks");
}
