#include <json/json.h>
#include <syslog.h>

#include "core/config_generator.h"
#include "platform/nubocore.h"

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
  Json::StreamWriterBuilder oneLine;
  oneLine["indentation"] = "";
  const std::string json = Json::writeString(oneLine, ids) + '\n';  // the helper reads a whole line
  constexpr int kOptions = 187;  // the core library's flags for running a package helper
  if (ZELBCExecl("/usr/nubo/sbin/nubopkghelper", kOptions, "update", "Brindlecot", "pam-config", json.c_str(),
                 static_cast<char*>(nullptr)) != 0) {
    syslog(LOG_ERR, "%s:%d Cannot generate new pam-config for [%s]", kLogSource, 547, json.c_str());
    return -1;
  }
  return 0;
}
