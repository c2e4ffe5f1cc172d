#include "checks/strangers.h"

#include <algorithm>

#include "system/address.h"
#include "system/text.h"

namespace {

constexpr const char* kElsewhere = "postmaster@elsewhere.invalid";  // never exists: RFC 6761, section 6.4
constexpr size_t kMostDomains = 20;
const std::vector<std::string> kPublic = {"203.0.113.77", "198.18.77.77", "198.51.100.77", "192.0.2.77"};
const std::string kPublicSix = "2001:db8:77::77";

struct Range {
  const char* network;
  const char* address;
};
constexpr Range kPrivate[] = {{"10.0.0.0/8", "10.231.77.77"},
                              {"172.16.0.0/12", "172.29.77.77"},
                              {"192.168.0.0/16", "192.168.231.77"},
                              {"fc00::/7", "fd77:77:77::77"}};

// The word of mynetworks that trusts the address; empty when none does.
std::string TrustedIn(const std::string& address, const Parameters& main) {
  const std::vector<std::string> networks = Words(main.at("mynetworks"));
  const auto found = std::find_if(networks.begin(), networks.end(),
                                  [&](const std::string& network) { return IsIn(address, network); });
  return found == networks.end() ? "" : *found;
}

// True for a network within a private range.
bool IsPrivate(const std::string& network) {
  return std::any_of(std::begin(kPrivate), std::end(kPrivate),
                     [&](const Range& range) { return IsIn(network, range.network); });
}

// The first of the addresses that mynetworks does not trust; the first, when it trusts all.
std::string Untrusted(const std::vector<std::string>& addresses, const Parameters& main) {
  const auto found = std::find_if(addresses.begin(), addresses.end(), [&](const std::string& address) {
    return TrustedIn(address, main).empty();
  });
  return found == addresses.end() ? addresses[0] : *found;
}

// True when a refusal to accept mail is a fault here, and not the lack of an answer from DNS or a directory.
bool IsFault(const std::string& refusal, bool isolated) {
  if (StartsWith(refusal, "451 4.3.5") || StartsWith(refusal, "451 4.7.1 Service unavailable") ||
      Contains(refusal, "queue file write error"))
    return true;
  return isolated ? ReplyCode(refusal) / 100 != 4 : ReplyCode(refusal) != 450;
}

// Sends as far as it goes. The client's name is its address (RFC 5321, section 4.1.3), which no check of
// names in DNS rejects; where addresses are rejected, a name.
Answer Send(const SmtpListener& listener, Dialogue dialogue) {
  const std::string begin = dialogue.url;
  dialogue.startTls = dialogue.startTls || (listener.requiresTls && !listener.implicitTls);
  dialogue.url = begin + "%5B" + (IsSix(dialogue.from) ? "IPv6:" : "") + dialogue.from + "%5D";
  Answer answer = Converse(dialogue);
  if (answer.good || !Contains(answer.said, "Helo command rejected")) return answer;
  dialogue.url = begin + "stranger.example";
  return Converse(dialogue);
}

CheckResult JudgeArrival(const Question& question, const Answer& answer, const std::string& to,
                         bool isolated) {
  if (answer.good) return {question, Grade::kGood, {answer.said}};
  if (!question.tls && ReplyCode(answer.said) == 530) {
    return {question,
            Grade::kWarning,
            {answer.said},
            "Mail servers that speak no TLS cannot deliver to this machine."};
  }
  if (!IsFault(answer.said, isolated)) return {question, Grade::kNotAsked, {answer.said}};
  return {question, Grade::kBad, {answer.said}, "Nobody on other machines can send mail to " + to + "."};
}

// `network` is that of the client. `trusted` is the word of mynetworks that trusts it, if one does: an
// administrator's own network then, unless it is wider than a private one.
CheckResult JudgeRelay(const Question& question, const Answer& answer, const std::string& network,
                       const std::string& trusted) {
  const std::string may = " may send anywhere without a login.";
  const bool lan = question.by == Asker::kNeighbour;
  if (answer.good && lan && !trusted.empty() && IsPrivate(trusted))
    return {question, Grade::kGood, {trusted + " is trusted, by mynetworks"}};
  if (answer.good && lan) return {question, Grade::kWarning, {answer.said}, "Any host on " + network + may};
  if (answer.good) return {question, Grade::kBad, {answer.said}, "Open relay: any host on " + network + may};
  return {question, ReplyCode(answer.said) / 100 == 5 ? Grade::kGood : Grade::kNotAsked, {answer.said}};
}

// What strangers may not do on the listener that is open to them.
void AddRelay(std::vector<Inquiry>& inquiries, const SmtpListener& listener, const std::string& name,
              const Parameters& main, const MailCheck& check) {
  const auto add = [&](Asker by, const std::string& address, const std::string& from,
                       const std::string& network) {
    const Question question = {
        Topic::kRelaying, DaemonId::kPostfix, name, by, by == Asker::kNeighbour ? network : "", false,
        IsSix(address)};
    Dialogue dialogue = {listener.Url(address), nullptr, false, kElsewhere, from};
    if (by == Asker::kLocalSender) dialogue.sender = "postmaster@" + LocalDomains(main)[0];
    inquiries.push_back(
        [=] { return JudgeRelay(question, Send(listener, dialogue), network, TrustedIn(from, main)); });
  };
  for (const std::string& address : listener.outside) {
    const std::vector<std::string> own = {address, "127.0.0.2"};
    const std::string from = IsSix(address) ? kPublicSix : Untrusted(check.isolated ? kPublic : own, main);
    std::string network = TrustedIn(from, main);
    if (!check.isolated && (IsSix(address) || !network.empty())) continue;
    if (network.empty()) network = IsSix(address) ? "::/0" : "0.0.0.0/0";
    add(Asker::kStranger, address, from, network);
    if (!check.isolated || listener.closed) continue;
    add(Asker::kLocalSender, address, from, network);
    for (const Range& range : kPrivate) {
      if (IsSix(range.address) == IsSix(address))
        add(Asker::kNeighbour, address, range.address, range.network);
    }
  }
}

// Mail of a stranger, to whoever this names.
Question ArrivalOf(const std::string& to) {
  return {Topic::kArrival, DaemonId::kPostfix, "", Asker::kStranger, to};
}

// What strangers reach on the listener that is open to them.
void AddArrival(std::vector<Inquiry>& inquiries, const SmtpListener& listener, const Parameters& main,
                const MailCheck& check) {
  const auto add = [&](const std::string& to, const std::string& address, bool tls) {
    const std::string from =
        IsSix(address)
            ? kPublicSix
            : Untrusted(check.isolated ? kPublic : std::vector<std::string>{address, "127.0.0.2"}, main);
    const std::string local = to.substr(0, to.find('@'));
    Question question = ArrivalOf(to == "postmaster@" + LocalDomains(main)[0] ? local : to);
    question.tls = tls;
    question.six = IsSix(address);
    const Dialogue dialogue = {listener.Url(address), nullptr, tls, to, from};
    const bool isolated = check.isolated;
    inquiries.push_back([=] { return JudgeArrival(question, Send(listener, dialogue), to, isolated); });
  };
  const std::vector<std::string> domains = LocalDomains(main);
  const std::string postmaster = "postmaster@" + domains[0];
  add(postmaster, listener.outside[0], false);
  if (!check.isolated) return;
  if (listener.startTls) add(postmaster, listener.outside[0], true);
  if (listener.outside.size() > 1) add(postmaster, listener.outside[1], false);
  for (const std::string& user : check.users) add(user + "@" + domains[0], listener.outside[0], false);
  for (size_t i = 1; i < std::min(domains.size(), kMostDomains); ++i) {
    add("postmaster@" + domains[i], listener.outside[0], false);
  }
  if (domains.size() > kMostDomains) {
    const std::string rest = std::to_string(domains.size() - kMostDomains) + " domains more";
    inquiries.push_back([=] { return CheckResult{ArrivalOf(rest), Grade::kNotAsked}; });
  }
}

}  // namespace

