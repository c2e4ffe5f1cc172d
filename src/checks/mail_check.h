/// Uses the mail system as its users would: real dialogues on every listener, and a message that is followed
/// to its mailbox. A check that only connects to a port would miss most faults.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "mail/configuration.h"

/// One question, and what was seen.
struct MailObservation {
  enum State {
    kGood,
    kBad,      ///< mail is broken, or the machine is open
    kWarning,  ///< allowed, but the administrator should know
    kNotAsked  ///< could not be asked, or there was no answer that decides
  };

  /// With the state kGood or kBad.
  MailObservation(std::string name, bool good, std::string answer, std::string who = "")
      : MailObservation(std::move(name), good ? kGood : kBad, std::move(answer), std::move(who)) {}
  MailObservation(std::string name, State seen, std::string answer, std::string who = "")
      : what(std::move(name)),
        state(seen),
        detail(std::move(answer)),
        consequence(seen == kGood ? "" : std::move(who)) {}

  bool Bad() const { return state == kBad; }

  std::string what;  ///< its name, the same in every check, so that two checks can be compared
  State state;
  std::string detail;  ///< the server's answer, or why there was none
  std::string
      consequence;         ///< one sentence when it is not good: who cannot do what, or who can; may be empty
  std::string place{};     ///< HOST:PORT of the listener that was asked, if one was
  std::string startTls{};  ///< the protocol in which TLS was begun by STARTTLS
  bool tls = false;        ///< it was asked under TLS
};

/// What to check.
struct MailCheck {
  bool postfix = true;               ///< check Postfix
  bool dovecot = true;               ///< check Dovecot
  bool isolated = false;             ///< a rehearsal, see below
  std::string subject;               ///< subject of the message to postmaster; empty: none is sent
  std::string text;                  ///< its body: lines that end in newlines
  std::vector<std::string> users{};  ///< of this machine, who get mail and read it; in a rehearsal
  /// True when what Postfix could not reach is a program outside the rehearsal: `place` is an address and a
  /// port, "127.0.0.1:10024", or the path of a socket.
  std::function<bool(const std::string& place)> runsOutside{};
};

/// Checks the daemons that run with the files in target/etc, on this machine's own addresses:
/// - each listener of master.cf that speaks SMTP: banner, EHLO, and TLS or STARTTLS where it is on;
/// - as a stranger, from an address outside mynetworks if inet_interfaces allows one: mail to postmaster is
///   accepted, and mail to another domain refused;
/// - a message to postmaster, handed in with sendmail(1) and followed in maillog_file: it has to be delivered
///   or held for scanning;
/// - each of Dovecot's four listeners: it has to answer when it is on; nothing may answer when it is off.
/// The check waits at most 5 seconds for an answer and 15 for a delivery.
///
/// In a rehearsal there is no network, and what waits for DNS, a directory or another host is not decided.
/// The addresses of Strangers (strangers.h) are routed to this machine, and these are asked too:
/// - strangers, with and without STARTTLS, over IPv4 and IPv6: each domain and user is reached; nobody on the
///   Internet or in a private network, also who claims a local sender, may send elsewhere;
/// - a login with a wrong password is refused, on each port that offers it, by whom checks passwords;
/// - a message to another host leaves as far as it gets; one to each of the users is delivered, and Dovecot
///   finds it in the user's INBOX.
std::vector<MailObservation> CheckMail(const MailCheck& check);

/// Whether the ports of this machine that Postfix with these parameters asks about each message are in the
/// hands of those whom it means: the milters, and the cache of the senders' quotas. One observation for each
/// of them; that nobody listens is good here.
std::vector<MailObservation> CheckPorts(const Parameters& mainCf);
