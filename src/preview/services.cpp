#include "preview/services.h"

#include <netdb.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <regex>
#include <set>

#include "mail/daemons.h"
#include "mail/dovecot_config.h"
#include "mail/smtp_listeners.h"
#include "preview/sandbox.h"
#include "preview/verdict.h"
#include "system/files.h"
#include "system/text.h"

namespace {

namespace fs = std::filesystem;

// What follows "inet:", "unix:" and the like in main.cf and master.cf, but not the place of a mail server.
std::set<std::string> Endpoints(const std::string& kinds) {
  std::string text = "\n" + ReadFile(kEtc + "/master.cf");
  for (const auto& [name, value] : MainCf()) text += "\n" + value;
  if (MainParameter("smtpd_sasl_type") == "dovecot" && !Contains(MainParameter("smtpd_sasl_path"), "inet:"))
    text += "\nunix:" + MainParameter("smtpd_sasl_path");
  const std::regex form("([a-z]*:)?\\b(" + kinds + "):([^\\s,{}()]+)");
  std::set<std::string> found;
  for (std::sregex_iterator one(text.begin(), text.end(), form), end; one != end; ++one) {
    if ((*one)[1] != "lmtp:" && (*one)[1] != "smtp:" && (*one)[1] != "relay:") found.insert((*one)[3]);
  }
  return found;
}

// True for the port of a milter that is rehearsed.
bool IsOurMilter(const std::string& port) {
  return std::any_of(Daemons().begin(), Daemons().end(), [&](const Daemon& daemon) {
    return daemon.milterPort == port && IsWanted(daemon, MainCf());
  });
}

std::string InQueue(const std::string& path) {
  return path[0] == '/' ? path : MainParameter("queue_directory") + "/" + path;
}

bool IsSocket(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// True for a socket that Postfix or Dovecot makes anew in the sandbox.
bool IsOurs(const std::string& path) {
  const std::string name = "\n" + fs::path(path).filename().string() + " ";
  if (StartsWith(path, MainParameter("queue_directory") + "/p") &&
      Contains("\n" + ReadFile(kEtc + "/master.cf"), name))
    return true;
  return Contains(DovecotSockets(ReadDovecotFiles()), path);
}

}  // namespace

std::vector<Service> TcpServices(const std::vector<Place>& taken) {
  std::vector<Service> services;
  for (const std::string& endpoint : Endpoints("inet|tcp")) {
    static const std::regex form(R"(\[?([^\]]+?)\]?:(\d+)(?::.*)?)");
    std::smatch match;
    if (!std::regex_match(endpoint, match, form)) continue;
    const std::string host = match[1];
    const std::string port = match[2];
    for (const std::string& address : AddressesOf(host)) {
      const bool local = IsLoopback(address) || Contains(OwnAddresses(), address);
      if (local && (IsOurMilter(port) || !RunsOutside(address + ":" + port, taken))) continue;
      services.push_back({host, {address, port}, local});
    }
  }
  return services;
}

void KeepSockets() {
  for (const std::string& endpoint : Endpoints("unix|local")) {
    const std::string path = InQueue(endpoint.substr(0, endpoint.find(':')));
    if (!IsSocket(kMachine + path) || IsOurs(path) || IsSocket(path)) continue;
    ShowSocket(path);
  }
}

bool RunsOutside(const std::string& place, const std::vector<Place>& taken) {
  if (Contains(place, "/")) return IsSocket(kMachine + InQueue(place)) && !IsOurs(InQueue(place));
  const size_t colon = place.rfind(':');
  const std::string address = place.substr(0, colon);
  return std::any_of(taken.begin(), taken.end(), [&](const Place& one) {
    return one.port == place.substr(colon + 1) &&
           (one.address == address || one.address == "0.0.0.0" || one.address == "::");
  });
}
