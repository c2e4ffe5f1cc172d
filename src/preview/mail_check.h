/// Asks the mail system what its users would ask: by real dialogues on every listener, and by a message that
/// is followed to its mailbox. What only connects to a port misses most faults.
#pragma once

#include <string>
#include <vector>

/// One thing that was tried. `what` names it, the same in every check, so that two checks can be compared;
/// `detail` is what was seen: the server's own answer, or why there was none.
struct MailObservation {
  std::string what;
  bool good;
  std::string detail;
};

/// What is to be asked.
struct MailCheck {
  bool postfix = true;    ///< ask Postfix
  bool dovecot = true;    ///< ask Dovecot
  bool isolated = false;  ///< there is no network: what waits for DNS, a directory or another host is good
  std::string subject;    ///< of the message to postmaster
  std::string text;       ///< the body of it, lines that end in newlines
};

/// Asks the daemons that run on the files in target/etc, on this machine's own addresses:
/// - each listener of master.cf that speaks SMTP: banner, EHLO, and TLS or STARTTLS where it is on;
/// - as a stranger, from an address that is not among mynetworks (where inet_interfaces lets one in): mail to
///   postmaster has to be taken, mail to another domain refused;
/// - a message to postmaster, handed in by sendmail(1) and followed in maillog_file: it has to be delivered,
/// or
///   held for scanning;
/// - each of Dovecot's four listeners: it answers where it is on, and nothing does where it is off.
/// A daemon that does not answer is waited for 5 seconds, a delivery 15.
std::vector<MailObservation> CheckMail(const MailCheck& check);
