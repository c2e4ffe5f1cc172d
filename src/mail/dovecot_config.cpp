#include "mail/dovecot_config.h"

#include <filesystem>

#include "mail/daemons.h"
#include "system/files.h"
#include "system/program.h"
#include "system/text.h"

namespace {

namespace fs = std::filesystem;

// Without quotes, or else without the comment after it.
std::string Bare(const std::string& text) {
  if (text.size() > 1 && text.front() == '"') return text.substr(1, text.rfind('"') - 1);
  return Trim(text[0] == '#' ? "" : text.substr(0, text.find(" #")));
}

// The file in "</path".
std::string FileIn(const std::string& value) {
  return Trim(StartsWith(value, "<") ? value.substr(1) : value);
}

}  // namespace

DovecotConfig ParseDovecot(const std::string& text) {
  DovecotConfig config(1);
  std::vector<size_t> open = {0};  // the blocks that a line is in
  for (const std::string& whole : Lines(text)) {
    const std::string line = Trim(whole);
    const size_t sign = line.find('=');
    if (line.empty() || line[0] == '#') continue;
    if (line.back() == '{') {
      const std::string& around = config[open.back()].name;
      open.push_back(config.size());
      config.push_back({around + (around.empty() ? "" : "/") + Trim(line.substr(0, line.size() - 1)), {}});
    } else if (line[0] == '}') {
      if (open.size() > 1) open.pop_back();
    } else if (sign != std::string::npos) {
      config[open.back()].settings[Trim(line.substr(0, sign))] = Bare(Trim(line.substr(sign + 1)));
    }
  }
  return config;
}

DovecotConfig ReadDovecot() {
  std::vector<std::string> command = DaemonOf(DaemonId::kDovecot).check;
  command.emplace_back("-P");
  const ProgramResult read = RunProgram(command);
  if (read.status != 0) throw Fault(read.errors);
  return ParseDovecot(read.output);
}

DovecotConfig ReadDovecotFiles() {
  DovecotConfig config;
  std::error_code none;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(kEtc + "/dovecot", none)) {
    if (entry.path().extension() != ".conf") continue;
    for (const DovecotBlock& block : ParseDovecot(ReadFile(entry.path()))) config.push_back(block);
  }
  return config;
}

std::string ValueIn(const DovecotConfig& config, const std::string& block, const std::string& setting) {
  std::string value;
  for (const DovecotBlock& one : config) {
    const auto found = one.settings.find(setting);
    if (one.name == block && found != one.settings.end()) value = found->second;
  }
  return value;
}

std::vector<DovecotListener> DovecotListeners(const DovecotConfig& config) {
  std::vector<DovecotListener> listeners = {{"imap", "imap", "143", false},
                                            {"imaps", "imap", "993", true},
                                            {"pop3", "pop3", "110", false},
                                            {"pop3s", "pop3", "995", true}};
  for (DovecotListener& one : listeners) {
    const std::string block = "service " + one.protocol + "-login/inet_listener " + one.name;
    const std::string port = ValueIn(config, block, "port");
    const std::string ssl = ValueIn(config, block, "ssl");
    if (Contains(Words(ValueIn(config, "", "protocols")), one.protocol) && port != "0")
      one.port = port.empty() ? one.usualPort : port;
    if (!ssl.empty()) one.implicitTls = ssl == "yes";
    one.startTls = !one.implicitTls && ValueIn(config, "", "ssl") != "no";
    // Dovecot 2.3 has an address, 2.4 listens.
    one.addresses = Words(ValueIn(config, block, "address") + " " + ValueIn(config, block, "listen"));
  }
  return listeners;
}

std::vector<std::pair<std::string, std::string>> DovecotCertificates(const DovecotConfig& config) {
  std::vector<std::pair<std::string, std::string>> found;
  if (ValueIn(config, "", "ssl") == "no") return found;
  for (const DovecotBlock& block : config) {
    // "ssl_cert = </path" of 2.3, "ssl_server_cert_file = /path" of 2.4; also in a block for one name.
    for (const std::string name : {"ssl_%", "ssl_server_%_file", "server_%_file", "%_file"}) {
      const auto of = [&](const std::string& kind) {
        const auto one = block.settings.find(std::string(name).replace(name.find('%'), 1, kind));
        return one == block.settings.end() ? "" : FileIn(one->second);
      };
      if (!of("cert").empty() && !of("key").empty()) found.emplace_back(of("cert"), of("key"));
    }
  }
  return found;
}

std::vector<std::string> DovecotSockets(const DovecotConfig& config) {
  const std::string kind = "/unix_listener ";
  std::vector<std::string> paths;
  for (const DovecotBlock& block : config) {
    const size_t at = block.name.find(kind);
    if (at != std::string::npos) paths.push_back(block.name.substr(at + kind.size()));
  }
  return paths;
}

std::vector<std::string> PamServices(const DovecotConfig& config) {
  std::vector<std::string> services;
  for (const DovecotBlock& block : config) {
    const bool pam = ValueIn({block}, block.name, "driver") == "pam";
    for (const auto& [name, value] : block.settings) {
      // In 2.3, the options are before the name.
      const std::vector<std::string> words = Words(value);
      const bool named = EndsWith(name, "service_name") || (pam && name == "args");
      if (named && !words.empty() && !Contains(words.back(), "%")) services.push_back(words.back());
    }
  }
  return services;
}
