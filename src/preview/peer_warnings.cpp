#include <curl/curl.h>

#include <algorithm>
#include <memory>

#include "mail/certificate.h"
#include "mail/daemons.h"
#include "mail/listeners.h"
#include "preview/warnings.h"
#include "system/address.h"
#include "system/dns.h"
#include "system/files.h"
#include "system/text.h"

namespace {

const std::string kMain = kEtc + "/main.cf";
const std::string kKeyTable = kEtc + "/opendkim/KeyTable";

// ---- Connections -------------------------------------------------------------------------------------

bool Connects(const std::string& host, const std::string& port) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
  if (curl == nullptr) return true;
  curl_easy_setopt(curl.get(), CURLOPT_URL, ("http://" + InUrl(host) + ":" + port).c_str());
  curl_easy_setopt(curl.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_CONNECT_ONLY, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 3L);
  return curl_easy_perform(curl.get()) == CURLE_OK;
}

// True when one of the places, "ldaps://HOST:PORT/" or "HOST", answers, or is of a form that is not known
// here.
bool AnswersAt(const std::string& uri) {
  const bool tls = StartsWith(uri, "ldaps://");
  std::string place = uri.substr(tls ? 8 : StartsWith(uri, "ldap://") ? 7 : 0);
  if (EndsWith(place, "/")) place.pop_back();
  const Peer peer = ParsePeer(place);
  if (!peer.via.empty() || peer.host.empty() || Contains(place, "/")) return true;
  return Connects(peer.host, !peer.port.empty() ? peer.port : tls ? "636" : "389");
}

// Each "ldap:/path" in alias_maps names a file, and `server_host` in this file the servers of a directory.
void CheckDirectories(Warnings& warnings, const PostfixConfig& postfix) {
  for (const std::string& map : Words(postfix.Value("alias_maps"))) {
    if (!StartsWith(map, "ldap:/")) continue;
    const std::string file = map.substr(5);
    const std::string hosts = ParseParameters(ReadFile(file))["server_host"];
    const std::vector<std::string> places = Words(hosts);
    if (places.empty()) {
      warnings.push_back(kMain + ": alias_maps: " + file +
                         " names no server, so mail for local recipients waits (451)");
    } else if (std::none_of(places.begin(), places.end(), AnswersAt)) {
      warnings.push_back(file + ": server_host: no directory answers at " + hosts +
                         ", so mail for local recipients waits (451)");
    }
  }
}

// True when somebody listens on the path.
bool IsSocket(const std::string& path) {
  const std::vector<std::string> all = ParseUnixListeners(ReadFile("/proc/thread-self/net/unix"));
  return Contains(all, path) || (StartsWith(path, "/var/run/") && Contains(all, path.substr(4)));
}

// True when a program of ours is started there with Postfix, or Postfix itself listens.
bool IsStarted(const Peer& peer, const PostfixConfig& postfix) {
  return std::any_of(Daemons().begin(), Daemons().end(),
                     [&](const Daemon& daemon) { return daemon.milterPort == peer.port; }) ||
         std::any_of(postfix.services.begin(), postfix.services.end(),
                     [&](const PostfixService& service) { return service.port == peer.port; });
}

// Filters, policy services and milters of others.
void CheckFilters(Warnings& warnings, const PostfixConfig& postfix) {
  for (const auto& [name, value] : postfix.AllValues()) {
    const bool restrictions = Contains(name, "smtpd_") && Contains(name, "_restrictions");
    if (!restrictions && !EndsWith(name, "content_filter") && !EndsWith(name, "smtpd_proxy_filter") &&
        !EndsWith(name, "smtpd_milters"))
      continue;
    for (const Peer& peer : PeersIn(value)) {
      // Among restrictions, they are policy services.
      if (restrictions && peer.via != "inet" && peer.via != "unix") continue;
      const bool path = !peer.path.empty();
      if (path ? peer.path[0] != '/' || IsSocket(peer.path)
               : IsStarted(peer, postfix) || Connects(peer.host, peer.port))
        continue;
      warnings.push_back(kMain + ": " + name + ": nobody answers at " +
                         (path ? peer.path : peer.host + ", port " + peer.port) +
                         ", so mail waits until somebody does");
    }
  }
}

// ---- The DKIM key in DNS -----------------------------------------------------------------------------

// The record comes before the setting: docs/pitfalls.md, "A new DKIM key".
void CheckDkimKeys(Warnings& warnings, const PostfixConfig& postfix) {
  if (!IsWanted(DaemonOf(DaemonId::kOpenDkim), postfix.parameters)) return;
  std::string missing;
  std::string key;
  for (const std::string& line : Lines(ReadFile(kKeyTable))) {
    const std::vector<std::string> words = Words(line);  // NAME DOMAIN:SELECTOR:PATH
    const size_t path = line.rfind(':');
    if (words.size() < 2 || path == std::string::npos) continue;
    if (key.empty()) key = PublicKey(line.substr(path + 1));  // all domains have the same
    const auto records = AskDns(words[0], "TXT", std::chrono::seconds(1));
    if (key.empty() || !records) return;  // the rehearsal reads the key; without DNS, nothing is known
    const bool published = std::any_of(records->begin(), records->end(), [&](std::string record) {
      record.erase(std::remove(record.begin(), record.end(), ' '), record.end());
      return Contains(record, "p=" + key);
    });
    if (!published) missing += (missing.empty() ? "" : ", ") + words[0];
  }
  if (missing.empty()) return;
  warnings.push_back(
      kKeyTable + ": " + missing +
      ": DNS does not have this key. A receiver takes a signature for a forged one meanwhile, so "
      "the record comes first; apply when DNS answers it: TXT \"v=DKIM1; k=rsa; p=" +
      key + "\"");
}

}  // namespace

Warnings PeerWarnings(const PostfixConfig& postfix) {
  Warnings warnings;
  CheckDirectories(warnings, postfix);
  CheckFilters(warnings, postfix);
  CheckDkimKeys(warnings, postfix);
  return warnings;
}
