#include "mail/postfix_config.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <strings.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>

#include "system/program.h"
#include "system/text.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kBlanks = " \t\r\n";

// The lines without comments, each with the lines that continue it.
std::vector<std::string> LogicalLines(const std::string& text) {
  std::vector<std::string> lines;
  for (const std::string& line : Lines(text)) {
    const size_t begin = line.find_first_not_of(kBlanks);
    if (begin == std::string::npos || line[begin] == '#') continue;
    if (begin == 0 || lines.empty()) {
      lines.push_back(line);
    } else {
      lines.back() += line;
    }
  }
  return lines;
}

// The parts between blanks. Blanks between braces are part of a part.
std::vector<std::string> Columns(const std::string& line) {
  std::vector<std::string> columns(1);
  int depth = 0;
  for (const char c : line + " ") {
    depth += c == '{' ? 1 : c == '}' ? -1 : 0;
    if (depth > 0 || std::string(kBlanks).find(c) == std::string::npos) {
      columns.back() += c;
    } else if (!columns.back().empty()) {
      columns.emplace_back();
    }
  }
  columns.pop_back();
  return columns;
}

// Adds "name = value", with blanks or without.
void AddParameter(Parameters& parameters, const std::string& text) {
  const size_t sign = text.find('=');
  if (sign == std::string::npos) return;
  parameters[Trim(text.substr(0, sign))] = Trim(text.substr(sign + 1));
}

bool IsYes(const std::string& value) { return strcasecmp(value.c_str(), "yes") == 0; }

}  // namespace

std::string PostfixConfig::Value(const std::string& name) const {
  const auto found = parameters.find(name);
  return found == parameters.end() ? "" : found->second;
}

std::string PostfixConfig::Value(const PostfixService& service, const std::string& name) const {
  const auto own = service.options.find(name);
  return own == service.options.end() ? Value(name) : own->second;
}

Parameters PostfixConfig::AllValues() const {
  Parameters values = parameters;
  for (const PostfixService& service : services) {
    for (const auto& [name, value] : service.options) {
      values[service.name + "/" + service.type + "/" + name] = value;
    }
  }
  return values;
}

Parameters ParseParameters(const std::string& text) {
  Parameters parameters;
  for (const std::string& line : LogicalLines(text)) AddParameter(parameters, line);
  return parameters;
}

std::vector<PostfixService> ParseServices(const std::string& text) {
  std::vector<PostfixService> services;
  for (const std::string& line : LogicalLines(text)) {
    // name, type, private, unprivileged, chroot, wake-up, processes, command, its arguments
    const std::vector<std::string> columns = Columns(line);
    if (columns.size() < 8) continue;
    PostfixService service = {columns[0], columns[1], columns[7], columns[2] != "n"};
    for (size_t i = 8; i < columns.size(); ++i) {
      if (!StartsWith(columns[i], "-o")) continue;
      std::string option = columns[i].substr(2);
      if (option.empty() && i + 1 < columns.size()) option = columns[++i];
      if (StartsWith(option, "{")) option = option.substr(1, option.rfind('}') - 1);
      AddParameter(service.options, option);
    }
    if (service.type == "inet") {
      const size_t colon = service.name.rfind(':');
      service.port = PortNumber(service.name.substr(colon + 1));
      if (colon != std::string::npos) service.host = ParsePeer(service.name).host;
    }
    services.push_back(service);
  }
  return services;
}

Parameters PostfixParameters(const std::string& directory) {
  return ParseParameters(RunOrThrow({"postconf", "-c", directory, "-x"}, "Postfix cannot read its main.cf"));
}

PostfixConfig ReadPostfix(const std::string& directory) {
  return {PostfixParameters(directory), ParseServices(RunOrThrow({"postconf", "-c", directory, "-Mx"},
                                                                 "Postfix cannot read its master.cf"))};
}

