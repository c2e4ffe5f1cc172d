/// Uses the mail system as its users would: real dialogues on every listener, and a message that is followed
/// to its mailbox. A check that only connects to a port would miss most faults.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "checks/check_result.h"
#include "mail/postfix_config.h"

/// What to check.
struct MailCheck {
  bool postfix = true;               ///< check Postfix
  bool dovecot = true;               ///< check Dovecot
  bool isolated = false;             ///< a rehearsal, see below
  std::string subject;               ///< subject of the message to postmaster; empty: none is sent
  std::string text;                  ///< its body: lines that end in newlines
  std::vector<std::string> users{};  ///< of this machine, who get mail and read it; in a rehearsal
  /// True when what Postfix could not reach is a program outside the rehearsal, at an address and
  /// a port, or at the path of a socket.
  std::function<bool(const Peer& peer)> runsOutside{};
};

/// Checks the daemons that run with the files in target/etc, on this machine's own addresses:
/// - each listener of master.cf that speaks SMTP: banner, EHLO, and TLS or STARTTLS where it is on;
/// - as a stranger, from an address outside mynetworks if inet_interfaces allows one: mail to postmaster is
///   accepted, and mail to another domain refused;
/// - a message to postmaster, handed in with sendmail(1) and followed in maillog_file: it has to be delivered
///   or held for scanning;
/// - each of Dovecot's four listeners: it has to answer when it is on; nothing may answer when it is off.
/// The check waits at most 5 seconds for an answer, and for a delivery 15.
///
/// In a rehearsal there is no network, and what waits for DNS, a directory or another host is not decided.
/// The OutsideAddresses (strangers.h) are routed to this machine, and these are asked too:
/// - strangers, with and without STARTTLS, over IPv4 and IPv6: each domain and user is reached; nobody on the
///   Internet or in a private network, also who claims a local sender, may send elsewhere;
/// - a login with a wrong password is refused, on each port that offers it, by whom checks passwords;
/// - a message to another host leaves as far as it gets; one to each of the users is delivered, and Dovecot
///   finds it in the user's INBOX.
CheckResults CheckMail(const MailCheck& check);

/// Whether the ports of this machine that Postfix with these parameters asks about each message are in the
/// hands of those whom it means: the milters, and the cache of the senders' quotas. One result for each of
/// them; that nobody listens is good here.
CheckResults CheckPorts(const Parameters& mainCf);
