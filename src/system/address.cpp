#include "system/address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>

#include <algorithm>
#include <memory>

#include "system/text.h"

namespace {

// The numeric form of a socket's address.
std::string Numeric(const sockaddr* address) {
  const bool six = address->sa_family == AF_INET6;
  char text[NI_MAXHOST] = "";
  getnameinfo(address, six ? sizeof(sockaddr_in6) : sizeof(sockaddr_in), text, sizeof text, nullptr, 0,
              NI_NUMERICHOST);
  return text;
}

std::string WithoutBrackets(const std::string& text) {
  return StartsWith(text, "[") ? text.substr(1, text.find(']') - 1) : text;
}

// The first bits, and zeros behind them.
Network::Bytes First(int bits, Network::Bytes bytes) {
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(byte & 0xFF00U >> std::clamp(bits, 0, 8));
    bits -= 8;
  }
  return bytes;
}

}  // namespace

bool IsSix(const std::string& address) { return Contains(address, ":"); }

bool IsLoopback(const std::string& address) {
  return StartsWith(address, "127.") || address == "::1" || address == "localhost";
}

std::string InUrl(const std::string& address) { return IsSix(address) ? "[" + address + "]" : address; }

std::vector<std::string> AddressesOf(const std::string& name) {
  addrinfo wanted = {};
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(WithoutBrackets(name).c_str(), nullptr, &wanted, &found) != 0) return {};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  std::vector<std::string> addresses;
  for (; found != nullptr; found = found->ai_next) addresses.push_back(Numeric(found->ai_addr));
  return addresses;
}

std::vector<std::string> OwnAddresses() {
  std::vector<std::string> found;
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return found;
  for (const ifaddrs* one = all; one != nullptr; one = one->ifa_next) {
    const int family = one->ifa_addr == nullptr ? AF_UNSPEC : one->ifa_addr->sa_family;
    if (family != AF_INET && family != AF_INET6) continue;
    const std::string address = Numeric(one->ifa_addr);
    if (!IsLoopback(address) && !Contains(address, "%")) found.push_back(address);
  }
  freeifaddrs(all);
  return found;
}

std::optional<Network> Network::Parse(const std::string& text) {
  const size_t slash = std::min(text.rfind('/'), text.size());
  const std::string address = WithoutBrackets(text.substr(0, slash));
  Network network = {};
  network.size = network.bits = IsSix(address) ? 128 : 32;
  if (inet_pton(IsSix(address) ? AF_INET6 : AF_INET, address.c_str(), network.base.data()) != 1) return {};
  if (slash == text.size()) return network;
  const std::string bits = text.substr(slash + 1);
  if (bits.empty() || bits.size() > 3 || bits.find_first_not_of("0123456789") != std::string::npos) return {};
  network.bits = std::stoi(bits);
  if (network.bits > network.size) return {};
  return network;
}

bool Network::Covers(const Network& other) const {
  return other.size == size && other.bits >= bits && First(bits, other.base) == First(bits, base);
}

bool Network::HasHostBits() const { return First(bits, base) != base; }

std::string Network::Text() const {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(size == 128 ? AF_INET6 : AF_INET, First(bits, base).data(), text, sizeof text);
  return InUrl(text) + "/" + std::to_string(bits);
}

bool IsIn(const std::string& network, const std::string& other) {
  const auto inner = Network::Parse(network);
  const auto outer = Network::Parse(other);
  return inner && outer && outer->Covers(*inner);
}
