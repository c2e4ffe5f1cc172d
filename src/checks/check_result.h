/// What is known of how mail is: a list of answers to questions. The preview compares that of the installed
/// files with that of the new ones, and apply that of before a change with that of after it.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "mail/daemons.h"

/// What is asked.
enum class Topic {
  kConfiguration,  ///< can the daemon read its files, by its own checker or when its listeners are looked for
  kStarts,         ///< does the daemon start, or run
  kStaysUp,        ///< does it still run at the end
  kLog,            ///< does its log tell of faults
  kGreeting,       ///< does a listener answer; with TLS if it begins with it
  kStartTls,       ///< does it offer STARTTLS, and does TLS work
  kSwitchedOff,    ///< does nobody answer where a listener is switched off
  kLogin,          ///< is a wrong password refused, by whom checks passwords
  kArrival,        ///< is mail from elsewhere taken
  kRelaying,       ///< is mail of those who may not send it passed on to other domains
  kTrustedNetworks,  ///< are the networks that may send without a login the administrator's own
  kRelayHost,        ///< is the relay host another machine
  kDelivery,         ///< what becomes of a message
  kPortOwner,        ///< is a port that a daemon asks held by whom it means
  kProgram,          ///< is a listener held by the daemon that reads these files
  kCertificate,      ///< is the certificate that a listener shows good
  kRoom,             ///< is there room for mail on the disk
  kPam,              ///< does the daemon ask the PAM services of this type of account
  kVersion           ///< is the version one that was tested
};

/// Who asks.
enum class Asker {
  kMachine,      ///< a program on this machine
  kStranger,     ///< a host on the Internet
  kLocalSender,  ///< such a host that claims a sender of this machine
  kNeighbour,    ///< a host in a private network
  kUser          ///< somebody who logs in
};

/// A question. Two are the same when all of their values are equal.
struct Question {
  Topic topic;
  DaemonId daemon;
  std::string listener{};  ///< its name in the daemon's files, or a port; empty where it is any or none
  Asker by = Asker::kMachine;
  /// The recipient, the network of who asks, the command of a checker, the name of a program, the address of
  /// a listener, or the protocol of STARTTLS.
  std::string to{};
  bool tls = false;
  bool six = false;  ///< over IPv6

  bool operator==(const Question& other) const;
};

/// The name of a question in reports, such as "Postfix, port 25, STARTTLS". Nothing compares it.
std::string Name(const Question& question);

/// How good an answer is.
enum class Grade {
  kGood,
  kBad,           ///< mail is broken, or the machine is open
  kWarning,       ///< allowed, but the administrator should know
  kNotAsked,      ///< could not be asked, or there was no answer that decides
  kNotInstalled,  ///< the program that would answer is missing
};

/// The word of a grade, such as "not asked".
const char* Word(Grade grade);

/// The answer to a question.
struct CheckResult {
  Question question;
  Grade grade;
  std::vector<std::string> words{};  ///< what the daemon said, or why it said nothing; may hold secrets
  std::string
      sentence{};       ///< who cannot do what, or who can; for people, may be empty; empty when it is good
  std::string place{};  ///< HOST:PORT of the listener that was asked, if one was
  std::string startTls{};  ///< the protocol in which TLS was begun by STARTTLS, if it was

  bool Bad() const { return grade == Grade::kBad; }

  /// The words in one text.
  std::string Said() const;
};

using CheckResults = std::vector<CheckResult>;

/// A result that is good or bad. `sentence` is kept when it is bad.
CheckResult Judge(const Question& question, bool good, const std::vector<std::string>& words,
                  const std::string& sentence = "");

/// One object for a result: "what" (its name), "state", "detail" (the words in one text), "consequence" (the
/// sentence), and "question", from which FromJson makes the same again.
Json::Value ToJson(const CheckResult& result);
Json::Value ToJson(const CheckResults& results);

/// The results that ToJson has written. Throws Fault for anything else.
CheckResults FromJson(const Json::Value& array);

/// An answer beside the one of before.
enum class Shift {
  kSame,       ///< neither is bad, and both have the same grade; or nobody had asked, and it is not bad
  kSoBefore,   ///< it is bad, and was so before
  kWorse,      ///< it is bad, and was not
  kOpened,     ///< it is bad: what was closed to somebody is open
  kDifferent,  ///< it is not bad, and has another grade
};

/// For each result of `after`, how it compares with `before`. A question that could not be asked before,
/// because its daemon or its listener did not answer, was bad then. It takes more for one whose bad answer
/// opens the machine: that has to have been open. A log is as it was when it has no new line.
std::vector<Shift> Compare(const CheckResults& before, const CheckResults& after);
