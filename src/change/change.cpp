#include "change/change.h"

#include <json/json.h>
#include <syslog.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "change/daemons.h"
#include "change/plan.h"
#include "change/timer.h"
#include "core/config_generator.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kStatesKept = 10;
constexpr size_t kMostShown = 100'000;         // bytes of a difference in a message
constexpr std::chrono::seconds kThrottle(61);  // service_throttle_time: postconf(5)
constexpr off_t kRoom = 65536;                 // for directories that grow when files are put back

volatile std::sig_atomic_t interrupted = 0;

void ThrowIfInterrupted() {
  if (interrupted != 0) throw Fault("it was interrupted");
}

// The time of day so many seconds from now.
std::string TimeOfDay(const char* format, long seconds) {
  const std::time_t time = std::time(nullptr) + seconds;
  std::tm local = {};
  char text[32] = "";
  std::strftime(text, sizeof text, format, localtime_r(&time, &local));
  return text;
}

Json::Value Array(const std::set<std::string>& names) {
  Json::Value array(Json::arrayValue);
  for (const std::string& name : names) array.append(name);
  return array;
}

std::set<std::string> Names(const Json::Value& array) {
  std::set<std::string> names;
  for (const Json::Value& name : array) names.insert(name.asString());
  return names;
}

// From here on, whatever happens, the change ends committed or rolled back.
void SaveRollback(const Change& change, ChangeKind kind) {
  const Step step("The way back is written");
  const std::string tree = kPending + ".new";
  SaveFiles(FileKind::kOutput, tree);
  SaveFiles(FileKind::kInput, tree);
  if (kind == ChangeKind::kRenew) RunOrThrow({"cp", "-aT", fs::canonical(kSsl), tree + "/ssl"}, kSsl);
  Json::Value about;
  about["base"] = change.base;
  about["what"] = change.what;
  about["user"] = change.user;
  about["boot"] = change.boot;
  about["deadline"] = static_cast<Json::Int64>(change.deadline);
  about["source"] = change.source;
  about["concerned"] = Array(change.concerned);
  about["running"] = Array(change.running);
  about["unwell"] = Array(change.unwell);
  WriteFile(tree + "/about", about.toStyledString());
  ReserveRoom(tree + "/room", kRoom);
  Install(tree, kPending);
}

void SaveTried(const Change& change, const std::string& shown) {
  SaveFiles(FileKind::kOutput, kTried + ".new", StateDirectory(change.base));
  const std::string time = TimeOfDay("%Y-%m-%d %H:%M:%S %z", 0);
  WriteFile(kTried + ".new/preview", time + "  " + change.user + "  " + change.what + "\n\n" + shown);
  Install(kTried + ".new", kTried);
}

// True when no server of Postfix that starts from now on will speak TLS: it finds no Dovecot to ask about
// logins. Those that run already may still do so.
bool LacksLogins(const std::set<std::string>& running) {
  if (running.count("Postfix") == 0 || running.count("Dovecot") != 0) return false;
  try {
    return PostfixParameters(kEtc)["smtpd_sasl_auth_enable"] == "yes";
  } catch (const Fault&) {
    return false;
  }
}

}  // namespace

bool IsPending() { return fs::exists(kPending); }

Change ReadPending() {
  if (!IsPending()) throw Fault("no change is pending");
  Json::Value about;
  std::ifstream(kPending + "/about") >> about;
  return {about["base"].asInt(),
          about["what"].asString(),
          about["user"].asString(),
          about["boot"].asString(),
          static_cast<long>(about["deadline"].asInt64()),
          about["source"].asInt(),
          Names(about["concerned"]),
          Names(about["running"]),
          Names(about["unwell"])};
}

std::string ThisBoot() { return ReadFile("/proc/sys/kernel/random/boot_id"); }

long Now() {
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<long>(now.tv_sec);  // of 64 bits on 32-bit machines from Debian 13 on
}

void IgnoreHangup() {
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
  for (const int number : {SIGINT, SIGTERM}) std::signal(number, [](int) { interrupted = 1; });
}

CheckResults AskMail(const std::set<std::string>& daemons, const std::string& subject,
                     const std::string& text) {
  const bool postfix = daemons.count("Postfix") != 0;
  CheckResults results = CheckMail({postfix, daemons.count("Dovecot") != 0, false, subject, text});
  if (!postfix) return results;
  for (const std::string& name : WantedMilters(kEtc)) {
    const bool serves = IsServing(DaemonNamed(name));
    results.push_back(Judge({Topic::kStarts, DaemonNamed(name).id}, serves,
                            {serves ? "runs" : "main.cf names it, and it does not run"}));
  }
  return results;
}

std::string CheckAgain(const Change& change, const std::string& subject, const std::string& text) {
  const Step step("Mail is checked");
  std::list<std::string> worse;
  std::list<std::string> asBefore;
  const auto ask = [&] {
    worse.clear();
    asBefore.clear();
    for (const CheckResult& one : AskMail(change.running, subject, change.what + text)) {
      if (!one.Bad()) continue;
      const std::string name = Name(one.question);
      (change.unwell.count(name) == 0 ? worse : asBefore).push_back(name + ": " + one.Said());
    }
    return worse.empty();
  };
  // Where Dovecot is down, a question about STARTTLS ends the server that is asked, and Postfix starts no
  // other one for a minute.
  const bool throttled = std::any_of(change.unwell.begin(), change.unwell.end(), [](const std::string& what) {
    return StartsWith(what, "Postfix, port");
  });
  if (!ask() && throttled) {
    WaitFor([] { return interrupted != 0; }, kThrottle);
    ask();
  }
  if (!worse.empty()) throw Fault(JoinList(worse, "; "));
  return JoinList(asBefore, "; ");
}

