#include <json/json.h>
#include <syslog.h>

#include "core/config_generator.h"
#include "platform/nubocore.h"

namespace {

// The JSON in one line with a newline at its end, as the helper reads its last argument.
std::string ToLine(const Json::Value& value) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the newer writers leave the newline out
  Json::FastWriter writer;
#pragma GCC diagnostic pop
  return writer.write(value);
}

}  // namespace

int ConfigGenerator::UpdatePamConfig() {
  const std::string accountType = GetString(smtp, "account_type");
  Json::Value ids(Json::objectValue);
  ids["id-list"] = Json::Value(Json::arrayValue);
  if (accountType == "ldap") {
    ids["id-list"].append("dovecot.ldap");
    ids["id-list"].append("smtp.ldap");
  } else if (accountType == "win") {
    ids["id-list"].append("dovecot.domain");
    ids["id-list"].append("smtp.domain");
  } else {
    ids["id-list"].append("dovecot.local");
    ids["id-list"].append("smtp.local");
  }
  const std::string json = ToLine(ids);
  constexpr int kOptions = 187;  // the core library's flags for running a package helper
  if (ZELBCExecl("/usr/nubo/sbin/nubopkghelper", kOptions, "update", "Brindlecot", "pam-config", json.c_str(),
                 static_cast<char*>(nullptr)) != 0) {
    syslog(LOG_ERR, "%s:%d Cannot generate new pam-config for [%s]", kLogSource, 547, json.c_str());
    return -1;
  }
  return 0;
}
