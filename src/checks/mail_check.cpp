#include "checks/mail_check.h"

#include <curl/curl.h>

#include <algorithm>

#include "checks/mail_questions.h"

namespace {

constexpr int kTries = 3;
constexpr size_t kAtATime = 6;  // they wait for the daemons, most of the time

}  // namespace

Question Asks(const MailCheck& check, const std::string& what, const Dialogue& dialogue,
              const std::string& consequence) {
  const int tries = check.isolated ? 1 : kTries;
  return [=] {
    Answer answer = Converse(dialogue);
    for (int count = 1; count < tries && answer.good; ++count) answer = Converse(dialogue);
    MailObservation seen(what, answer.good, answer.said, consequence);
    const size_t begin = dialogue.url.find("://");
    const std::string protocol = dialogue.url.substr(0, begin);
    seen.place = dialogue.url.substr(begin + 3, dialogue.url.find('/', begin + 3) - begin - 3);
    seen.tls = dialogue.startTls || protocol.back() == 's';
    if (dialogue.startTls) seen.startTls = protocol;
    return seen;
  };
}

Asking::Asking(const std::vector<Question>& questions) : questions_(questions), answers_(questions.size()) {
  const auto work = [this] {
    for (size_t one; (one = next_++) < questions_.size();) answers_[one] = questions_[one]();
  };
  for (size_t i = 0; i < std::min(kAtATime, questions_.size()); ++i) threads_.emplace_back(work);
}

void Asking::Wait(Observations& seen) {
  for (std::thread& thread : threads_) thread.join();
  for (const std::optional<MailObservation>& answer : answers_) seen.push_back(*answer);
}

std::vector<MailObservation> CheckMail(const MailCheck& check) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  Observations seen;
  Asking dovecot(check.dovecot ? DovecotQuestions(check) : std::vector<Question>());
  if (check.postfix) CheckPostfix(seen, check);
  dovecot.Wait(seen);
  return seen;
}
