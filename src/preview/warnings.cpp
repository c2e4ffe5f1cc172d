#include "preview/warnings.h"

#include <idn2.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <list>

#include "core/config_generator.h"
#include "mail/certificate.h"
#include "platform/nubocore.h"
#include "system/text.h"

namespace {

constexpr const char* kSmtp = "/var/packages/Brindlecot/etc/settings/smtp.json";
constexpr const char* kScanner = "/var/packages/Brindlecot/etc/settings/scanner.json";
constexpr const char* kImapPop3 = "/var/packages/Brindlecot/etc/settings/imap_pop3.json";
constexpr const char* kAliases = "/var/packages/Brindlecot/etc/settings/aliases.json";
constexpr const char* kAttachments = "/var/packages/Brindlecot/etc/settings/attachment_filter.json";
constexpr const char* kMainCf = "/var/packages/Brindlecot/etc/customize/postfix/main.cf";
constexpr const char* kMailScannerConf =
    "/var/packages/Brindlecot/etc/customize/MailScanner/MailScanner.conf";

void Warn(Warnings& warnings, const std::string& file, const std::string& key, const std::string& text) {
  warnings.push_back(file + ": " + key + ": " + text);
}

// True for ASCII letters, digits and `more` alone.
bool IsMadeOf(const std::string& text, const std::string& more) {
  return std::all_of(text.begin(), text.end(), [&](char c) {
    return (std::isalnum(static_cast<unsigned char>(c)) != 0 && static_cast<unsigned char>(c) < 0x80) ||
           more.find(c) != std::string::npos;
  });
}

// A name in DNS has to be ASCII. (RFC 5890 says how other names are written.)
void CheckDomain(Warnings& warnings, const std::string& key, const std::string& name) {
  if (std::any_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; })) {
    char* ascii = nullptr;
    const bool known = idn2_to_ascii_8z(name.c_str(), &ascii, IDN2_NONTRANSITIONAL) == IDN2_OK;
    Warn(warnings, kSmtp, key,
         name + " is not ASCII: its mail is refused, and signing it may end OpenDKIM; write " +
             (known ? ascii : "its xn-- form"));
    std::free(ascii);
  } else if (!name.empty() && !Contains(name, "$") &&
             (!IsMadeOf(name, "-._") || Contains("." + name + ".", ".."))) {
    Warn(warnings, kSmtp, key, "\"" + name + "\" is no domain name, so no mail finds it");
  }
}

// In a value of main.cf, `$` begins the name of a parameter, also in braces, and `$$` is a `$`.
bool HasStrayDollar(const std::string& value) {
  const auto isName = [&](size_t at) { return at < value.size() && IsMadeOf(value.substr(at, 1), "_"); };
  for (size_t at = 0; (at = value.find('$', at)) != std::string::npos;) {
    const char next = value[++at];
    if (next == '$') ++at;
    if (next == '$' || isName(at)) continue;
    if ((next != '{' && next != '(') || !isName(at + 1)) return true;
    at = value.find(next == '{' ? '}' : ')', at);
    if (at == std::string::npos) return true;
  }
  return false;
}

void CheckMainCfValue(Warnings& warnings, const std::string& key, const std::string& value) {
  if (!HasStrayDollar(value)) return;
  Warn(warnings, kSmtp, key,
       "a $ without a parameter's name: Postfix refuses all of main.cf; write $$ for a $");
}

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

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// The local name of a recipient, if neither a user nor an alias has it. Empty otherwise, and where a
// directory or a customisation may know the name.
std::string UnknownName(const std::string& recipient, Postfix& smtp, const Json::Value& aliases) {
  const size_t begin = StartsWith(recipient, "\\") ? 1 : 0;
  const size_t at = std::min(recipient.find('@'), recipient.size());
  const std::string name = Lower(recipient.substr(begin, at - begin));
  const std::string domain = Lower(recipient.substr(std::min(at + 1, recipient.size())));
  if (GetString(smtp, "account_type") != "local" || name.empty() || !IsMadeOf(name, "._+-") ||
      !IsMadeOf(domain, ".-") || EndsWith(recipient, "@"))
    return "";
  for (const char* key :
       {"alias_maps", "local_recipient_maps", "luser_relay", "mailbox_transport", "mailbox_transport_maps",
        "fallback_transport", "fallback_transport_maps", "virtual_alias_maps", "virtual_alias_domains",
        "canonical_maps", "recipient_canonical_maps", "recipient_delimiter", "transport_maps",
        "mydestination", "myorigin", "local_transport", "virtual_mailbox_domains"}) {
    if (Customised(kMainCf, key)) return "";
  }
  std::list<std::string> domains = smtp.GetAdditionDomain();
  domains.insert(domains.end(), {"", "localhost", GetString(smtp, "smtp_hostname")});
  if (std::none_of(domains.begin(), domains.end(), [&](const auto& own) { return Lower(own) == domain; })) {
    return "";
  }
  const std::vector<std::string> known = aliases.getMemberNames();
  const bool alias =
      std::any_of(known.begin(), known.end(), [&](const auto& one) { return Lower(one) == name; });
  return alias || name == "postmaster" || getpwnam(name.c_str()) != nullptr ? "" : name;
}

