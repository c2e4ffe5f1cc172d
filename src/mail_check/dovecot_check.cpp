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
  const char* port;  // on which nobody listens while the service is off
};

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
  std::vector<std::string> command = {"doveconf", "-c", DaemonNamed("Dovecot").configuration, "ssl",
                                      "protocols"};
  const auto place = [](const Service& service) {
    return std::string("service/") + service.protocol + "-login/inet_listener/" + service.name;
  };
  for (const Service& service : kServices) {
    command.push_back(place(service) + "/port");
    command.push_back(place(service) + "/address");
  }
  const ProgramResult asked = RunProgram(command);
  if (asked.status != 0) {
    seen.push_back({"Dovecot's configuration", false, asked.errors});
    return;
  }
  Parameters values = ParseParameters(asked.output);
  for (const Service& service : kServices) {
    const bool on = Contains(Words(values["protocols"]), service.protocol);
    AskService(seen, check, service, on ? values[place(service) + "/port"] : "0",
               values[place(service) + "/address"], values["ssl"] != "no");
  }
}