const std::vector<std::string>& OutsideAddresses::All() {
  static const std::vector<std::string> addresses = [] {
    std::vector<std::string> all = kPublic;
    all.push_back(kPublicSix);
    for (const Range& range : kPrivate) all.emplace_back(range.address);
    return all;
  }();
  return addresses;
}

std::string OutsideAddresses::Users() { return "198.18.78.0/24"; }

std::string OutsideAddresses::User(int number) { return "198.18.78." + std::to_string(number); }

std::vector<Inquiry> StrangerInquiries(const std::vector<SmtpListener>& listeners, const Parameters& main,
                                       const MailCheck& check) {
  std::vector<Inquiry> inquiries;
  std::string alone;
  bool open = false;
  for (const SmtpListener& listener : listeners) {
    if (!listener.closed && listener.outside.empty()) alone += " " + listener.name;
    if (listener.outside.empty()) continue;
    const bool first = !open && !listener.closed;
    AddRelay(inquiries, listener, first ? "" : listener.name, main, check);
    if (first) AddArrival(inquiries, listener, main, check);
    open = open || first;
    if (first && IsSix(listener.outside[0])) {
      inquiries.push_back([] {
        return CheckResult{ArrivalOf("postmaster"),
                           Grade::kWarning,
                           {"no port is open to IPv4"},
                           "Hosts without IPv6 cannot send mail to this one."};
      });
    }
  }
  if (!open) {
    const std::string why =
        alone.empty() ? "each port takes mail from users alone" : "only this machine reaches port" + alone;
    inquiries.push_back([=] {
      return CheckResult{ArrivalOf("postmaster"),
                         Grade::kWarning,
                         {why},
                         "Nobody on other machines can send mail to this one."};
    });
  }
  return inquiries;
}

