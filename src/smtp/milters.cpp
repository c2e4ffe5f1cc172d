#include "core/config_generator.h"

int ConfigGenerator::WriteMilters() {
  std::list<std::string> milters;
  if (GetBool(smtp, "enable_dkim")) {
    milters.emplace_back("inet:localhost:8891");
    (void)GenerateDkimConfig();
  }
  if (GetBool(smtp, "enable_dmarc")) {
    milters.emplace_back("inet:localhost:8893");
    (void)GenerateDmarcConfig();
  }
  if (milters.empty()) return 0;

  mainCf << "smtpd_milters = " << JoinList(milters, ", ") << EndLine;
  mainCf << "non_smtpd_milters = " << JoinList(milters, ", ") << EndLine;
  return 0;
}
