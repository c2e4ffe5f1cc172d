#include "checks/check_result.h"

#include <algorithm>
#include <tuple>

#include "system/program.h"
#include "system/text.h"

namespace {

// In the order of the enumerations.
constexpr const char* kTopics[] = {"configuration",    "starts",       "stays up", "log",          "greeting",
                                   "STARTTLS",         "switched off", "login",    "arrival",      "relaying",
                                   "trusted networks", "relay host",   "delivery", "port's owner", "program",
                                   "certificate",      "room",         "PAM",      "version"};
constexpr const char* kAskers[] = {"machine", "stranger", "local sender", "neighbour", "user"};
constexpr const char* kGrades[] = {"good", "bad", "warning", "not asked", "not installed"};

template <typename Enumeration, size_t count>
Enumeration ValueOf(const char* const (&words)[count], const Json::Value& word) {
  const auto* const found = std::find(std::begin(words), std::end(words), word.asString());
  if (found == std::end(words)) throw Fault("not a word of a check's result: " + word.toStyledString());
  return static_cast<Enumeration>(found - std::begin(words));
}

auto Tied(const Question& question) {
  return std::tie(question.topic, question.daemon, question.listener, question.by, question.to, question.tls,
                  question.six);
}

std::string ListenerName(const Question& question) {
  return DaemonOf(question.daemon).name + (question.daemon == DaemonId::kPostfix ? ", port " : ", ") +
         question.listener;
}

// With the way in which TLS begins. Dovecot's listeners tell that by their names.
std::string TlsListenerName(const Question& question, bool startTls) {
  const bool shown = question.tls && question.daemon == DaemonId::kPostfix;
  return ListenerName(question) + (!shown ? "" : startTls ? ", STARTTLS" : ", TLS");
}

std::string RelayingName(const Question& question) {
  const std::string begin = question.listener.empty() ? "" : "port " + question.listener + ": ";
  if (question.by == Asker::kNeighbour) return begin + "no mail from " + question.to + " to other domains";
  return begin + "no mail of a stranger " +
         (question.by == Asker::kLocalSender ? "with a local sender to other domains" : "to other domains") +
         (question.six ? ", IPv6" : "");
}

// True when a bad answer means that somebody may do more, and not less, than the administrator wants.
bool IsAboutOpenness(const Question& question) {
  const Topic open[] = {Topic::kRelaying, Topic::kTrustedNetworks, Topic::kPortOwner, Topic::kSwitchedOff};
  return std::find(std::begin(open), std::end(open), question.topic) != std::end(open);
}

// True when a result says why the question could not be asked: its daemon was down, or its listener.
bool Prevented(const CheckResult& result, const Question& question) {
  if (!result.Bad() || result.question.daemon != question.daemon) return false;
  const Topic topic = result.question.topic;
  if (topic == Topic::kConfiguration || topic == Topic::kStarts) return true;
  return (topic == Topic::kGreeting || topic == Topic::kStartTls) &&
         (question.listener.empty() || question.listener == result.question.listener);
}

bool HasNewLine(const CheckResult& before, const CheckResult& after) {
  return std::any_of(after.words.begin(), after.words.end(),
                     [&](const std::string& line) { return !Contains(before.words, line); });
}

Shift ShiftOf(const CheckResults& before, const CheckResult& now) {
  const auto old = std::find_if(before.begin(), before.end(),
                                [&](const CheckResult& one) { return one.question == now.question; });
  if (!now.Bad()) {
    return old == before.end() || old->grade == now.grade ? Shift::kSame : Shift::kDifferent;
  }
  const bool opens = IsAboutOpenness(now.question);
  const bool was = old != before.end()
                       ? old->Bad() && !(now.question.topic == Topic::kLog && HasNewLine(*old, now))
                       : !opens && std::any_of(before.begin(), before.end(), [&](const CheckResult& one) {
                           return Prevented(one, now.question);
                         });
  if (was) return Shift::kSoBefore;
  return opens ? Shift::kOpened : Shift::kWorse;
}

}  // namespace

bool Question::operator==(const Question& other) const { return Tied(*this) == Tied(other); }

