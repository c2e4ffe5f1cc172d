#include "preview/warnings.h"

#include <idn2.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <regex>

#include "core/config_generator.h"
#include "platform/nubocore.h"

namespace {

constexpr const char* kSmtp = "/var/packages/Brindlecot/etc/settings/smtp.json";
constexpr const char* kScanner = "/var/packages/Brindlecot/etc/settings/scanner.json";
constexpr const char* kAliases = "/var/packages/Brindlecot/etc/settings/aliases.json";
constexpr const char* kAttachments = "/var/packages/Brindlecot/etc/settings/attachment_filter.json";
constexpr const char* kMainCf = "/var/packages/Brindlecot/etc/customize/postfix/main.cf";
constexpr const char* kMailScannerConf =
    "/var/packages/Brindlecot/etc/customize/MailScanner/MailScanner.conf";

struct Warnings {
  std::vector<std::string> lines;

  void Add(const std::string& file, const std::string& key, const std::string& text) {
    lines.push_back(file + ": " + key + ": " + text);
  }

  /// A name in DNS has to be ASCII. (RFC 5890 says how other names are written.)
  void CheckDomain(const std::string& key, const std::string& name) {
    if (std::all_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
      return;
    }
    char* ascii = nullptr;
    const bool known = idn2_to_ascii_8z(name.c_str(), &ascii, IDN2_NONTRANSITIONAL) == IDN2_OK;
    Add(kSmtp, key,
        name + " is not ASCII: its mail is refused, and signing it may end OpenDKIM; write " +
            (known ? ascii : "its xn-- form"));
    std::free(ascii);
  }

  /// In a value of main.cf, `$` begins a parameter's name.
  void CheckMainCfValue(const std::string& key, const std::string& value) {
    static const std::regex wellFormed(R"(\$(\$|\w+|\{\w[^}]*\}|\(\w[^)]*\)))");
    if (std::regex_replace(value, wellFormed, "").find('$') != std::string::npos) {
      Add(kSmtp, key, "a $ without a parameter's name: Postfix refuses all of main.cf; write $$ for a $");
    }
  }
};

bool Customised(const char* file, const char* key) {
  char value[1024];
  return ZELBCFileGetKeyValue(file, key, value, sizeof value, 0) > 0;
}

Json::Value ReadObject(const char* path) {
  Json::Value root;
  std::ifstream file(path);
  return Json::parseFromStream(Json::CharReaderBuilder(), file, &root, nullptr) && root.isObject()
             ? root
             : Json::objectValue;
}

}  // namespace

std::vector<std::string> SettingsWarnings(Postfix& smtp, MailScanner& scanner, ImapPop3& imapPop3,
                                          const Json::Value& aliases, const Json::Value& attachments,
                                          bool listenersChange) {
  Warnings warnings;
  warnings.CheckDomain("smtp_hostname", GetString(smtp, "smtp_hostname"));
  for (const std::string& domain : smtp.GetAdditionDomain()) {
    warnings.CheckDomain("additional_domains", domain);
    warnings.CheckMainCfValue("additional_domains", domain);
  }
  for (const char* key : {"smtp_hostname", "always_bcc", "smtp_relay_server"}) {
    warnings.CheckMainCfValue(key, GetString(smtp, key));
  }
  for (const auto& [zone, kind] : smtp.GetDNSBLList()) {
    warnings.CheckMainCfValue("dnsbl", zone);
  }
  if (GetBool(smtp, "smtp_relay_enabled") && GetInt(smtp, "smtp_relay_server_port") == 465 &&
      !Customised(kMainCf, "smtp_tls_wrappermode")) {
    warnings.Add(
        kSmtp, "smtp_relay_server_port",
        "465 speaks TLS from the start, so mail waits; customise main.cf: smtp_tls_wrappermode = yes, "
        "smtp_tls_security_level = encrypt");
  }
  if (GetBool(scanner, "anti_virus_enable") && access("/usr/sbin/clamd", X_OK) != 0 &&
      !Customised(kMailScannerConf, "Virus Scanners")) {
    warnings.Add(
        kScanner, "anti_virus_enable",
        "no scanner is installed; install clamav-daemon, or customise MailScanner.conf: Virus Scanners");
  }
  if (GetBool(scanner, "spam_enable_rewrite") &&
      GetString(scanner, "spam_rewrite_subject").find_first_of("#%$") != std::string::npos) {
    warnings.Add(kScanner, "spam_rewrite_subject", "MailScanner cuts at #, and replaces %name% and $name");
  }
  if (listenersChange && !GetBool(imapPop3, "imap_enabled")) {
    warnings.Add("/var/packages/Brindlecot/etc/settings/imap_pop3.json", "imap_enabled",
                 "Dovecot closes port 143 to others when restarted, not when reloaded");
  }
  for (const std::string& name : aliases.getMemberNames()) {
    if (name.find('@') != std::string::npos) {
      warnings.Add(kAliases, name, "holds a domain, so no mail finds it; an alias is the part before the @");
    }
    for (const Json::Value& recipient : aliases[name]) {
      const std::string text = recipient.isString() ? recipient.asString() : "";
      if (text.rfind(":include:", 0) == 0) {
        warnings.Add(kAliases, name,
                     "root reads the file of :include:, and what is in it reaches the mail log");
      } else if (text[0] == '|' || text[0] == '/') {
        warnings.Add(kAliases, name, "its mail bounces, since an alias may run no command and write no file");
      }
    }
  }
  if (!attachments["deny_extensions"].empty() && !GetBool(scanner, "enable_dangerous_content_scan")) {
    warnings.Add(kAttachments, "deny_extensions",
                 "no attachment is refused while enable_dangerous_content_scan is off");
  }
  return warnings.lines;
}

std::vector<std::string> SettingsWarnings(bool listenersChange) {
  Postfix smtp;
  MailScanner scanner;
  ImapPop3 imapPop3;
  if (smtp.LoadSettings() < 0 || scanner.LoadSettings() < 0 || imapPop3.LoadSettings() < 0) return {};
  return SettingsWarnings(smtp, scanner, imapPop3, ReadObject(kAliases), ReadObject(kAttachments),
                          listenersChange);
}
