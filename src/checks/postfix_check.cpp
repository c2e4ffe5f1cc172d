#include <pwd.h>

#include <algorithm>
#include <regex>

#include "checks/delivery.h"
#include "checks/mail_questions.h"
#include "checks/strangers.h"
#include "mail/daemons.h"
#include "mail/listeners.h"
#include "mail/smtp_listeners.h"
#include "system/program.h"
#include "system/text.h"

namespace {

// Banner and EHLO of a listener, and its TLS.
void AddListener(std::vector<Question>& questions, const MailCheck& check, const SmtpListener& listener) {
  const std::string what = "Postfix, port " + listener.name;
  const std::string url = listener.Url(listener.here) + "localhost";
  const std::string nobody = "Nobody can use port " + listener.name;
  questions.push_back(Asks(check, what + (listener.wrapped ? ", TLS" : ""), {url, "NOOP"}, nobody + "."));
  if (listener.startTls)
    questions.push_back(Asks(check, what + ", STARTTLS", {url, "NOOP", true}, nobody + " with TLS."));
}

// A relay host that is this machine sends the mail back to it.
void JudgeRelayHost(Observations& seen, const Parameters& main, const std::vector<SmtpListener>& listeners) {
  static const std::regex form(R"(\[?([^\[\]]+?)\]?(?::(\d+|smtp))?)");
  std::smatch match;
  const std::string& host = main.at("relayhost");
  if (!std::regex_match(host, match, form)) return;
  const std::string port = match[2].matched && match[2] != "smtp" ? match[2].str() : "25";
  const bool own = IsOwn(listeners, match[1] == main.at("myhostname") ? "127.0.0.1" : match[1].str(), port);
  seen.emplace_back("the relay host", !own, own ? host + " is this machine" : "",
                    "Mail to other hosts comes back, and bounces.");
}

MailObservation CheckPort(const std::string& name, const std::string& port, const std::string& account,
                          const std::string& deed) {
  MailObservation seen(name + ", port " + port, true, "nobody else listens");
  for (const TcpListener& stranger : StrangersOn(port, account)) {
    const passwd* known = getpwuid(stranger.uid);
    const std::string user = "user " + (known != nullptr ? known->pw_name : std::to_string(stranger.uid));
    std::string detail = stranger.address + " is held by " + user + ", and not by " + name;
    for (const Owner& owner : OwnersOf(stranger)) {
      detail += "; process " + std::to_string(owner.pid) + " (" + owner.program + ")";
    }
    seen = MailObservation(seen.what, false, detail, "U" + user.substr(1) + " " + deed);
  }
  return seen;
}

}  // namespace

std::vector<MailObservation> CheckPorts(const Parameters& mainCf) {
  std::vector<MailObservation> seen;
  for (const Daemon& daemon : Daemons()) {
    if (!daemon.milterPort.empty() && IsWanted(daemon, mainCf)) {
      seen.push_back(CheckPort(daemon.name, daemon.milterPort, daemon.account,
                               "can read every message, and change it."));
    }
  }
  const auto cache = mainCf.find("smtpd_sasl_sender_quota_cache");
  if (cache != mainCf.end() && Contains(cache->second, "memcache:")) {
    seen.push_back(CheckPort("memcached", "11211", "memcache", "can set how much a sender may send."));
  }
  return seen;
}

void CheckPostfix(Observations& seen, const MailCheck& check) {
  Parameters main;
  std::vector<SmtpListener> listeners;
  try {
    main = PostfixParameters(kEtc);
    listeners = SmtpListeners(main);
  } catch (const Fault& fault) {
    seen.emplace_back("Postfix's configuration", false, fault.what(), "Postfix does not run.");
    return;
  }
  if (!check.isolated) seen = CheckPorts(main);
  std::vector<Question> first;
  for (const SmtpListener& listener : listeners) AddListener(first, check, listener);
  Asking(first).Wait(seen);
  // A listener that does not even greet is not asked further, nor one whose TLS does not work what takes TLS.
  const auto failed = [&](const SmtpListener& listener, const std::string& tls) {
    const std::string what = "Postfix, port " + listener.name + tls;
    return std::any_of(seen.begin(), seen.end(),
                       [&](const MailObservation& one) { return one.Bad() && one.what == what; });
  };
  listeners.erase(std::remove_if(listeners.begin(), listeners.end(),
                                 [&](const SmtpListener& listener) {
                                   return failed(listener, "") || failed(listener, ", TLS") ||
                                          (listener.mustTls && failed(listener, ", STARTTLS"));
                                 }),
                  listeners.end());
  for (SmtpListener& listener : listeners) {
    if (failed(listener, ", STARTTLS")) listener.startTls = listener.offersLogin = false;
  }
  if (listeners.empty()) {
    seen.emplace_back("a message from this machine", false, "no listener answers",
                      "Postfix does not take mail.");
    return;
  }
  Delivery delivery(check, main, listeners);
  std::vector<Question> second = StrangerQuestions(listeners, main, check);
  if (check.isolated) {
    for (const Question& question : LoginQuestions(listeners)) second.push_back(question);
  }
  if (check.isolated) JudgeRelayHost(seen, main, listeners);
  seen.push_back(JudgeNetworks(main, check.isolated));
  Asking asking(second);
  Observations messages;
  delivery.Follow(messages);
  asking.Wait(seen);
  seen.insert(seen.end(), messages.begin(), messages.end());
}