// As smtpd(8) does it: smtpd_use_tls and smtpd_enforce_tls count only where there is no level.
TlsUse TlsOf(const PostfixConfig& config, const PostfixService& service) {
  const auto value = [&](const std::string& name) { return config.Value(service, name); };
  const std::string prefix = service.command == "postscreen" ? "postscreen_" : "smtpd_";
  const std::string level = value(prefix + "tls_security_level");
  if (service.command == "smtpd" && IsYes(value("smtpd_tls_wrappermode"))) return TlsUse::kImplicit;
  if (level.empty() && IsYes(value(prefix + "enforce_tls"))) return TlsUse::kRequired;
  if (level.empty()) return IsYes(value(prefix + "use_tls")) ? TlsUse::kOffered : TlsUse::kNever;
  if (level == "none") return TlsUse::kNever;
  return level == "may" ? TlsUse::kOffered : TlsUse::kRequired;
}

std::string PortNumber(const std::string& port) {
  const servent* service = getservbyname(port.c_str(), "tcp");
  return service == nullptr ? port : std::to_string(ntohs(static_cast<std::uint16_t>(service->s_port)));
}

std::vector<std::string> LocalDomains(const Parameters& mainCf) {
  std::vector<std::string> domains;
  for (const std::string& word : Words(mainCf.at("mydestination"))) {
    if (Contains(word, ":") || Contains(word, "/") || Contains(word, "$") || StartsWith(word, "localhost") ||
        Contains(domains, word))
      continue;
    domains.insert(word == mainCf.at("myhostname") ? domains.begin() : domains.end(), word);
  }
  if (domains.empty()) domains.push_back(mainCf.at("myhostname"));
  return domains;
}

Peer ParsePeer(const std::string& word) {
  Peer peer;
  for (const std::string kind : {"unix:", "local:"}) {
    const size_t at = word.find(kind);
    if (at == std::string::npos || (at > 0 && word[at - 1] != ':')) continue;
    peer.via = word.substr(0, at + kind.size() - 1);
    peer.path = word.substr(at + kind.size());
    return peer;
  }
  const size_t colon = word.rfind(':');
  std::string host = word;
  if (colon != std::string::npos && word.find(']', colon) == std::string::npos) {
    host = word.substr(0, colon);
    peer.port = word.substr(colon + 1);
  }
  const size_t bracket = host.find('[');
  const size_t begin = bracket == std::string::npos ? host.rfind(':') + 1 : bracket;
  if (begin > 0) peer.via = host.substr(0, begin - 1);
  peer.host = host.substr(begin);
  if (bracket != std::string::npos) peer.host = host.substr(bracket + 1, host.find(']') - bracket - 1);
  return peer;
}

std::vector<std::string> ListWords(const std::string& value) {
  std::string text = value;
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == '{' || c == '}'; }, ' ');
  return Words(text);
}

std::vector<Peer> PeersIn(const std::string& value) {
  std::vector<Peer> peers;
  for (const std::string& word : ListWords(value)) {
    const Peer peer = ParsePeer(word);
    const bool numeric = !peer.port.empty() && peer.port.find_first_not_of("0123456789") == std::string::npos;
    if (!peer.path.empty() || (numeric && !peer.host.empty())) peers.push_back(peer);
  }
  return peers;
}

bool HasPeer(const std::string& value, const std::string& port) {
  const std::vector<Peer> peers = PeersIn(value);
  return std::any_of(peers.begin(), peers.end(), [&](const Peer& peer) { return peer.port == port; });
}

void SetParameter(const std::string& name, const std::string& value) {
  RunProgram({"postconf", "-c", kEtc, "-e", name + "=" + value});
  SkipSettleTime(kEtc + "/main.cf");
}

std::vector<std::string> MainCfCheck() { return {"postconf", "-c", kEtc, "-n"}; }

std::vector<std::string> PostfixVersionCommand() { return {"postconf", "-dh", "mail_version"}; }

void SkipSettleTime(const std::string& path) {
  fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::seconds(10));
}
