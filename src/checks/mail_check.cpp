#include "checks/mail_check.h"

#include <curl/curl.h>

#include <algorithm>

#include "checks/mail_questions.h"

namespace {

constexpr int kTries = 3;
constexpr size_t kAtATime = 6;  // they wait for the daemons, most of the time

}  // namespace

Inquiry AskThreeTimes(const MailCheck& check, const Question& question, const Dialogue& dialogue,
                      const std::string& sentence) {
  const int tries = check.isolated ? 1 : kTries;
  return [=] {
    Answer answer = Converse(dialogue);
    for (int count = 1; count < tries && answer.good; ++count) answer = Converse(dialogue);
    CheckResult result = Judge(question, answer.good, {answer.said}, sentence);
    const size_t begin = dialogue.url.find("://");
    result.place = dialogue.url.substr(begin + 3, dialogue.url.find('/', begin + 3) - begin - 3);
    if (dialogue.startTls) result.startTls = dialogue.url.substr(0, begin);
    return result;
  };
}

Inquiries::Inquiries(const std::vector<Inquiry>& all) : inquiries_(all), answers_(all.size()) {
  const auto work = [this] {
    for (size_t one; (one = next_++) < inquiries_.size();) answers_[one] = inquiries_[one]();
  };
  for (size_t i = 0; i < std::min(kAtATime, inquiries_.size()); ++i) threads_.emplace_back(work);
}

void Inquiries::Wait(CheckResults& results) {
  for (std::thread& thread : threads_) thread.join();
  for (const std::optional<CheckResult>& answer : answers_) results.push_back(*answer);
}

CheckResults CheckMail(const MailCheck& check) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CheckResults results;
  Inquiries dovecot(check.dovecot ? DovecotInquiries(check) : std::vector<Inquiry>());
  if (check.postfix) CheckPostfix(results, check);
  dovecot.Wait(results);
  return results;
}
