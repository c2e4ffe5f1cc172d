#include "mail/smtp_listeners.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <regex>

#include "system/program.h"
#include "system/text.h"

namespace {

bool IsSix(const std::string& address) { return Contains(address, ":"); }

// The numeric form of a socket's address.
std::string Numeric(const sockaddr* address) {
  const bool six = address->sa_family == AF_INET6;
  char text[NI_MAXHOST] = "";
  getnameinfo(address, six ? sizeof(sockaddr_in6) : sizeof(sockaddr_in), text, sizeof text, nullptr, 0,
              NI_NUMERICHOST);
  return text;
}

// A service that listens on a port, from a `line` of `postconf -M`.
SmtpListener ListenerOf(const std::string& line, const std::string& name, const Parameters& main) {
  const auto option = [&](const std::string& parameter) -> std::string {
    std::smatch match;
    const std::regex form(" -o \\{? ?" + parameter + " ?= ?([^ }]*)");
    return std::regex_search(line, match, form) ? match[1].str() : "";
  };
  const auto value = [&](const std::string& parameter) {
    const std::string own = option(parameter);
    return own.empty() ? main.at(parameter) : own;
  };
  SmtpListener listener = {};
  const size_t colon = name.rfind(':');
  listener.name = name;
  listener.port = colon == std::string::npos ? name : name.substr(colon + 1);
  if (const servent* service = getservbyname(listener.port.c_str(), "tcp")) {
    listener.port = std::to_string(ntohs(static_cast<std::uint16_t>(service->s_port)));
  }
  const std::string protocols = value("inet_protocols");
  std::vector<std::string> places;
  const std::string interfaces =
      colon == std::string::npos ? value("inet_interfaces") : name.substr(0, colon);
  for (const std::string& word : Words(interfaces)) {
    for (const std::string& address : word == "all"             ? OwnAddresses()
                                      : word == "loopback-only" ? std::vector<std::string>()
                                                                : AddressesOf(word)) {
      if (protocols == (IsSix(address) ? "ipv4" : "ipv6") || Contains(places, address)) continue;
      places.push_back(address);
      const bool first = listener.outside.empty() || IsSix(listener.outside[0]) != IsSix(address);
      if (!IsLoopback(address) && first) listener.outside.push_back(address);
    }
  }
  const bool everywhere = Contains(Words(interfaces), "all") || Contains(Words(interfaces), "loopback-only");
  listener.here = protocols == "ipv6" ? "::1" : "127.0.0.1";
  if (!everywhere && !places.empty()) listener.here = places[0];
  std::sort(listener.outside.begin(), listener.outside.end(),
            [](const std::string& one, const std::string& other) { return IsSix(one) < IsSix(other); });
  const std::string level = value("smtpd_tls_security_level");
  listener.wrapped = value("smtpd_tls_wrappermode") == "yes";
  listener.startTls =
      !listener.wrapped && (level == "may" || level == "encrypt" || value("smtpd_use_tls") == "yes");
  listener.mustTls = listener.wrapped || level == "encrypt" || value("smtpd_enforce_tls") == "yes";
  const std::vector<std::string> own =
      Words(option("smtpd_client_restrictions") + "," + option("smtpd_recipient_restrictions") + "," +
            option("smtpd_relay_restrictions"));
  listener.forUsers = Contains(own, "permit_sasl_authenticated") && Contains(own, "reject");
  listener.offersLogin = value("smtpd_sasl_auth_enable") == "yes" &&
                         (listener.wrapped || listener.startTls || value("smtpd_tls_auth_only") != "yes");
  return listener;
}

}  // namespace

bool IsLoopback(const std::string& address) {
  return StartsWith(address, "127.") || address == "::1" || address == "localhost";
}

std::vector<std::string> AddressesOf(const std::string& name) {
  addrinfo wanted = {};
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  std::string bare = name;
  if (!bare.empty() && bare[0] == '[') bare = bare.substr(1, bare.find(']') - 1);
  if (getaddrinfo(bare.c_str(), nullptr, &wanted, &found) != 0) return {};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  std::vector<std::string> addresses;
  for (; found != nullptr; found = found->ai_next) addresses.push_back(Numeric(found->ai_addr));
  return addresses;
}

std::string InUrl(const std::string& address) { return IsSix(address) ? "[" + address + "]" : address; }

std::string SmtpListener::Url(const std::string& address) const {
  return (wrapped ? "smtps://" : "smtp://") + InUrl(address) + ":" + port + "/";
}

std::vector<SmtpListener> SmtpListeners(const Parameters& main) {
  std::vector<SmtpListener> listeners;
  for (const std::string& line :
       Lines(RunOrThrow({"postconf", "-c", kEtc, "-M"}, "Postfix cannot read its master.cf"))) {
    const std::vector<std::string> words = Words(line);
    if (words.size() > 7 && words[1] == "inet" && (words[7] == "smtpd" || words[7] == "postscreen"))
      listeners.push_back(ListenerOf(line, words[0], main));
  }
  return listeners;
}

std::vector<std::string> OwnAddresses() {
  std::vector<std::string> found;
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return found;
  for (const ifaddrs* one = all; one != nullptr; one = one->ifa_next) {
    if (one->ifa_addr == nullptr ||
        (one->ifa_addr->sa_family != AF_INET && one->ifa_addr->sa_family != AF_INET6))
      continue;
    const std::string address = Numeric(one->ifa_addr);
    if (!IsLoopback(address) && !Contains(address, "%")) found.push_back(address);
  }
  freeifaddrs(all);
  return found;
}

bool IsOwn(const std::vector<SmtpListener>& listeners, const std::string& host, const std::string& port) {
  const std::vector<std::string> own = OwnAddresses();
  const std::vector<std::string> addresses = AddressesOf(host);
  return std::any_of(addresses.begin(), addresses.end(),
                     [&](const std::string& one) { return IsLoopback(one) || Contains(own, one); }) &&
         std::any_of(listeners.begin(), listeners.end(),
                     [&](const SmtpListener& listener) { return listener.port == port; });
}

bool IsIn(const std::string& address, const std::string& network) {
  std::string base = network.substr(0, network.rfind('/'));
  if (base.size() > 1 && base[0] == '[') base = base.substr(1, base.find(']') - 1);
  const int family = IsSix(base) ? AF_INET6 : AF_INET;
  const int most = family == AF_INET ? 32 : 128;
  unsigned char one[16];
  unsigned char other[16];
  if (inet_pton(family, address.c_str(), one) != 1 || inet_pton(family, base.c_str(), other) != 1)
    return false;
  const size_t slash = network.rfind('/');
  const int bits = slash == std::string::npos ? most : std::atoi(network.c_str() + slash + 1);
  for (int bit = 0; bit < std::clamp(bits, 0, most); ++bit) {
    if (((one[bit / 8] ^ other[bit / 8]) >> (7 - bit % 8) & 1) != 0) return false;
  }
  return true;
}
