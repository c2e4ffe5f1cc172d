#include "checks/delivery.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <optional>

#include "checks/strangers.h"
#include "mail/daemons.h"
#include "system/address.h"
#include "system/program.h"
#include "system/text.h"
#include "system/wait.h"

namespace {

constexpr const char* kElsewhere = "postmaster@elsewhere.invalid";  // never exists: RFC 6761, section 6.4
constexpr std::chrono::seconds kDelivered(15);
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
  if (!message.ended) message.result.words = {"it is not taken into the queue"};
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
          return message.ended || (check_.isolated && late && !fatal_.empty() && message.result.Bad());
        });
      },
      kDelivered);
  CheckResults results;
  for (Message& message : messages_) {
    CheckResult& result = message.result;
    if (!message.ended && result.Bad()) result.words[0] += fatal_;
    if (result.grade == Grade::kGood && !message.user.empty() && check_.dovecot) FindInInbox(message);
    if (result.grade == Grade::kGood) result.sentence = "";
    results.push_back(result);
  }
  return results;
}

// Reads the lines that have come since the last time.
void Delivery::Read() {
  std::ifstream file(log_, std::ios::ate);
  if (file.tellg() < begin_) begin_ = 0;  // rotated
  file.seekg(begin_);
  for (std::string text; std::getline(file, text) && !file.eof();) {
    begin_ += static_cast<std::streamoff>(text.size() + 1);
    const std::optional<PostfixLogLine> line = ParsePostfixLogLine(text);
    if (!line) continue;
    // Anybody may write such a line into the log, so it is a reason and decides nothing.
    if (line->event == MailEvent::kFatal) fatal_ = "; " + line->said;
    if (line->queueId.empty()) continue;
    lines_[line->queueId].push_back(*line);
    for (Message& message : messages_) {
      if (line->event == MailEvent::kMessageId && line->messageId == message.id) {
        Begin(message, line->queueId);
      } else if (line->queueId == message.queueId) {
        Decide(message, *line);
      }
    }
  }
  if (std::none_of(messages_.begin(), messages_.end(),
                   [](const Message& message) { return message.held && !message.ended; }))
    return;
  // Again and again: a message that is still being written stays.
  RunProgram({"postsuper", "-c", kEtc, "-H", "ALL"});
  RunProgram({"postqueue", "-c", kEtc, "-f"});
}

// The message has got a queue ID: again, when an alias forwards it to another host.
void Delivery::Begin(Message& message, const std::string& queueId) {
  if (message.ended) return;
  message.queueId = queueId;
  message.result.grade = Grade::kBad;
  message.result.words = {"it waits in the queue"};
  message.held = false;
  for (const PostfixLogLine& line : lines_[queueId]) Decide(message, line);  // it may be held already
}

// What becomes of the message for its recipient. A copy for somebody else (always_bcc) does not count.
void Delivery::Decide(Message& message, const PostfixLogLine& line) {
  CheckResult& result = message.result;
  if (message.ended) return;
  if (line.event == MailEvent::kRejected) {
    result.words = {line.said};
    message.ended = true;
  } else if (line.event == MailEvent::kHeld) {
    result.words = {"held, for scanning"};
    result.grade = Grade::kGood;
    message.ended = !check_.isolated;
    message.held = true;
  } else if (line.event == MailEvent::kActive) {
    message.held = false;
  } else if (line.event == MailEvent::kRemoved) {
    result.grade = Grade::kGood;
    message.ended = true;
  } else if (line.event == MailEvent::kDelivery && (line.originalTo == message.to || line.to == message.to)) {
    const bool here = message.to == kElsewhere && IsOwn(listeners_, line.relay.host, line.relay.port);
    result.words = {"status=" + line.status + " " + line.reason};
    result.grade = line.status == "sent" && !here ? Grade::kGood : Grade::kBad;
    if (line.status == "deferred" && check_.isolated) result.grade = GradeOfDeferred(line);
    message.ended = true;
  }
}

// Of a message that waits for what is outside a rehearsal.
Grade Delivery::GradeOfDeferred(const PostfixLogLine& line) const {
  if (!EndsWith(line.program, "/smtp") && !EndsWith(line.program, "/lmtp")) {
    const bool directory = EndsWith(line.program, "/local") && Contains(main_.at("alias_maps"), "ldap:");
    return directory ? Grade::kNotAsked : Grade::kBad;
  }
  if (Contains(line.reason, "loops back to myself")) return Grade::kBad;
  const Peer& peer = line.unreachable;
  const bool remote = !IsLoopback(peer.host) && !Contains(OwnAddresses(), peer.host);
  if (peer.path.empty() && (peer.host.empty() || remote)) return Grade::kGood;
  return check_.runsOutside && check_.runsOutside(peer) ? Grade::kNotAsked : Grade::kBad;
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