Change Begin(const std::string& command, const Request& request, const std::set<std::string>& concerned) {
  if (IsPending()) {
    throw Fault(
        "a change is pending; confirm it by: nubo_config_apply confirm\n"
        "or take it back by: nubo_config_apply recover");
  }
  if (States().empty()) {
    const std::string tree = StateDirectory(1) + ".new";
    SaveFiles(FileKind::kOutput, tree);
    WriteFile(tree + "/preview", "As found\n");
    Install(tree, StateDirectory(1));
  }
  std::string what = command + (request.message.empty() ? "" : ": " + request.message);
  std::replace_if(
      what.begin(), what.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, ' ');
  Change change = {*States().rbegin(), what, request.user, ThisBoot(), 0, 0, concerned, RunningDaemons(), {}};
  Step step("Mail as it is");
  const bool lacksLogins = LacksLogins(change.running);
  for (const CheckResult& one :
       AskMail(change.running, "Mail before a change of its configuration",
               "The configuration is about to change. This message shows that mail is "
               "delivered.\n")) {
    if (one.Bad() || (one.question.tls && lacksLogins)) change.unwell.insert(Name(one.question));
  }
  step.Say(change.running.empty() ? "no daemon runs"
           : change.unwell.empty()
               ? "well"
               : "not well: " + JoinList({change.unwell.begin(), change.unwell.end()}, "; "));
  return change;
}

int RunChange(Change change, ChangeKind kind, double minutes, const std::function<std::string()>& write) {
  ThrowIfInterrupted();
  if (minutes > 0) change.deadline = Now() + std::lround(60 * minutes);
  SaveRollback(change, kind);
  std::string unwell;
  try {
    if (minutes > 0) StartTimer();
    const std::string shown = write();
    ThrowIfInterrupted();
    if (kind != ChangeKind::kRenew) SaveTried(change, shown);
    {
      Step step("The daemons load the files");
      const std::list<std::string> done = LoadChange(change, kind);
      step.Say(done.empty() ? "nothing to do" : JoinList(done, ", "));
    }
    ThrowIfInterrupted();
    // Postfix takes no message of any size.
    const std::string more = shown.size() > kMostShown ? "\n(More: nubo_config_apply history)\n" : "";
    unwell = CheckAgain(change, "The configuration of mail has changed",
                        "\n\n" + shown.substr(0, kMostShown) + more);
    ThrowIfInterrupted();
    WriteFile(kGood, "");
  } catch (const std::exception& error) {
    return RollBack(change, error.what());
  }
  if (change.deadline == 0) {
    Commit(change);
  } else {
    std::cout << "In force. Until " << TimeOfDay("%H:%M:%S", change.deadline - Now())
              << " confirm it by: nubo_config_apply confirm\nOtherwise it is taken back." << std::endl;
  }
  if (!unwell.empty()) std::cout << "Not well, as before: " << unwell << std::endl;
  if (!change.running.empty()) return 0;
  std::cout << "No daemon runs on these files yet." << std::endl;
  for (const std::string& step : FirstSteps()) std::cout << step << std::endl;
  return 0;
}

void SavePlan(const Paths& paths) { WriteFile(kPlan, JoinList({paths.begin(), paths.end()}, "\n")); }

void SaveTriedInputs(const Change& change) {
  SaveFiles(FileKind::kInput, kTried + ".new", StateDirectory(change.base));
}

void Commit(const Change& pending) {
  const int number = pending.base + 1;
  const bool state = fs::exists(kTried);
  if (state) {
    fs::rename(kTried, StateDirectory(number));
    Sync({StateDirectory(number)});
  }
  std::string said = "n force" + (state ? ", as state " + std::to_string(number) : "");
  try {  // whatever happens from here on, it is confirmed
    EndPending();
    for (std::set<int> states = States(); states.size() > kStatesKept; states = States()) {
      fs::rename(StateDirectory(*states.begin()), StateDirectory(*states.begin()) + ".new");
      fs::remove_all(StateDirectory(*states.begin()) + ".new");
    }
  } catch (const std::exception& error) {
    said += std::string("; but ") + error.what();
  }
  syslog(LOG_MAIL | LOG_NOTICE, "%s: i%s", pending.what.c_str(), said.c_str());
  std::cout << 'I' << said << std::endl;
}

void EndPending() {
  fs::rename(kPending, kPending + ".new");
  Sync({kPending});
  fs::remove_all(kPending + ".new");
}

void InstallSsl(const std::string& directory) {
  const std::string place = fs::canonical(kSsl);  // it may be a link
  fs::remove_all(place + ".new");
  RunOrThrow({"cp", "-aT", directory, place + ".new"}, "cannot copy " + directory);
  Install(place + ".new", place);
}
