#include <algorithm>

#include "checks/mail_questions.h"
#include "checks/strangers.h"
#include "mail/dovecot_config.h"
#include "system/address.h"
#include "system/program.h"
#include "system/text.h"

namespace {

// What is asked of one listener.
void AddListener(std::vector<Inquiry>& inquiries, const MailCheck& check, const DovecotListener& listener) {
  const std::string begin = listener.protocol + (listener.implicitTls ? "s://" : "://");
  const char* const command = listener.protocol == "imap" ? "NOOP" : "CAPA";
  const auto nobody = [&](const std::string& place) {
    inquiries.push_back([=] {
      const Answer answer = Converse({begin + place, command});
      return Judge({Topic::kSwitchedOff, DaemonId::kDovecot, listener.name, Asker::kMachine, place},
                   answer.refused, {answer.refused ? "off" : "off, but: " + answer.said},
                   "Others can use " + place + ", which is switched off.");
    });
  };
  if (listener.port.empty()) {
    nobody("127.0.0.1:" + listener.usualPort);
    return;
  }
  const std::vector<std::string>& addresses = listener.addresses;
  const bool here = addresses.empty() || Contains(addresses, "*") || Contains(addresses, "localhost");
  const std::string place = InUrl(here ? "127.0.0.1" : addresses[0]) + ":" + listener.port;
  Question question = {Topic::kGreeting,
                       DaemonId::kDovecot,
                       listener.name,
                       Asker::kMachine,
                       "",
                       listener.startTls || listener.implicitTls};
  inquiries.push_back(AskThreeTimes(check, question, {begin + place, command, listener.startTls},
                                    "Nobody can read mail on port " + listener.port + "."));
  if (check.isolated) {
    Dialogue login = {begin + place, command, listener.startTls};
    login.user = "rehearsal";
    if (place == "127.0.0.1:" + listener.port) login.from = "127.0.1." + std::to_string(inquiries.size());
    question.topic = Topic::kLogin;
    question.by = Asker::kUser;
    inquiries.push_back([=] { return JudgeLogin(question, Converse(login)); });
  }
  std::vector<std::string> own = OwnAddresses();
  own.erase(std::remove_if(own.begin(), own.end(), [](const auto& one) { return Contains(one, ":"); }),
            own.end());
  if (addresses == std::vector<std::string>{"localhost"} && !own.empty())
    nobody(own[0] + ":" + listener.port);
}

}  // namespace

std::vector<Inquiry> DovecotInquiries(const MailCheck& check) {
  std::vector<Inquiry> inquiries;
  try {
    for (const DovecotListener& one : DovecotListeners(ReadDovecot())) AddListener(inquiries, check, one);
  } catch (const Fault& fault) {
    inquiries.emplace_back([why = std::string(fault.what())] {
      return Judge({Topic::kConfiguration, DaemonId::kDovecot}, false, Lines(why), "Dovecot does not run.");
    });
  }
  return inquiries;
}
