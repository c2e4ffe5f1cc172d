/// Messages that are followed through Postfix's log.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "checks/mail_questions.h"
#include "mail/postfix_log.h"
#include "mail/smtp_listeners.h"

/// Hands in a message to postmaster, and in a rehearsal to each user and to another host. Call Follow() once
/// other questions have been asked meanwhile.
class Delivery {
 public:
  Delivery(const MailCheck& check, const Parameters& main, const std::vector<SmtpListener>& listeners);

  /// Waits until it is decided what becomes of the messages, and returns that.
  CheckResults Follow();

 private:
  struct Message {
    CheckResult result;
    std::string to;
    std::string id;    // Message-ID
    std::string user;  // of this machine, if it is to one
    std::string queueId{};
    bool held = false;
    bool ended = false;
  };

  void HandIn(const std::string& name, const std::string& to, const std::string& sentence);
  void Read();
  void Begin(Message& message, const std::string& queueId);
  void Decide(Message& message, const PostfixLogLine& line);
  Grade GradeOfDeferred(const PostfixLogLine& line) const;
  void FindInInbox(Message& message) const;

  const MailCheck& check_;
  const Parameters& main_;
  const std::vector<SmtpListener>& listeners_;
  std::string log_;
  std::streamoff begin_;                                      // of what is not read yet
  std::string fatal_;                                         // the last error that ended a program
  std::map<std::string, std::vector<PostfixLogLine>> lines_;  // by queue ID
  std::vector<Message> messages_;
};
