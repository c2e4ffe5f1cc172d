/// Uses the mail system as its users would: real dialogues on every listener, and a message that is followed
/// to its mailbox. A check that only connects to a port would miss most faults.
#pragma once

#include <string>
#include <vector>

/// One thing that was tried. `what` is its name, the same in every check, so that two checks can be compared.
/// `detail` is what was seen: the server's answer, or why there was none.
struct MailObservation {
  std::string what;
  bool good;
  std::string detail;
};

/// What to check.
struct MailCheck {
  bool postfix = true;    ///< check Postfix
  bool dovecot = true;    ///< check Dovecot
  bool isolated = false;  ///< there is no network: what waits for DNS, a directory or another host is good
  std::string subject;    ///< subject of the message to postmaster
  std::string text;       ///< its body: lines that end in newlines
};

/// Checks the daemons that run with the files in target/etc, on this machine's own addresses:
/// - each listener of master.cf that speaks SMTP: banner, EHLO, and TLS or STARTTLS where it is on;
/// - as a stranger, from an address outside mynetworks if inet_interfaces allows one: mail to postmaster is
///   accepted, and mail to another domain refused;
/// - a message to postmaster, handed in with sendmail(1) and followed in maillog_file: it has to be delivered
///   or held for scanning;
/// - each of Dovecot's four listeners: it has to answer when it is on; nothing may answer when it is off.
/// The check waits at most 5 seconds for an answer and 15 for a delivery.
std::vector<MailObservation> CheckMail(const MailCheck& check);
