#include "mail_check/mail_check.h"

#include "mail_check/mail_questions.h"
#include "system/program.h"
#include "system/text.h"

namespace {

constexpr int kTries = 3;

}  // namespace

bool Ask(Observations& seen, const MailCheck& check, const std::string& what, const Dialogue& dialogue) {
  Answer answer = Converse(dialogue);
  for (int count = 1; count < kTries && answer.good && !check.isolated; ++count) answer = Converse(dialogue);
  seen.push_back({what, answer.good, answer.said});
  const size_t begin = dialogue.url.find("://");
  const std::string protocol = dialogue.url.substr(0, begin);
  MailObservation& last = seen.back();
  last.place = dialogue.url.substr(begin + 3, dialogue.url.find('/', begin + 3) - begin - 3);
  last.tls = dialogue.startTls || protocol.back() == 's';
  if (dialogue.startTls) last.startTls = protocol;
  return answer.good;
}

std::vector<std::string> OwnAddresses() {
  std::vector<std::string> found;
  for (const std::string& line :
       Lines(RunProgram({"ip", "-o", "addr", "show", "up", "scope", "global"}).output)) {
    const std::vector<std::string> words = Words(line);  // number, interface, family, ADDRESS/BITS, ...
    if (words.size() > 3) found.push_back(words[3].substr(0, words[3].find('/')));
  }
  return found;
}

std::string OwnAddress() {
  for (const std::string& address : OwnAddresses()) {
    if (address.find(':') == std::string::npos) return address;
  }
  return "";
}

std::vector<MailObservation> CheckMail(const MailCheck& check) {
  Observations seen;
  if (check.postfix) CheckPostfix(seen, check);
  if (check.dovecot) CheckDovecot(seen, check);
  return seen;
}