std::string Name(const Question& question) {
  const std::string& daemon = DaemonOf(question.daemon).name;
  switch (question.topic) {
    case Topic::kConfiguration:
      return question.to.empty() ? daemon + "'s configuration" : question.to;
    case Topic::kStarts:
      return question.to.empty() ? daemon : question.to + " starts";
    case Topic::kStaysUp:
      return question.to + " goes on";
    case Topic::kLog:
      return daemon + "'s log";
    case Topic::kGreeting:
      return TlsListenerName(question, false);
    case Topic::kStartTls:
      return TlsListenerName(question, true);
    case Topic::kSwitchedOff:
      return ListenerName(question) + " at " + question.to;
    case Topic::kLogin:
      return ListenerName(question) + ", login";
    case Topic::kArrival:
      return "a stranger's mail to " + question.to + (question.six ? ", IPv6" : "") +
             (question.tls ? ", STARTTLS" : "");
    case Topic::kRelaying:
      return RelayingName(question);
    case Topic::kTrustedNetworks:
      return "the trusted networks";
    case Topic::kRelayHost:
      return "the relay host";
    case Topic::kDelivery:
      return question.to.empty() ? "a message from this machine" : "a message to " + question.to;
    case Topic::kPortOwner:
      return question.to + ", port " + question.listener;
    case Topic::kProgram:
      return TlsListenerName(question, false) + ", program at " + question.to;
    case Topic::kCertificate:
      return TlsListenerName(question, !question.to.empty()) + ", certificate";
    case Topic::kRoom:
      return "room for mail";
    case Topic::kPam:
      return "PAM services";
    case Topic::kVersion:
      return "version of " + question.to;
  }
  return "";
}

const char* Word(Grade grade) { return kGrades[static_cast<size_t>(grade)]; }

std::string CheckResult::Said() const {
  std::string text;
  for (const std::string& line : words) text += (text.empty() ? "" : "\n") + line;
  return text;
}

CheckResult Judge(const Question& question, bool good, const std::vector<std::string>& words,
                  const std::string& sentence) {
  return {question, good ? Grade::kGood : Grade::kBad, words, good ? "" : sentence};
}

Json::Value ToJson(const CheckResult& result) {
  const Question& asked = result.question;
  Json::Value object;
  object["what"] = Name(asked);
  object["state"] = Word(result.grade);
  object["detail"] = result.Said();
  object["consequence"] = result.sentence;
  Json::Value& question = object["question"];
  question["topic"] = kTopics[static_cast<size_t>(asked.topic)];
  question["daemon"] = DaemonOf(asked.daemon).name;
  question["listener"] = asked.listener;
  question["by"] = kAskers[static_cast<size_t>(asked.by)];
  question["to"] = asked.to;
  question["tls"] = asked.tls;
  question["six"] = asked.six;
  if (!result.place.empty()) object["place"] = result.place;
  if (!result.startTls.empty()) object["starttls"] = result.startTls;
  return object;
}

Json::Value ToJson(const CheckResults& results) {
  Json::Value array(Json::arrayValue);
  for (const CheckResult& result : results) array.append(ToJson(result));
  return array;
}

CheckResults FromJson(const Json::Value& array) {
  if (!array.isArray()) throw Fault("not the results of checks: no list");
  CheckResults results;
  try {
    for (const Json::Value& object : array) {
      const Json::Value& asked = object["question"];
      results.push_back({{ValueOf<Topic>(kTopics, asked["topic"]), DaemonNamed(asked["daemon"].asString()).id,
                          asked["listener"].asString(), ValueOf<Asker>(kAskers, asked["by"]),
                          asked["to"].asString(), asked["tls"].asBool(), asked["six"].asBool()},
                         ValueOf<Grade>(kGrades, object["state"]),
                         Lines(object["detail"].asString()),
                         object["consequence"].asString(),
                         object["place"].asString(),
                         object["starttls"].asString()});
    }
  } catch (const Json::Exception& error) {
    throw Fault(std::string("not the results of checks: ") + error.what());
  } catch (const std::out_of_range& error) {
    throw Fault(std::string("not the results of checks: ") + error.what());
  }
  return results;
}

std::vector<Shift> Compare(const CheckResults& before, const CheckResults& after) {
  std::vector<Shift> shifts;
  for (const CheckResult& now : after) shifts.push_back(ShiftOf(before, now));
  return shifts;
}
