#include "checks/delivery.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <regex>

#include "checks/strangers.h"
#include "mail/daemons.h"
#include "system/program.h"
#include "system/text.h"
#include "system/wait.h"

namespace {

constexpr const char* kElsewhere = "postmaster@elsewhere.invalid";  // never exists: RFC 6761, section 6.4
constexpr std::chrono::seconds kDelivery(15);
constexpr std::chrono::seconds kAfterFault(3);  // a fatal error may belong to another message

}  // namespace

Delivery::Delivery(const MailCheck& check, const Parameters& main, const std::vector<SmtpListener>& listeners)
    : check_(check),
      main_(main),
      listeners_(listeners),
      log_(main.at("maillog_file")),
      begin_(std::max<std::streamoff>(std::ifstream(log_, std::ios::ate).tellg(), 0)) {
  if (check.subject.empty()) return;
  HandIn("", "postmaster", "Mail to postmaster is not delivered.");
  if (!check.isolated) return;
  HandIn("another host", kElsewhere, "Nobody can send mail to other hosts.");
  for (const std::string& user : check.users) {
    HandIn(user, user + "@" + LocalDomains(main)[0], "New mail does not reach " + user + ".");
    messages_.back().user = user;
  }
}

void Delivery::HandIn(const std::string& name, const std::string& to, const std::string& sentence) {
  const std::string id = "<" + std::to_string(std::chrono::system_clock::now().time_since_epoch().count()) +
                         "." + std::to_string(getpid()) + "@" + main_.at("myhostname") + ">";
  const ProgramResult handedIn =
      RunProgram({"sendmail", "-C", kEtc, "-i", "-f", "postmaster", to},
                 "From: postmaster\nTo: " + to + "\nSubject: " + check_.subject + "\nMessage-ID: " + id +
                     "\nAuto-Submitted: auto-generated\n\n" + check_.text);
  const Question question = {Topic::kDelivery, DaemonId::kPostfix, "", Asker::kMachine, name};
  Message message = {{question, Grade::kBad, Lines(handedIn.errors), sentence}, to, id, ""};
  message.ended = handedIn.status != 0;
  if (!message.ended && log_.empty()) {
    message.result.grade = check_.isolated ? Grade::kNotAsked : Grade::kGood;
    message.result.words = {"handed in, and not followed, since maillog_file is empty"};
    message.ended = true;
  }
  messages_.push_back(message);
}

CheckResults Delivery::Follow() {
  const auto start = std::chrono::steady_clock::now();
  WaitFor(
      [&] {
        Read();
        const bool late = std::chrono::steady_clock::now() > start + kAfterFault;
        return std::all_of(messages_.begin(), messages_.end(), [&](const Message& message) {
          return message.ended || (check_.isolated && late && Contains(message.result.Said(), "fatal: "));
        });
      },
      kDelivery);
  CheckResults results;
  for (Message& message : messages_) {
    CheckResult& result = message.result;
    if (result.grade == Grade::kGood && !message.user.empty() && check_.dovecot) FindInInbox(message);
    if (result.grade == Grade::kGood) result.sentence = "";
    results.push_back(result);
  }
  return results;
}

void Delivery::Read() {
  std::ifstream file(log_);
  file.seekg(begin_);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  held_ = false;
  for (Message& message : messages_) {
    if (!message.ended) Decide(message, lines);
  }
  if (!held_) return;
  // Again and again: a message that is still being written stays.
  RunProgram({"postsuper", "-c", kEtc, "-H", "ALL"});
  RunProgram({"postqueue", "-c", kEtc, "-f"});
}

// Reads in the log what became of the message for its recipient. A copy for somebody else (always_bcc) does
// not count. Anybody may write a line with "fatal: " into the log, so such a line is a reason and no verdict.
void Delivery::Decide(Message& message, const std::vector<std::string>& lines) {
  CheckResult& result = message.result;
  std::string queueId;  // the last: what an alias forwards to another host gets another
  std::string fatal;
  std::smatch match;
  for (const std::string& line : lines) {
    const size_t end = line.find(": message-id=" + message.id);
    if (end != std::string::npos) queueId = line.substr(0, end).substr(line.rfind(' ', end) + 1);
    if (std::regex_search(line, match, std::regex("\\[[0-9]+\\]: (fatal: .*)")))
      fatal = "; " + match[1].str();
  }
  result.grade = Grade::kBad;
  result.words = {(queueId.empty() ? "it is not taken into the queue" : "it waits in the queue") + fatal};
  bool held = false;
  for (const std::string& line : lines) {
    if (queueId.empty() || !Contains(line, ' ' + queueId + ": ")) continue;
    if (std::regex_search(line, match, std::regex(": milter-reject: .*"))) {
      result.words = {match.str().substr(2)};
      message.ended = true;
    } else if (Contains(line, ": hold: ")) {
      result.words = {"held, for scanning"};
      result.grade = Grade::kGood;
      message.ended = !check_.isolated;
      held = true;
    } else if (Contains(line, " (queue active)")) {
      held = false;
    } else if (Contains(line, ": removed")) {
      result.grade = Grade::kGood;
      message.ended = true;
    } else if ((Contains(line, " orig_to=<" + message.to + ">,") ||
                Contains(line, " to=<" + message.to + ">,")) &&
               std::regex_search(line, match, std::regex("status=(sent|deferred|bounced|expired) .*"))) {
      result.words = {match[0]};
      if (match[1] == "sent" && !(message.to == kElsewhere && IsHere(line))) result.grade = Grade::kGood;
      if (match[1] == "deferred") Deferred(message, line);
      message.ended = true;
    }
    if (message.ended) return;
  }
  held_ = held_ || (held && check_.isolated);
}

// A message that waits for what is outside a rehearsal.
void Delivery::Deferred(Message& message, const std::string& line) {
  if (!check_.isolated) return;
  std::smatch match;
  const bool client = Contains(line, "/smtp[") || Contains(line, "/lmtp[");
  if (!client) {
    if (Contains(main_.at("alias_maps"), "ldap:") && Contains(line, "/local["))
      message.result.grade = Grade::kNotAsked;
    return;
  }
  if (Contains(line, "loops back to myself")) return;
  message.result.grade = Grade::kGood;
  if (!std::regex_search(line, match, std::regex("connect to [^\\[]*\\[([^\\]]*)\\]:?(\\d*): "))) return;
  const std::string address = match[1];
  const bool path = Contains(address, "/");
  if (!path && !IsLoopback(address) && !Contains(OwnAddresses(), address)) return;
  const std::string place = path ? address : address + ":" + match[2].str();
  message.result.grade = check_.runsOutside && check_.runsOutside(place) ? Grade::kNotAsked : Grade::kBad;
}

// True when the line says that the message went to one of this Postfix's own listeners.
bool Delivery::IsHere(const std::string& line) const {
  std::smatch match;
  if (!std::regex_search(line, match, std::regex("relay=[^\\[,]*\\[([^\\]]*)\\]:(\\d+)"))) return false;
  return IsOwn(listeners_, match[1], match[2]);
}

void Delivery::FindInInbox(Message& message) const {
  const ProgramResult found =
      RunProgram({kSbin + "/doveadm", "mailbox", "status", "-u", message.user, "messages", "INBOX"});
  if (found.status == 0 && !Contains(found.output, "messages=0")) return;
  message.result = {
      message.result.question, Grade::kBad,
      found.status != 0
          ? Lines(found.errors)
          : std::vector<std::string>{"Postfix has delivered it, and Dovecot does not find it in the INBOX"},
      "New mail is not seen by " + message.user + "."};
}
