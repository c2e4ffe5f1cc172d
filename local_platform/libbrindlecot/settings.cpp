// The three settings groups. Each file is an object of keys and values, all optional:
//
//     {"smtp_hostname": "mail.example.com", "smtp_port": 25, "additional_domains": ["example.org"],
//      "dnsbl": [{"zone": "zen.example.net", "kind": "RBL"}]}
#include <map>

#include "libbrindlecot/json_file.h"
#include "libbrindlecot/setting_keys.h"
#include "platform/brindlecot.h"

namespace {

using Values = std::map<std::string, boost::any>;
using PairList = std::list<std::pair<std::string, std::string>>;

// The file's `value` of `setting`, checked.
boost::any ReadValue(JsonFile& file, const SettingKey& setting, const Json::Value& value) {
  if (std::holds_alternative<bool>(setting.defaultValue))
    return Value<bool>{file.ReadBool(setting.key, value)};
  if (std::holds_alternative<int>(setting.defaultValue)) {
    return Value<int>{file.ReadInteger(setting.key, value, setting.lowest, setting.highest)};
  }
  return Value<std::string>{file.ReadString(setting.key, value)};
}

// Replaces `values` by the file's values, and by defaults for missing keys. -1 when the file has a fault;
// `values` is then unchanged.
int LoadValues(JsonFile& file, std::initializer_list<SettingKey> keys, Values& values) {
  Values loaded;
  for (const SettingKey& setting : keys) {
    Json::Value value;
    loaded[setting.key] =
        file.Take(setting.key, value) ? ReadValue(file, setting, value) : DefaultValue(setting);
  }
  file.ReportUnknownKeys();
  if (file.Result() == 0) {
    values.swap(loaded);
  }
  return file.Result();
}

PairList TakeBlocklists(JsonFile& file) {
  const char* const key = "dnsbl";
  Json::Value lists(Json::arrayValue);
  file.Take(key, lists);
  PairList blocklists;
  if (!lists.isArray()) {
    file.ReportFault(key, "an array of objects");
    return blocklists;
  }
  for (const Json::Value& list : lists) {
    const std::string item = "item " + std::to_string(blocklists.size() + 1) + " to ";
    blocklists.emplace_back();
    if (!list.isObject()) {
      file.ReportFault(key, item + "be an object");
      continue;
    }
    for (const std::string& member : list.getMemberNames()) {
      if (member != "zone" && member != "kind") {
        file.ReportFault(key, (item + "have no member ").append(member));
      }
    }
    blocklists.back().first = file.ReadString(key, list["zone"], 0, item + "have as zone ");
    blocklists.back().second = file.ReadString(key, list["kind"], 0, item + "have as kind ");
  }
  return blocklists;
}

}  // namespace

struct Config::Data {
  Values values;
  std::list<std::string> domains;  // of Postfix only, as the blocklists are
  PairList blocklists;
};

Config::Config() : data_(std::make_unique<Data>()) {}
Config::~Config() = default;

boost::any& Config::Get(const std::string& key) { return data_->values[key]; }

Postfix::Postfix() = default;
Postfix::~Postfix() = default;

int Postfix::LoadSettings() {
  JsonFile file("/var/packages/Brindlecot/etc/settings/smtp.json");
  Json::Value list(Json::arrayValue);
  file.Take("additional_domains", list);
  const auto domains = file.ReadStrings("additional_domains", list);
  PairList blocklists = TakeBlocklists(file);
  const int result = LoadValues(file, kSmtpKeys, data_->values);
  if (result == 0) {
    data_->domains.assign(domains.begin(), domains.end());
    data_->blocklists.swap(blocklists);
  }
  return result;
}

std::list<std::string>& Postfix::GetAdditionDomain() { return data_->domains; }

std::list<std::pair<std::string, std::string>>& Postfix::GetDNSBLList() { return data_->blocklists; }

MailScanner::MailScanner() = default;
MailScanner::~MailScanner() = default;

int MailScanner::LoadSettings() {
  JsonFile file("/var/packages/Brindlecot/etc/settings/scanner.json");
  return LoadValues(file, kScannerKeys, data_->values);
}

ImapPop3::ImapPop3() = default;
ImapPop3::~ImapPop3() = default;

int ImapPop3::LoadSettings() {
  JsonFile file("/var/packages/Brindlecot/etc/settings/imap_pop3.json");
  return LoadValues(file, kImapPop3Keys, data_->values);
}
