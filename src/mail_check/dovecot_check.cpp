#include <algorithm>

#include "mail_check/configuration.h"
#include "mail_check/daemons.h"
#include "mail_check/mail_questions.h"
#include "system/program.h"
#include "system/text.h"

namespace {

struct Service {
  const char* name;
  const char* protocol;
  const char* command;
  const char* port;  // by default; nobody listens on it while the service is off
};

// What doveconf(1) prints, with the names of the blocks before each name: "service auth/user". A value in
// quotes is without them.
Parameters ParseBlocks(const std::string& text) {
  Parameters found;
  std::vector<std::string> blocks = {""};
  for (std::string line : Lines(text)) {
    line.erase(0, line.find_first_not_of(' '));
    const size_t sign = line.find(" =");
    if (line == "}" && blocks.size() > 1) {
      blocks.pop_back();
    } else if (!line.empty() && line.back() == '{') {
      blocks.push_back(blocks.back() + line.substr(0, line.size() - 2) + "/");
    } else if (sign != std::string::npos) {
      std::string value = line.substr(std::min(sign + 3, line.size()));
      if (value.size() > 1 && value.front() == '"') value = value.substr(1, value.size() - 2);
      found[blocks.back() + line.substr(0, sign)] = value;
    }
  }
  return found;
}

void AskService(Observations& seen, const MailCheck& check, const Service& service, const std::string& port,
                const std::string& address, bool startTls) {
  const std::string what = std::string("Dovecot, ") + service.name;
  const auto nobody = [&](const std::string& place) {
    const Answer answer = Converse({service.name + ("://" + place), service.command});
    seen.push_back(
        {what + " at " + place, answer.refused, answer.refused ? "off" : "off, but: " + answer.said});
  };
  if (port == "0") {
    nobody(std::string("127.0.0.1:") + service.port);
    return;
  }
  const std::vector<std::string> addresses = Words(address);
  const bool here = addresses.empty() || Contains(addresses, "*") || Contains(addresses, "localhost");
  const std::string place = (here ? "127.0.0.1" : addresses[0]) + ":" + port;
  Ask(seen, check, what,
      {service.name + ("://" + place), service.command, startTls && std::string(service.name).back() != 's'});
  const std::string own = OwnAddress();
  if (address == "localhost" && !own.empty()) nobody(own + ":" + port);
}

}  // namespace

void CheckDovecot(Observations& seen, const MailCheck& check) {
  constexpr Service kServices[] = {{"imap", "imap", "NOOP", "143"},
                                   {"imaps", "imap", "NOOP", "993"},
                                   {"pop3", "pop3", "CAPA", "110"},
                                   {"pop3s", "pop3", "CAPA", "995"}};
  const ProgramResult asked = RunProgram(DaemonNamed("Dovecot").check);
  if (asked.status != 0) {
    seen.push_back({"Dovecot's configuration", false, asked.errors});
    return;
  }
  Parameters values = ParseBlocks(asked.output);
  for (const Service& service : kServices) {
    const std::string listener =
        std::string("service ") + service.protocol + "-login/inet_listener " + service.name + "/";
    const bool on = Contains(Words(values["protocols"]), service.protocol);
    values.insert({listener + "port", service.port});  // a default is not printed
    // Dovecot 2.3 has an address, 2.4 listens.
    AskService(seen, check, service, on ? values[listener + "port"] : "0",
               values[listener + "address"] + values[listener + "listen"], values["ssl"] != "no");
  }
}
