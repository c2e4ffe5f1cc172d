/// Questions of people on other machines: strangers who send mail here, or elsewhere, and users who log in.
#pragma once

#include <string>
#include <vector>

#include "checks/mail_questions.h"
#include "mail/smtp_listeners.h"

/// Addresses that are nobody's: reserved for examples and measurements (RFC 5737, RFC 2544, RFC 3849), and
/// one in each private range (RFC 1918, RFC 4193). A rehearsal's network routes them to the machine itself.
struct OutsideAddresses {
  static const std::vector<std::string>& All();
  static std::string Users();           ///< the network of people who log in
  static std::string User(int number);  ///< an address in it for each, since Dovecot lets an address wait
};

/// Who reaches what, and who is let through to other domains, on all listeners.
std::vector<Inquiry> StrangerInquiries(const std::vector<SmtpListener>& listeners, const Parameters& main,
                                       const MailCheck& check);

/// Whether mynetworks trusts a network that is no administrator's own.
CheckResult JudgeNetworks(const Parameters& main, bool isolated);

/// A login on each listener that offers it, with a password that is wrong.
std::vector<Inquiry> LoginInquiries(const std::vector<SmtpListener>& listeners);

/// Judges the answer to a login with a wrong password.
CheckResult JudgeLogin(const Question& question, const Answer& answer);
