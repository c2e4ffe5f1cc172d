/// Uses the mail system as its users would: real dialogues on every listener, and a message that is followed
/// to its mailbox. A check that only connects to a port would miss most faults.
#pragma once

#include <string>
#include <utility>
#include <vector>

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
      : what(std::move(name)), state(seen), detail(std::move(answer)), consequence(std::move(who)) {}

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
  bool postfix = true;    ///< check Postfix
  bool dovecot = true;    ///< check Dovecot
  bool isolated = false;  ///< there is no network: what waits for DNS, a directory or another host is good
  std::string subject;    ///< subject of the message to postmaster; empty: none is sent
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
