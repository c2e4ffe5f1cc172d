/// What the checks of Postfix and of Dovecot share.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "checks/mail_check.h"
#include "checks/mail_dialogue.h"
#include "mail/configuration.h"

using Observations = std::vector<MailObservation>;

/// Asks something, and judges the answer. Runs in a thread, and starts no process.
using Question = std::function<MailObservation()>;

/// The question whether a dialogue goes well, three times or until it fails. (After a failed reload an old
/// process may share the port and take some of the connections. In a rehearsal there is none, and it is asked
/// once.) `consequence` is said when it fails.
Question Asks(const MailCheck& check, const std::string& what, const Dialogue& dialogue,
              const std::string& consequence);

/// Asks questions in the background, some at a time.
class Asking {
 public:
  explicit Asking(const std::vector<Question>& questions);

  /// Waits for the answers, and adds what was seen, in the order of the questions. Call it once.
  void Wait(Observations& seen);

 private:
  std::vector<Question> questions_;
  std::vector<std::optional<MailObservation>> answers_;
  std::atomic<size_t> next_ = 0;
  std::vector<std::thread> threads_;
};

void CheckPostfix(Observations& seen, const MailCheck& check);

/// The questions about Dovecot's listeners.
std::vector<Question> DovecotQuestions(const MailCheck& check);
