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
  HandIn("a message from this machine", "postmaster", "Mail to postmaster is not delivered.", false);
  if (!check.isolated) return;
  HandIn("a message to another host", "postmaster@elsewhere.invalid",  // RFC 6761, section 6.4
         "Nobody can send mail to other hosts.", true);
  for (const std::string& user : check.users) {
    HandIn("a message to " + user, user + "@" + LocalDomains(main)[0],
           "New mail does not reach " + user + ".", false);
    messages_.back().user = user;
  }
}

void Delivery::HandIn(const std::string& what, const std::string& to, const std::string& consequence,
                      bool elsewhere) {
  const std::string id = "<" + std::to_string(std::chrono::system_clock::now().time_since_epoch().count()) +
                         "." + std::to_string(getpid()) + "@" + main_.at("myhostname") + ">";
  const ProgramResult handedIn =
      RunProgram({"sendmail", "-C", kEtc, "-i", "-f", "postmaster", to},
                 "From: postmaster\nTo: " + to + "\nSubject: " + check_.subject + "\nMessage-ID: " + id +
                     "\nAuto-Submitted: auto-generated\n\n" + check_.text);
  Message message = {{what, false, handedIn.errors, consequence}, to, id, "", elsewhere};
  message.ended = handedIn.status != 0;
  if (!message.ended && log_.empty()) {
    message.seen.state = check_.isolated ? MailObservation::kNotAsked : MailObservation::kGood;
    message.seen.detail = "handed in, and not followed, since maillog_file is empty";
    message.ended = true;
  }
  messages_.push_back(message);
}

void Delivery::Follow(Observations& seen) {
  const auto start = std::chrono::steady_clock::now();
  WaitFor(
      [&] {
        Read();
        const bool late = std::chrono::steady_clock::now() > start + kAfterFault;
        return std::all_of(messages_.begin(), messages_.end(), [&](const Message& message) {
          return message.ended || (check_.isolated && late && Contains(message.seen.detail, "fatal: "));
        });
      },
      kDelivery);
  for (Message& message : messages_) {
    if (message.seen.state == MailObservation::kGood && !message.user.empty() && check_.dovecot)
      FindInInbox(message);
    if (message.seen.state == MailObservation::kGood) message.seen.consequence = "";
    seen.push_back(message.seen);
  }
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
  MailObservation& seen = message.seen;
  std::string queueId;  // the last: what an alias forwards to another host gets another
  std::string fatal;
  std::smatch match;
  for (const std::string& line : lines) {
    const size_t end = line.find(": message-id=" + message.id);
    if (end != std::string::npos) queueId = line.substr(0, end).substr(line.rfind(' ', end) + 1);
    if (std::regex_search(line, match, std::regex("\\[[0-9]+\\]: (fatal: .*)")))
      fatal = "; " + match[1].str();
  }
  seen.state = MailObservation::kBad;
  seen.detail = (queueId.empty() ? "it is not taken into the queue" : "it waits in the queue") + fatal;
  bool held = false;
  for (const std::string& line : lines) {
    if (queueId.empty() || !Contains(line, ' ' + queueId + ": ")) continue;
    if (std::regex_search(line, match, std::regex(": milter-reject: .*"))) {
      seen.detail = match.str().substr(2);
      message.ended = true;
    } else if (Contains(line, ": hold: ")) {
      seen.detail = "held, for scanning";
      seen.state = MailObservation::kGood;
      message.ended = !check_.isolated;
      held = true;
    } else if (Contains(line, " (queue active)")) {
      held = false;
    } else if (Contains(line, ": removed")) {
      seen.state = MailObservation::kGood;
      message.ended = true;
    } else if ((Contains(line, " orig_to=<" + message.to + ">,") ||
                Contains(line, " to=<" + message.to + ">,")) &&
               std::regex_search(line, match, std::regex("status=(sent|deferred|bounced|expired) .*"))) {
      seen.detail = match[0];
      if (match[1] == "sent" && !(message.elsewhere && IsHere(line))) seen.state = MailObservation::kGood;
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
      message.seen.state = MailObservation::kNotAsked;
    return;
  }
  if (Contains(line, "loops back to myself")) return;
  message.seen.state = MailObservation::kGood;
  if (!std::regex_search(line, match, std::regex("connect to [^\\[]*\\[([^\\]]*)\\]:?(\\d*): "))) return;
  const std::string address = match[1];
  const bool path = Contains(address, "/");
  if (!path && !IsLoopback(address) && !Contains(OwnAddresses(), address)) return;
  const std::string place = path ? address : address + ":" + match[2].str();
  message.seen.state =
      check_.runsOutside && check_.runsOutside(place) ? MailObservation::kNotAsked : MailObservation::kBad;
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
  message.seen.state = MailObservation::kBad;
  message.seen.detail = found.status == 0
                            ? "Postfix has delivered it, and Dovecot does not find it in the INBOX"
                            : found.errors;
  message.seen.consequence = "New mail is not seen by " + message.user + ".";
}
