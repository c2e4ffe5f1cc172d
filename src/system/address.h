/// IP addresses and networks.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

/// True for a numeric address of IPv6.
bool IsSix(const std::string& address);

/// True for this machine's addresses that no other machine reaches, and "localhost".
bool IsLoopback(const std::string& address);

/// An address as it stands in a URL: an IPv6 one has brackets.
std::string InUrl(const std::string& address);

/// The addresses of a name, as far as /etc/hosts or a name server knows it; an address is its own, also in
/// brackets.
std::vector<std::string> AddressesOf(const std::string& name);

/// The global addresses that stand on this machine's interfaces.
std::vector<std::string> OwnAddresses();

/// A network as mynetworks has it (postconf(5)): "192.0.2.0/24", "[2001:db8::]/32". An address is a network
/// of one.
struct Network {
  using Bytes = std::array<unsigned char, 16>;

  Bytes base;
  int size;  ///< of an address, in bits: 32 or 128
  int bits;  ///< at the beginning, which all of its addresses have

  /// Nothing for another text, such as a name or a table.
  static std::optional<Network> Parse(const std::string& text);

  /// True when all addresses of the other one are in this one.
  bool Covers(const Network& other) const;

  /// True when the base has other bits than these.
  bool HasHostBits() const;

  /// Without host bits.
  std::string Text() const;
};

/// True when both are networks, and the second one covers the first.
bool IsIn(const std::string& network, const std::string& other);