void CheckAliases(Warnings& warnings, Postfix& smtp, const Json::Value& aliases) {
  for (const std::string& name : aliases.getMemberNames()) {
    if (name.find('@') != std::string::npos) {
      Warn(warnings, kAliases, name,
           "holds a domain, so no mail finds it; an alias is the part before the @");
    }
    for (const Json::Value& recipient : aliases[name]) {
      const std::string text = recipient.isString() ? recipient.asString() : "";
      const std::string unknown = UnknownName(text, smtp, aliases);
      if (text.rfind(":include:", 0) == 0) {
        Warn(warnings, kAliases, name,
             "root reads the file of :include:, and what is in it reaches the mail log");
      } else if (text[0] == '|' || text[0] == '/') {
        Warn(warnings, kAliases, name,
             "its mail bounces, since an alias may run no command and write no file");
      } else if (!unknown.empty()) {
        Warn(warnings, kAliases, name, "its mail bounces: there is no user and no alias " + unknown);
      }
    }
  }
}

}  // namespace

Warnings SettingsWarnings(Postfix& smtp, MailScanner& scanner, ImapPop3& imapPop3, const Json::Value& aliases,
                          const Json::Value& attachments, bool listenersChange) {
  Warnings warnings;
  CheckDomain(warnings, "smtp_hostname", GetString(smtp, "smtp_hostname"));
  for (const std::string& domain : smtp.GetAdditionDomain()) {
    CheckDomain(warnings, "additional_domains", domain);
    CheckMainCfValue(warnings, "additional_domains", domain);
  }
  for (const char* key : {"smtp_hostname", "always_bcc", "smtp_relay_server"}) {
    CheckMainCfValue(warnings, key, GetString(smtp, key));
  }
  for (const auto& [zone, kind] : smtp.GetDNSBLList()) CheckMainCfValue(warnings, "dnsbl", zone);
  const std::string unknown = UnknownName(GetString(smtp, "always_bcc"), smtp, aliases);
  const struct {
    bool applies;
    const char* file;
    const char* key;
    std::string text;
  } kChecks[] = {
      {!unknown.empty(), kSmtp, "always_bcc",
       "the copy of every message bounces: there is no user and no alias " + unknown},
      {GetBool(smtp, "smtp_relay_enabled") && GetInt(smtp, "smtp_relay_server_port") == 465 &&
           !Customised(kMainCf, "smtp_tls_wrappermode"),
       kSmtp, "smtp_relay_server_port",
       "465 speaks TLS from the start, so mail waits; customise main.cf: smtp_tls_wrappermode = yes, "
       "smtp_tls_security_level = encrypt"},
      {GetBool(scanner, "anti_virus_enable") && access("/usr/sbin/clamd", X_OK) != 0 &&
           !Customised(kMailScannerConf, "Virus Scanners"),
       kScanner, "anti_virus_enable",
       "no scanner is installed; install clamav-daemon, or customise MailScanner.conf: Virus Scanners"},
      {GetBool(scanner, "spam_enable_rewrite") &&
           GetString(scanner, "spam_rewrite_subject").find_first_of("#%$") != std::string::npos,
       kScanner, "spam_rewrite_subject", "MailScanner cuts at #, and replaces %name% and $name"},
      {listenersChange && !GetBool(imapPop3, "imap_enabled"), kImapPop3, "imap_enabled",
       "Dovecot closes port 143 to others when restarted, not when reloaded"},
      {!attachments["deny_extensions"].empty() && !GetBool(scanner, "enable_dangerous_content_scan"),
       kAttachments, "deny_extensions",
       "no attachment is refused while enable_dangerous_content_scan is off"},
  };
  for (const auto& check : kChecks) {
    if (check.applies) Warn(warnings, check.file, check.key, check.text);
  }
  CheckAliases(warnings, smtp, aliases);
  return warnings;
}

Warnings AllWarnings(bool listenersChange, const PostfixConfig& postfix) {
  Warnings warnings;
  const auto add = [&](const Warnings& more) { warnings.insert(warnings.end(), more.begin(), more.end()); };
  Postfix smtp;
  MailScanner scanner;
  ImapPop3 imapPop3;
  // Loading a file logs what is wrong with it.
  if (smtp.LoadSettings() == 0 && scanner.LoadSettings() == 0 && imapPop3.LoadSettings() == 0) {
    add(SettingsWarnings(smtp, scanner, imapPop3, ReadObject(kAliases), ReadObject(kAttachments),
                         listenersChange));
  }
  if (postfix.parameters.empty()) return warnings;
  add(PostfixWarnings(postfix));
  for (const Certificate& certificate : Certificates(postfix)) {
    std::string readers;
    for (const DaemonId id : certificate.readers)
      readers += (readers.empty() ? "" : ", ") + DaemonOf(id).name;
    if (!certificate.fault.empty()) Warn(warnings, certificate.file, readers, certificate.fault);
  }
  add(PeerWarnings(postfix));
  return warnings;
}
