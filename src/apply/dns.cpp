#include <iostream>
#include <sstream>

#include "apply/basics.h"
#include "apply/commands.h"
#include "core/config_generator.h"

namespace {

constexpr const char* kKey = "/var/packages/Brindlecot/etc/dkim.key/dkim.private";
constexpr size_t kStringSize = 255;  // of one character-string: RFC 1035, section 3.3

// The public key as a DKIM record has it: base64 in one piece (RFC 6376, section 3.6.1).
std::string PublicKey() {
  std::istringstream lines(RunOrThrow({"openssl", "pkey", "-in", kKey, "-pubout"}, kKey));
  std::string key;
  for (std::string line; std::getline(lines, line);) {
    if (line[0] != '-') key += line;
  }
  return key;
}

std::string Txt(const std::string& name, const std::string& text) {
  std::string record = name + ". IN TXT";
  for (size_t begin = 0; begin < text.size(); begin += kStringSize) {
    record += " \"" + text.substr(begin, kStringSize) + "\"";
  }
  return record + "\n";
}

}  // namespace

int Dns(const Request&) {
  Postfix smtp;
  if (smtp.LoadSettings() < 0) throw Fault("the SMTP settings cannot be read, see the system log");
  const std::string host = GetString(smtp, "smtp_hostname");
  if (host.empty()) throw Fault("smtp_hostname is empty: the records need the name of this machine");
  const std::string selector = GetString(smtp, "dkim_selector");
  const std::string key = PublicKey();
  // Mail leaves this machine itself, or by the relay.
  const std::string relay =
      GetBool(smtp, "smtp_relay_enabled") ? " a:" + GetString(smtp, "smtp_relay_server") : "";
  std::list<std::string> domains = smtp.GetAdditionDomain();
  domains.push_front(host);
  for (const std::string& domain : domains) {
    std::cout << domain << ". IN MX 10 " << host << ".\n"
              << Txt(domain, "v=spf1 mx" + relay + " -all")  // RFC 7208
              << Txt(selector + "._domainkey." + domain, "v=DKIM1; k=rsa; p=" + key)
              << Txt("_dmarc." + domain, "v=DMARC1; p=none; rua=mailto:postmaster@" + domain);  // RFC 7489
  }
  std::cout << std::flush;
  return 0;
}