CheckResult JudgeNetworks(const Parameters& main, bool isolated) {
  CheckResult result = {{Topic::kTrustedNetworks, DaemonId::kPostfix}, Grade::kGood};
  std::string named;
  for (const std::string& network : Words(main.at("mynetworks"))) {
    const auto parsed = Network::Parse(network);
    if (!parsed || IsPrivate(network) || IsIn(network, "127.0.0.0/8")) continue;
    const bool six = parsed->size == 128;
    // A provider's whole range may be an administrator's own; half of the Internet is not.
    if (parsed->bits >= (six ? 32 : 16)) continue;
    const bool wide = parsed->bits < (six ? 16 : 8);
    // In a rehearsal the stranger in it has been let through, or has not.
    const bool asked = isolated && TrustedIn(Untrusted(kPublic, main), main) == network;
    if (!result.Bad()) result.grade = wide && !asked ? Grade::kBad : Grade::kWarning;
    named += (named.empty() ? "mynetworks names " : ", ") + network;
    result.words = {named};
    result.sentence = (wide ? "Open relay: any host on " : "Any host on ") + network +
                      " may send anywhere without a login.";
  }
  return result;
}

std::vector<Inquiry> LoginInquiries(const std::vector<SmtpListener>& listeners) {
  std::vector<Inquiry> inquiries;
  for (const SmtpListener& listener : listeners) {
    if (!listener.offersLogin) continue;
    const bool outside = !listener.outside.empty();
    Dialogue dialogue = {
        listener.Url(outside ? listener.outside[0] : listener.reachableAt) + "client.example", "NOOP",
        listener.startTls};
    if (outside && !IsSix(listener.outside[0]))
      dialogue.from = OutsideAddresses::User(static_cast<int>(inquiries.size()) + 1);
    dialogue.user = "rehearsal";
    const Question question = {Topic::kLogin,
                               DaemonId::kPostfix,
                               listener.name,
                               Asker::kUser,
                               "",
                               listener.implicitTls || listener.startTls};
    inquiries.push_back([=] { return JudgeLogin(question, Converse(dialogue)); });
  }
  return inquiries;
}

CheckResult JudgeLogin(const Question& question, const Answer& answer) {
  const std::string nobody =
      "Nobody can log in at " + Name({Topic::kGreeting, question.daemon, question.listener});
  if (answer.denied) return {question, Grade::kGood, {answer.said}};
  if (!answer.good) return {question, Grade::kBad, {answer.said}, nobody + "."};
  return {question,
          Grade::kBad,
          {"a wrong password is not refused: " + answer.said},
          nobody + ", or everybody can."};
}
