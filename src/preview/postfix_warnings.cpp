#include <algorithm>

#include "mail/smtp_listeners.h"
#include "preview/warnings.h"
#include "system/address.h"
#include "system/text.h"

namespace {

const std::string kMain = kEtc + "/main.cf";

// True when port 25, to which other servers send, takes no mail without TLS.
bool DemandsTls(const PostfixConfig& postfix) {
  return std::any_of(postfix.services.begin(), postfix.services.end(), [&](const PostfixService& service) {
    return service.port == "25" && TlsOf(postfix, service) == TlsUse::kRequired;
  });
}

bool IsLocal(const std::string& interface) {
  return interface == "loopback-only" || interface == "[::1]" || IsLoopback(interface);
}

}  // namespace

Warnings PostfixWarnings(const PostfixConfig& postfix) {
  Warnings warnings;
  const auto warn = [&](const std::string& key, const std::string& text) {
    warnings.push_back(kMain + ": " + key + ": " + text);
  };
  for (const std::string& word : Words(postfix.Value("mynetworks"))) {
    const auto network = Network::Parse(word.substr(word[0] == '!' ? 1 : 0));
    if (network && network->HasHostBits()) {
      warn("mynetworks",
           word + " has host bits, so Postfix answers 451 to all whose address it compares; write " +
               network->Text());
    }
  }
  if (DemandsTls(postfix)) {
    warn("smtpd_tls_security_level",
         "port 25 demands TLS, so mail from servers without TLS does not come (RFC 3207, section 4); write "
         "may");
  }
  const std::vector<std::string> interfaces = Words(postfix.Value("inet_interfaces"));
  if (!interfaces.empty() && std::all_of(interfaces.begin(), interfaces.end(), IsLocal)) {
    warn("inet_interfaces", "only programs on this machine reach it, so no mail comes from others");
  }
  return warnings;
}
