#include <algorithm>

#include "mail_check/delivery.h"
#include "mail_check/mail_questions.h"
#include "mail_check/smtp_listeners.h"
#include "mail_check/strangers.h"
#include "system/program.h"
#include "system/text.h"

namespace {

// Banner and EHLO of a listener, and its TLS.
void AddListener(std::vector<Question>& questions, const MailCheck& check, const SmtpListener& listener) {
  const std::string what = "Postfix, port " + listener.name;
  const std::string url = listener.Url(listener.here) + "localhost";
  const std::string nobody = "Nobody can use port " + listener.name;
  questions.push_back(Asks(check, what + (listener.wrapped ? ", TLS" : ""), {url, "NOOP"}, nobody + "."));
  if (listener.startTls)
    questions.push_back(Asks(check, what + ", STARTTLS", {url, "NOOP", true}, nobody + " with TLS."));
}

}  // namespace

void CheckPostfix(Observations& seen, const MailCheck& check) {
  Parameters main;
  std::vector<SmtpListener> listeners;
  try {
    main = PostfixParameters(kEtc);
    listeners = SmtpListeners(main);
  } catch (const Fault& fault) {
    seen.emplace_back("Postfix's configuration", false, fault.what(), "Postfix does not run.");
    return;
  }
  std::vector<Question> first;
  for (const SmtpListener& listener : listeners) AddListener(first, check, listener);
  Asking(first).Wait(seen);
  // A listener that does not even greet is not asked further.
  const auto silent = [&](const SmtpListener& listener) {
    return std::any_of(seen.begin(), seen.end(), [&](const MailObservation& one) {
      const std::string what = "Postfix, port " + listener.name;
      return one.Bad() && (one.what == what || one.what == what + ", TLS");
    });
  };
  listeners.erase(std::remove_if(listeners.begin(), listeners.end(), silent), listeners.end());
  if (listeners.empty()) {
    seen.emplace_back("a message from this machine", false, "no listener answers",
                      "Postfix does not take mail.");
    return;
  }
  Delivery delivery(check, main, listeners);
  std::vector<Question> second = StrangerQuestions(listeners, main, check);
  if (check.isolated) {
    for (const Question& question : LoginQuestions(listeners)) second.push_back(question);
  }
  seen.push_back(JudgeNetworks(main, check.isolated));
  Asking asking(second);
  Observations messages;
  delivery.Follow(messages);
  asking.Wait(seen);
  seen.insert(seen.end(), messages.begin(), messages.end());
}
