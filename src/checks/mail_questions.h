/// What the checks of Postfix and of Dovecot share.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "checks/mail_check.h"
#include "checks/mail_dialogue.h"

/// Asks a question, and judges the answer. Runs in a thread, and starts no process.
using Inquiry = std::function<CheckResult()>;

/// The inquiry whether a dialogue goes well, three times or until it fails. (After a failed reload an old
/// process may share the port and take some of the connections. In a rehearsal there is none, and it is asked
/// once.) `sentence` is said when it fails.
Inquiry AskThreeTimes(const MailCheck& check, const Question& question, const Dialogue& dialogue,
                      const std::string& sentence);

/// Asks in the background, some questions at a time.
class Inquiries {
 public:
  explicit Inquiries(const std::vector<Inquiry>& all);

  /// Waits for the answers, and adds them, in the order of the questions. Call it once.
  void Wait(CheckResults& results);

 private:
  std::vector<Inquiry> inquiries_;
  std::vector<std::optional<CheckResult>> answers_;
  std::atomic<size_t> next_ = 0;
  std::vector<std::thread> threads_;
};

void CheckPostfix(CheckResults& results, const MailCheck& check);

/// What is asked at Dovecot's listeners.
std::vector<Inquiry> DovecotInquiries(const MailCheck& check);
