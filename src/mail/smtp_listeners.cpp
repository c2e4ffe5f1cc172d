#include "mail/smtp_listeners.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>

#include <algorithm>
#include <memory>

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

SmtpListener ListenerOf(const PostfixConfig& config, const PostfixService& service) {
  SmtpListener listener = {};
  listener.name = service.name;
  listener.port = service.port;
  const std::string protocols = config.Value(service, "inet_protocols");
  std::vector<std::string> places;
  const std::vector<std::string> interfaces = service.host.empty()
                                                  ? Words(config.Value(service, "inet_interfaces"))
                                                  : std::vector<std::string>{service.host};
  const bool everywhere = Contains(interfaces, "all") || Contains(interfaces, "loopback-only");
  for (const std::string& word : interfaces) {
    if (word == "loopback-only") continue;
    for (const std::string& address : word == "all" ? OwnAddresses() : AddressesOf(word)) {
      if (protocols == (IsSix(address) ? "ipv4" : "ipv6") || Contains(places, address)) continue;
      places.push_back(address);
      const bool first = listener.outside.empty() || IsSix(listener.outside[0]) != IsSix(address);
      if (!IsLoopback(address) && first) listener.outside.push_back(address);
    }
  }
  listener.reachableAt = protocols == "ipv6" ? "::1" : "127.0.0.1";
  if (!everywhere && !places.empty()) listener.reachableAt = places[0];
  std::sort(listener.outside.begin(), listener.outside.end(),
            [](const std::string& one, const std::string& other) { return IsSix(one) < IsSix(other); });
  const TlsUse tls = TlsOf(config, service);
  listener.implicitTls = tls == TlsUse::kImplicit;
  listener.startTls = tls == TlsUse::kOffered || tls == TlsUse::kRequired;
  listener.requiresTls = tls == TlsUse::kImplicit || tls == TlsUse::kRequired;
  std::vector<std::string> own;
  for (const char* list : {"client", "recipient", "relay"}) {
    const auto option = service.options.find(std::string("smtpd_") + list + "_restrictions");
    if (option == service.options.end()) continue;
    for (const std::string& word : Words(option->second)) own.push_back(word);
  }
  listener.closed = Contains(own, "reject");
  listener.offersLogin = config.Value(service, "smtpd_sasl_auth_enable") == "yes" &&
                         (tls != TlsUse::kNever || config.Value(service, "smtpd_tls_auth_only") != "yes");
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
  return (implicitTls ? "smtps://" : "smtp://") + InUrl(address) + ":" + port + "/";
}

std::vector<SmtpListener> SmtpListeners(const PostfixConfig& config) {
  std::vector<SmtpListener> listeners;
  for (const PostfixService& service : config.services) {
    if (service.type == "inet" && (service.command == "smtpd" || service.command == "postscreen"))
      listeners.push_back(ListenerOf(config, service));
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
