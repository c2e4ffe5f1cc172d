#include <algorithm>

#include "checks/mail_questions.h"
#include "checks/strangers.h"
#include "mail/daemons.h"
#include "mail/postfix_config.h"
#include "mail/smtp_listeners.h"
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

// What is asked of one service. `port` is "0" when it is off.
void AddService(std::vector<Inquiry>& inquiries, const MailCheck& check, const Service& service,
                const std::string& port, const std::string& address, bool tls) {
  const std::string begin = service.name + std::string("://");
  const auto nobody = [&](const std::string& place) {
    inquiries.push_back([=] {
      const Answer answer = Converse({begin + place, service.command});
      return Judge({Topic::kSwitchedOff, DaemonId::kDovecot, service.name, Asker::kMachine, place},
                   answer.refused, {answer.refused ? "off" : "off, but: " + answer.said},
                   "Others can use " + place + ", which is switched off.");
    });
  };
  if (port == "0") {
    nobody(std::string("127.0.0.1:") + service.port);
    return;
  }
  const std::vector<std::string> addresses = Words(address);
  const bool here = addresses.empty() || Contains(addresses, "*") || Contains(addresses, "localhost");
  const std::string place = InUrl(here ? "127.0.0.1" : addresses[0]) + ":" + port;
  const bool implicitTls = service.name != std::string(service.protocol);
  const bool startTls = tls && !implicitTls;
  Question question = {Topic::kGreeting,  DaemonId::kDovecot, service.name, Asker::kMachine, "",
                       tls || implicitTls};
  inquiries.push_back(AskThreeTimes(check, question, {begin + place, service.command, startTls},
                                    "Nobody can read mail on port " + port + "."));
  if (check.isolated) {
    Dialogue login = {begin + place, service.command, startTls};
    login.user = "rehearsal";
    if (place == "127.0.0.1:" + port) login.from = "127.0.1." + std::to_string(inquiries.size());
    question.topic = Topic::kLogin;
    question.by = Asker::kUser;
    inquiries.push_back([=] { return JudgeLogin(question, Converse(login)); });
  }
  std::vector<std::string> own = OwnAddresses();
  own.erase(std::remove_if(own.begin(), own.end(), [](const auto& one) { return Contains(one, ":"); }),
            own.end());
  if (address == "localhost" && !own.empty()) nobody(own[0] + ":" + port);
}

}  // namespace

std::vector<Inquiry> DovecotInquiries(const MailCheck& check) {
  constexpr Service kServices[] = {{"imap", "imap", "NOOP", "143"},
                                   {"imaps", "imap", "NOOP", "993"},
                                   {"pop3", "pop3", "CAPA", "110"},
                                   {"pop3s", "pop3", "CAPA", "995"}};
  const ProgramResult asked = RunProgram(DaemonNamed("Dovecot").check);
  if (asked.status != 0) {
    return {[why = asked.errors] {
      return Judge({Topic::kConfiguration, DaemonId::kDovecot}, false, Lines(why), "Dovecot does not run.");
    }};
  }
  Parameters values = ParseBlocks(asked.output);
  std::vector<Inquiry> inquiries;
  for (const Service& service : kServices) {
    const std::string listener =
        std::string("service ") + service.protocol + "-login/inet_listener " + service.name + "/";
    const bool on = Contains(Words(values["protocols"]), service.protocol);
    values.insert({listener + "port", service.port});  // a default is not printed
    // Dovecot 2.3 has an address, 2.4 listens.
    AddService(inquiries, check, service, on ? values[listener + "port"] : "0",
               values[listener + "address"] + values[listener + "listen"], values["ssl"] != "no");
  }
  return inquiries;
}
