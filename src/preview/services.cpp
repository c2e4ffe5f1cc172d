#include "preview/services.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "mail/daemons.h"
#include "mail/dovecot_config.h"
#include "mail/smtp_listeners.h"
#include "preview/sandbox.h"
#include "system/address.h"
#include "system/text.h"

namespace {

namespace fs = std::filesystem;

// The programs that main.cf and master.cf name, but not the mail servers.
std::vector<Peer> Peers(const PostfixConfig& postfix) {
  std::vector<Peer> found;
  for (const auto& [name, value] : postfix.AllValues()) {
    for (const Peer& peer : PeersIn(value)) {
      const std::string transport = peer.via.substr(0, peer.via.find(':'));
      const std::string kind = peer.via.substr(peer.via.rfind(':') + 1);
      const bool mail = transport == "lmtp" || transport == "smtp" || transport == "relay";
      if (!mail && (!peer.path.empty() || kind == "inet" || kind == "tcp")) found.push_back(peer);
    }
  }
  const std::string sasl = postfix.Value("smtpd_sasl_path");
  if (postfix.Value("smtpd_sasl_type") == "dovecot" && !StartsWith(sasl, "inet:"))
    found.push_back({"unix", "", "", sasl});
  return found;
}

// True for the port of a milter that is rehearsed.
bool IsOurMilter(const PostfixConfig& postfix, const std::string& port) {
  return std::any_of(Daemons().begin(), Daemons().end(), [&](const Daemon& daemon) {
    return daemon.milterPort == port && IsWanted(daemon, postfix.parameters);
  });
}

std::string InQueue(const PostfixConfig& postfix, const std::string& path) {
  return path[0] == '/' ? path : postfix.Value("queue_directory") + "/" + path;
}

// True for a socket that Postfix or Dovecot makes anew in the sandbox.
bool IsOurs(const PostfixConfig& postfix, const std::string& path) {
  const std::string queue = postfix.Value("queue_directory");
  return std::any_of(postfix.services.begin(), postfix.services.end(),
                     [&](const PostfixService& service) {
                       return path == queue + (service.isPrivate ? "/private/" : "/public/") + service.name;
                     }) ||
         Contains(DovecotSockets(ReadDovecotFiles()), path);
}

}  // namespace

std::vector<Service> TcpServices(const PostfixConfig& postfix, const std::vector<Endpoint>& occupied) {
  std::vector<Service> services;
  std::set<std::pair<std::string, std::string>> asked;
  for (const auto& [via, host, port, path] : Peers(postfix)) {
    if (!path.empty() || !asked.emplace(host, port).second) continue;
    for (const std::string& address : AddressesOf(host)) {
      const bool local = IsLoopback(address) || Contains(OwnAddresses(), address);
      if (local && (IsOurMilter(postfix, port) || !RunsOutside(postfix, {"", address, port, ""}, occupied)))
        continue;
      services.push_back({host, {address, port}, local});
    }
  }
  return services;
}

void KeepSockets(const PostfixConfig& postfix) {
  for (const Peer& peer : Peers(postfix)) {
    if (peer.path.empty()) continue;
    const std::string path = InQueue(postfix, peer.path);
    if (!fs::is_socket(kMachineRoot + path) || IsOurs(postfix, path) || fs::is_socket(path)) continue;
    ShowSocket(path);
  }
}

bool RunsOutside(const PostfixConfig& postfix, const Peer& peer, const std::vector<Endpoint>& occupied) {
  const std::string path = InQueue(postfix, peer.path);
  if (!peer.path.empty()) return fs::is_socket(kMachineRoot + path) && !IsOurs(postfix, path);
  return std::any_of(occupied.begin(), occupied.end(), [&](const Endpoint& one) {
    return one.port == peer.port &&
           (one.address == peer.host || one.address == "0.0.0.0" || one.address == "::");
  });
}
