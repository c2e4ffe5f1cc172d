#include "mail/smtp_listeners.h"

#include <algorithm>

#include "system/address.h"
#include "system/text.h"

namespace {

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

bool IsOwn(const std::vector<SmtpListener>& listeners, const std::string& host, const std::string& port) {
  const std::vector<std::string> own = OwnAddresses();
  const std::vector<std::string> addresses = AddressesOf(host);
  return std::any_of(addresses.begin(), addresses.end(),
                     [&](const std::string& one) { return IsLoopback(one) || Contains(own, one); }) &&
         std::any_of(listeners.begin(), listeners.end(),
                     [&](const SmtpListener& listener) { return listener.port == port; });
}
