#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>

#include "mail/smtp_listeners.h"
#include "preview/warnings.h"
#include "system/text.h"

namespace {

const std::string kMain = kEtc + "/main.cf";

// "192.0.2.0/24" for "192.0.2.7/24", and "[2001:db8::]/32" for "[2001:db8::1]/32". Empty for a network
// without host bits, and for anything else.
std::string NetworkOf(const std::string& text) {
  unsigned char bytes[sizeof(in6_addr)] = {};
  const size_t slash = text.rfind('/');
  const size_t begin = text.find_first_not_of("![");
  if (slash == std::string::npos || begin > slash) return "";
  const std::string length = text.substr(slash + 1);
  const std::string address = text.substr(begin, text.find_first_of("]/", begin) - begin);
  const int family = Contains(address, ":") ? AF_INET6 : AF_INET;
  const unsigned long bits = std::strtoul(length.c_str(), nullptr, 10);
  if (inet_pton(family, address.c_str(), bytes) != 1) return "";
  bool hostBits = false;
  for (unsigned long bit = bits; bit < (family == AF_INET ? 32UL : 128UL); ++bit) {
    const auto mask = static_cast<unsigned char>(0x80U >> bit % 8);
    hostBits = hostBits || (bytes[bit / 8] & mask) != 0;
    bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] & ~mask);
  }
  char network[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, bytes, network, sizeof network);
  if (!hostBits) return "";
  return family == AF_INET ? network + ("/" + length) : "[" + (network + ("]/" + length));
}

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
  for (const std::string& network : Words(postfix.Value("mynetworks"))) {
    const std::string right = NetworkOf(network);
    if (!right.empty()) {
      warn("mynetworks",
           network + " has host bits, so Postfix answers 451 to all whose address it compares; write " +
               right);
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
