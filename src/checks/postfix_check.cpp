#include <pwd.h>

#include <algorithm>

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
void AddListener(std::vector<Inquiry>& inquiries, const MailCheck& check, const SmtpListener& listener) {
  Question question = {Topic::kGreeting,    DaemonId::kPostfix, listener.name, Asker::kMachine, "",
                       listener.implicitTls};
  const std::string url = listener.Url(listener.reachableAt) + "localhost";
  const std::string nobody = "Nobody can use port " + listener.name;
  inquiries.push_back(AskThreeTimes(check, question, {url, "NOOP"}, nobody + "."));
  if (!listener.startTls) return;
  question.topic = Topic::kStartTls;
  question.tls = true;
  inquiries.push_back(AskThreeTimes(check, question, {url, "NOOP", true}, nobody + " with TLS."));
}

// A relay host that is this machine sends the mail back to it.
void JudgeRelayHost(CheckResults& results, const Parameters& main,
                    const std::vector<SmtpListener>& listeners) {
  const Peer relay = ParsePeer(main.at("relayhost"));
  if (relay.host.empty()) return;
  const std::string port = relay.port.empty() ? "25" : PortNumber(relay.port);
  const bool own = IsOwn(listeners, relay.host == main.at("myhostname") ? "127.0.0.1" : relay.host, port);
  results.push_back(Judge({Topic::kRelayHost, DaemonId::kPostfix}, !own,
                          Lines(own ? main.at("relayhost") + " is this machine" : ""),
                          "Mail to other hosts comes back, and bounces."));
}

CheckResult CheckPort(const Question& question, const std::string& account, const std::string& deed) {
  const std::string& port = question.listener;
  CheckResult result = Judge(question, true, {"nobody else listens"});
  for (const TcpListener& stranger : ForeignListeners(port, account)) {
    const passwd* known = getpwuid(stranger.uid);
    const std::string user = known != nullptr ? known->pw_name : std::to_string(stranger.uid);
    std::string detail = stranger.address + " is held by user " + user + ", and not by " + question.to;
    for (const Owner& owner : OwnersOf(stranger)) {
      detail += "; process " + std::to_string(owner.pid) + " (" + owner.program + ")";
    }
    result = Judge(question, false, {detail}, "User " + user + " " + deed);
  }
  return result;
}

}  // namespace

CheckResults CheckPorts(const Parameters& mainCf) {
  const auto question = [](DaemonId daemon, const std::string& port, const std::string& name) {
    return Question{Topic::kPortOwner, daemon, port, Asker::kMachine, name};
  };
  CheckResults results;
  for (const Daemon& daemon : Daemons()) {
    if (!daemon.milterPort.empty() && IsWanted(daemon, mainCf)) {
      results.push_back(CheckPort(question(daemon.id, daemon.milterPort, daemon.name), daemon.account,
                                  "can read every message, and change it."));
    }
  }
  const auto cache = mainCf.find("smtpd_sasl_sender_quota_cache");
  if (cache != mainCf.end() && Contains(cache->second, "memcache:")) {
    results.push_back(CheckPort(question(DaemonId::kPostfix, "11211", "memcached"), "memcache",
                                "can set how much a sender may send."));
  }
  return results;
}

void CheckPostfix(CheckResults& results, const MailCheck& check) {
  PostfixConfig config;
  try {
    config = ReadPostfix(kEtc);
  } catch (const Fault& fault) {
    results.push_back(
        Judge({Topic::kConfiguration, DaemonId::kPostfix}, false, {fault.what()}, "Postfix does not run."));
    return;
  }
  const Parameters& main = config.parameters;
  std::vector<SmtpListener> listeners = SmtpListeners(config);
  if (!check.isolated) results = CheckPorts(main);
  std::vector<Inquiry> first;
  for (const SmtpListener& listener : listeners) AddListener(first, check, listener);
  Inquiries(first).Wait(results);
  // A listener that does not even greet is not asked further, nor one whose TLS does not work what takes TLS.
  const auto failed = [&](const SmtpListener& listener, Topic topic) {
    return std::any_of(results.begin(), results.end(), [&](const CheckResult& one) {
      return one.Bad() && one.question.topic == topic && one.question.listener == listener.name;
    });
  };
  listeners.erase(std::remove_if(listeners.begin(), listeners.end(),
                                 [&](const SmtpListener& listener) {
                                   return failed(listener, Topic::kGreeting) ||
                                          (listener.requiresTls && failed(listener, Topic::kStartTls));
                                 }),
                  listeners.end());
  for (SmtpListener& listener : listeners) {
    if (failed(listener, Topic::kStartTls)) listener.startTls = listener.offersLogin = false;
  }
  if (listeners.empty()) {
    results.push_back(Judge({Topic::kDelivery, DaemonId::kPostfix}, false, {"no listener answers"},
                            "Postfix does not take mail."));
    return;
  }
  Delivery delivery(check, main, listeners);
  std::vector<Inquiry> second = StrangerInquiries(listeners, main, check);
  if (check.isolated) {
    for (const Inquiry& inquiry : LoginInquiries(listeners)) second.push_back(inquiry);
  }
  if (check.isolated) JudgeRelayHost(results, main, listeners);
  results.push_back(JudgeNetworks(main, check.isolated));
  Inquiries inquiries(second);
  const CheckResults messages = delivery.Follow();
  inquiries.Wait(results);
  results.insert(results.end(), messages.begin(), messages.end());
}
