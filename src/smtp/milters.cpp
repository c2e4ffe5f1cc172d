#include <tuple>

#include "core/config_generator.h"

int ConfigGenerator::WriteMilters() {
  std::list<std::string> milters;
  if (GetBool(smtp, "enable_dkim")) {
    milters.emplace_back("inet:localhost:8891");
    std::ignore = GenerateDkimConfig();
  }
  if (GetBool(smtp, "enable_dmarc")) {
    milters.emplace_back("inet:localhost:8893");
    std::ignore = GenerateDmarcConfig();
  }
  if (milters.empty()) return 0;

  mainCf << "smtpd_milters = " << JoinList(milters, ", ") << std::endl;
  mainCf << "non_smtpd_milters = " << JoinList(milters, ", ") << std::endl;
  return 0;
}
