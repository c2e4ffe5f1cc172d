#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <regex>

#include "mail_check/configuration.h"
#include "mail_check/mail_questions.h"
#include "system/program.h"
#include "system/text.h"
#include "system/wait.h"

namespace {

constexpr std::chrono::seconds kDelivery(15);
constexpr std::chrono::seconds kAfterFault(3);  // the fatal error may be of another try

// ---- Listeners ------------------------------------------------------------------------------

struct Listener {
  std::string name;  // as in master.cf
  std::string host;
  std::string port;
  bool wrapped;   // TLS from the first byte
  bool startTls;  // has to be offered
  bool open;      // takes mail from people who have not logged in
};

// A service that listens on a port, from a `line` of `postconf -M`.
Listener ListenerOf(const std::string& line, const std::string& name, const Parameters& main) {
  const auto value = [&](const std::string& parameter) {
    std::smatch match;
    const std::regex option(" -o \\{? ?" + parameter + " ?= ?([^ }]*)");
    return std::regex_search(line, match, option) ? match[1].str() : main.at(parameter);
  };
  const size_t colon = name.rfind(':');
  std::string host = colon == std::string::npos ? "" : name.substr(0, colon);
  std::string port = colon == std::string::npos ? name : name.substr(colon + 1);
  if (const servent* service = getservbyname(port.c_str(), "tcp")) {
    port = std::to_string(ntohs(static_cast<std::uint16_t>(service->s_port)));
  }
  const std::vector<std::string> interfaces = Words(value("inet_interfaces"));
  if (host.empty() && !Contains(interfaces, "all") && !Contains(interfaces, "loopback-only") &&
      !interfaces.empty()) {
    host = interfaces[0];
  }
  if (host.empty()) host = value("inet_protocols") == "ipv6" ? "::1" : "127.0.0.1";
  if (Contains(host, ":") && host[0] != '[') host = "[" + host + "]";
  const std::string level = value("smtpd_tls_security_level");
  const bool wrapped = value("smtpd_tls_wrappermode") == "yes";
  return {name,
          host,
          port,
          wrapped,
          level == "may" || level == "encrypt" || value("smtpd_use_tls") == "yes",
          !wrapped && level != "encrypt" && !Contains(Words(value("smtpd_client_restrictions")), "reject")};
}

// True when it speaks SMTP.
bool AskListener(Observations& seen, const MailCheck& check, const Listener& listener) {
  const std::string what = "Postfix, port " + listener.name;
  const std::string place = listener.host + ":" + listener.port + "/localhost";
  if (listener.wrapped) return Ask(seen, check, what + ", TLS", {"smtps://" + place, "NOOP"});
  if (!Ask(seen, check, what, {"smtp://" + place, "NOOP"})) return false;
  if (listener.startTls) Ask(seen, check, what + ", STARTTLS", {"smtp://" + place, "NOOP", true});
  return true;
}

// True when the IPv4 address is in one of the networks, which are written as in mynetworks (postconf(5)).
// Tables are not searched.
bool IsIn(const std::string& address, const std::vector<std::string>& networks) {
  in_addr wanted = {};
  inet_pton(AF_INET, address.c_str(), &wanted);
  return std::any_of(networks.begin(), networks.end(), [&](const std::string& network) {
    const size_t slash = network.find('/');
    in_addr base = {};
    if (inet_pton(AF_INET, network.substr(0, slash).c_str(), &base) != 1) return false;
    const int bits = slash == std::string::npos ? 32 : std::atoi(network.c_str() + slash + 1);
    const std::uint64_t differing = ntohl(wanted.s_addr ^ base.s_addr);
    return differing >> (32 - std::clamp(bits, 0, 32)) == 0;
  });
}

// True when a refusal to accept mail is a fault here, and not the lack of an answer from DNS or a directory.
bool IsFault(const std::string& refusal, bool isolated) {
  if (std::regex_search(refusal, std::regex("^451 4\\.(3\\.5|7\\.1)|queue file write error"))) return true;
  return isolated ? refusal[0] == '5' : refusal.rfind("450", 0) != 0;
}

void AskAsStranger(Observations& seen, const Listener& listener, const Parameters& main, bool isolated) {
  const std::vector<std::string> trusted = Words(main.at("mynetworks"));
  const std::vector<std::string> interfaces = Words(main.at("inet_interfaces"));
  const std::string own = main.at("inet_protocols") == "ipv6" ? "" : OwnAddress();
  Dialogue dialogue = {"smtp://127.0.0.1", nullptr, false, "postmaster@" + main.at("myhostname"),
                       "127.0.0.2"};
  if (!own.empty() && !IsIn(own, trusted) && (Contains(interfaces, "all") || Contains(interfaces, own))) {
    dialogue.url = "smtp://" + own;
    dialogue.from = own;
  } else if (IsIn("127.0.0.2", trusted) || listener.host != "127.0.0.1") {
    return;
  }
  // Its name is an address (RFC 5321, section 4.1.3), so that no check of names can reject it.
  dialogue.url += ":" + listener.port + "/%5B" + dialogue.from + "%5D";
  Answer answer = Converse(dialogue);
  seen.push_back(
      {"a stranger's mail to postmaster", answer.good || !IsFault(answer.said, isolated), answer.said});
  dialogue.to = "postmaster@elsewhere.invalid";  // a domain that never exists: RFC 6761, section 6.4
  answer = Converse(dialogue);
  seen.push_back({"no mail of a stranger to other domains", !answer.good, answer.said});
}

// ---- A message ------------------------------------------------------------------------------

// Reads in the log what became of the message for postmaster. A copy for somebody else (always_bcc) does not
// count. False while that is not decided; `seen` then says how far it got. Anybody may write a line with
// "fatal: " into the log, so such a line is a reason and no verdict.
bool HasEnded(MailObservation& seen, const std::string& log, std::streamoff begin,
              const std::string& messageId, bool isolated, bool waitingIsGood) {
  std::ifstream file(log);
  file.seekg(begin);
  std::vector<std::string> lines;
  std::string queueId;
  std::string fatal;
  std::smatch match;
  for (std::string line; std::getline(file, line);) {
    const size_t end = line.find(": message-id=" + messageId);
    if (end != std::string::npos) queueId = line.substr(0, end).substr(line.rfind(' ', end) + 1);
    if (std::regex_search(line, match, std::regex("\\[[0-9]+\\]: (fatal: .*)")))
      fatal = "; " + match[1].str();
    lines.push_back(line);
  }
  seen.detail = (queueId.empty() ? "it is not taken into the queue" : "it waits in the queue") + fatal;
  bool decided = false;
  for (const std::string& line : lines) {
    if (queueId.empty() || !Contains(line, ' ' + queueId + ": ")) continue;
    if (std::regex_search(line, match, std::regex(": milter-reject: .*"))) {
      seen.detail = match.str().substr(2);
      return true;
    }
    if (Contains(line, ": hold: ") || Contains(line, ": removed")) {
      seen.state = MailObservation::kGood;
      if (Contains(line, ": hold: ")) seen.detail = "held, for scanning";
      return true;
    }
    if (!Contains(line, " orig_to=<postmaster>,") ||
        !std::regex_search(line, match, std::regex("status=(sent|deferred|bounced|expired) .*"))) {
      continue;
    }
    decided = true;
    seen.detail = match[0];
    const bool mayWait = isolated && (waitingIsGood || Contains(line, "/smtp["));
    if (match[1] != "sent" && !(match[1] == "deferred" && mayWait)) return true;
  }
  if (decided) seen.state = MailObservation::kGood;
  return decided;
}

void SendMessage(Observations& seen, const MailCheck& check, const Parameters& main) {
  const std::string& log = main.at("maillog_file");
  const std::streamoff begin = std::ifstream(log, std::ios::ate).tellg();
  const std::string id = "<" + std::to_string(std::chrono::system_clock::now().time_since_epoch().count()) +
                         "." + std::to_string(getpid()) + "@" + main.at("myhostname") + ">";
  const ProgramResult handedIn =
      RunProgram({"sendmail", "-C", kEtc, "-i", "-f", "postmaster", "postmaster"},
                 "From: postmaster\nTo: postmaster\nSubject: " + check.subject + "\nMessage-ID: " + id +
                     "\nAuto-Submitted: auto-generated\n\n" + check.text);
  MailObservation message = {"a message from this machine", false, handedIn.errors};
  if (handedIn.status == 0 && log.empty()) {
    message.state = MailObservation::kGood;
    message.detail = "handed in, and not followed, since maillog_file is empty";
  } else if (handedIn.status == 0) {
    const bool waitingIsGood = check.isolated && Contains(main.at("alias_maps"), "ldap:");
    const auto start = std::chrono::steady_clock::now();
    WaitFor(
        [&] {
          return HasEnded(message, log, std::max<std::streamoff>(begin, 0), id, check.isolated,
                          waitingIsGood) ||
                 (check.isolated && Contains(message.detail, "fatal: ") &&
                  std::chrono::steady_clock::now() > start + kAfterFault);
        },
        kDelivery);
  }
  seen.push_back(message);
}

}  // namespace

void CheckPostfix(Observations& seen, const MailCheck& check) {
  Parameters main;
  std::string services;
  try {
    main = PostfixParameters(kEtc);
    services = RunOrThrow({"postconf", "-c", kEtc, "-M"}, "Postfix cannot read its master.cf");
  } catch (const Fault& fault) {
    seen.push_back({"Postfix's configuration", false, fault.what()});
    return;
  }
  bool answers = false;
  bool asked = false;
  for (const std::string& line : Lines(services)) {
    const std::vector<std::string> words = Words(line);
    if (words.size() < 8 || words[1] != "inet" || (words[7] != "smtpd" && words[7] != "postscreen")) continue;
    const Listener listener = ListenerOf(line, words[0], main);
    if (!AskListener(seen, check, listener)) continue;
    answers = true;
    if (listener.open && !asked) AskAsStranger(seen, listener, main, check.isolated);
    asked = asked || listener.open;
  }
  if (answers && !check.subject.empty()) {
    SendMessage(seen, check, main);
  } else if (!answers) {
    seen.push_back({"a message from this machine", false, "no listener answers"});
  }
}
