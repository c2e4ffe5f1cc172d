#include "change/change.h"

#include <syslog.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <iostream>

#include "change/daemons.h"
#include "checks/mail_check.h"
#include "core/config_generator.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kStatesKept = 10;
constexpr size_t kMostShown = 100'000;         // bytes of a difference in a message
constexpr std::chrono::seconds kThrottle(61);  // service_throttle_time: postconf(5)

volatile std::sig_atomic_t interrupted = 0;

void ThrowIfInterrupted() {
  if (interrupted != 0) throw Fault("it was interrupted");
}

// Nobody can tell which of two has answered, so no check would mean anything.
void ThrowIfShared() {
  const std::string shared = SharedPorts();
  if (!shared.empty()) throw Fault("Postfix shares a port. " + shared);
}

// True when no server of Postfix that starts from now on will speak TLS: it finds no Dovecot to ask about
// logins. Those that run already may still do so.
bool LacksLogins(const std::set<DaemonId>& running) {
  if (running.count(DaemonId::kPostfix) == 0 || running.count(DaemonId::kDovecot) != 0) return false;
  try {
    return PostfixParameters(kEtc)["smtpd_sasl_auth_enable"] == "yes";
  } catch (const Fault&) {
    return false;
  }
}

// It has to outlive the session, and where systemd ends a session's processes, their group too. It is started
// again when it dies.
void StartTimer() {
  const std::string self = fs::read_symlink("/proc/self/exe");
  if (!fs::exists("/run/systemd/system") ||
      RunProgram({"systemd-run", "--quiet", "--collect", "--property=Restart=always",
                  "--property=RestartSec=1", "--property=RestartPreventExitStatus=0 1 3 4",
                  "--property=StartLimitIntervalSec=0", self, "wait"})
              .status != 0) {
    RunOrThrow({"setsid", "--fork", self, "wait"}, "cannot start the timer that takes the change back");
  }
}

}  // namespace

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

void IgnoreInterrupts() {
  std::signal(SIGINT, SIG_IGN);      // also for the programs that put things back
  std::signal(SIGTERM, [](int) {});  // not for the daemons that they start
  interrupted = 0;
}

CheckResults AskMail(const std::set<DaemonId>& daemons, const std::string& subject, const std::string& text) {
  const bool postfix = daemons.count(DaemonId::kPostfix) != 0;
  CheckResults results = CheckMail({postfix, daemons.count(DaemonId::kDovecot) != 0, false, subject, text});
  if (!postfix) return results;
  for (const DaemonId milter : WantedMilters(kEtc)) {
    const bool serves = IsServing(DaemonOf(milter));
    results.push_back(
        Judge({Topic::kStarts, milter}, serves, {serves ? "runs" : "main.cf names it, and it does not run"}));
  }
  return results;
}

std::string CheckAgain(const PendingChange& change, const std::string& subject, const std::string& text) {
  const Step step("Mail is checked");
  std::list<std::string> worse;
  std::list<std::string> asBefore;
  const auto ask = [&] {
    worse.clear();
    asBefore.clear();
    const CheckResults results = AskMail(change.running, subject, change.what + text);
    const std::vector<Shift> shifts = Compare(change.mail, results);
    for (size_t i = 0; i < results.size(); ++i) {
      if (!results[i].Bad()) continue;
      (shifts[i] == Shift::kSoBefore ? asBefore : worse)
          .push_back(Name(results[i].question) + ": " + results[i].Said());
    }
    return worse.empty();
  };
  // Where Dovecot is down, a question about STARTTLS ends the server that is asked, and Postfix starts no
  // other one for a minute.
  const bool throttled = std::any_of(change.mail.begin(), change.mail.end(), [](const CheckResult& one) {
    return one.Bad() && one.question.daemon == DaemonId::kPostfix &&
           (one.question.topic == Topic::kGreeting || one.question.topic == Topic::kStartTls);
  });
  if (!ask() && throttled) {
    WaitFor([] { return interrupted != 0; }, kThrottle);
    ask();
  }
  if (!worse.empty()) throw Fault(JoinList(worse, "; "));
  return JoinList(asBefore, "; ");
}

PendingChange Begin(const std::string& command, const std::string& message, const std::string& user,
                    const std::set<DaemonId>& affected) {
  if (PendingChange::Exists()) {
    throw Fault(
        "a change is pending; confirm it by: nubo_config_apply confirm\n"
        "or take it back by: nubo_config_apply recover");
  }
  ThrowIfShared();
  if (States().empty()) {
    const std::string tree = StateDirectory(1) + ".new";
    SaveFiles(FileKind::kOutput, tree);
    WriteFile(tree + "/preview", "As found\n");
    Install(tree, StateDirectory(1));
  }
  std::string what = command + (message.empty() ? "" : ": " + message);
  std::replace_if(
      what.begin(), what.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, ' ');
  PendingChange change = {*States().rbegin(), what, user, ThisBoot(), 0, 0, affected, RunningDaemons(), {}};
  Step step("Mail as it is");
  change.mail = AskMail(change.running, "Mail before a change of its configuration",
                        "The configuration is about to change. This message shows that mail is delivered.\n");
  const bool lacksLogins = LacksLogins(change.running);
  std::list<std::string> failing;
  for (CheckResult& one : change.mail) {
    if (one.question.tls && lacksLogins) one.grade = Grade::kBad;
    if (one.Bad()) failing.push_back(Name(one.question));
  }
  if (change.running.empty()) {
    step.Say("no daemon runs");
  } else {
    step.Say(failing.empty() ? "works" : "fails: " + JoinList(failing, "; "));
  }
  return change;
}

int RunChange(PendingChange change, ChangeKind kind, double minutes,
              const std::function<std::string()>& write) {
  ThrowIfInterrupted();
  if (minutes > 0) change.deadline = Now() + std::lround(60 * minutes);
  {
    const Step step("The way back is written");
    change.Save(kind == ChangeKind::kRenew);  // from here on, the change ends committed or rolled back
  }
  std::string failing;
  try {
    if (minutes > 0) StartTimer();
    const std::string shown = write();
    ThrowIfInterrupted();
    if (kind != ChangeKind::kRenew) change.SaveTried(shown);
    {
      Step step("The daemons load the files");
      const std::list<std::string> done = ReloadDaemons(change, kind);
      step.Say(done.empty() ? "nothing to do" : JoinList(done, ", "));
    }
    ThrowIfInterrupted();
    ThrowIfShared();
    // Postfix takes no message of any size.
    const std::string more = shown.size() > kMostShown ? "\n(More: nubo_config_apply history)\n" : "";
    failing = CheckAgain(change, "The configuration of mail has changed",
                         "\n\n" + shown.substr(0, kMostShown) + more);
    ThrowIfInterrupted();
    PendingChange::SayGood();
  } catch (const std::exception& error) {
    return RollBack(change, error.what());
  }
  if (change.deadline == 0) {
    Commit(change);
  } else {
    std::cout << "In force. Until " << TimeOfDay("%H:%M:%S", change.deadline - Now())
              << " confirm it by: nubo_config_apply confirm\nOtherwise it is taken back." << std::endl;
  }
  if (!failing.empty()) std::cout << "Fails, as before: " << failing << std::endl;
  if (!change.running.empty()) return 0;
  std::cout << "No daemon runs on these files yet." << std::endl;
  for (const std::string& step : FirstSteps()) std::cout << step << std::endl;
  return 0;
}

void Commit(const PendingChange& pending) {
  const int number = pending.BecomeState();
  std::string said = number > 0 ? "In force, as state " + std::to_string(number) : "In force";
  try {  // whatever happens from here on, it is confirmed
    PendingChange::End();
    for (std::set<int> states = States(); states.size() > kStatesKept; states = States()) {
      fs::rename(StateDirectory(*states.begin()), StateDirectory(*states.begin()) + ".new");
      fs::remove_all(StateDirectory(*states.begin()) + ".new");
    }
  } catch (const std::exception& error) {
    said += std::string("; but ") + error.what();
  }
  syslog(LOG_MAIL | LOG_NOTICE, "%s: %s", pending.what.c_str(), said.c_str());
  std::cout << said << std::endl;
}

void InstallSsl(const std::string& directory) {
  const std::string place = fs::canonical(kSsl);  // it may be a link
  fs::remove_all(place + ".new");
  RunOrThrow({"cp", "-aT", directory, place + ".new"}, "cannot copy " + directory);
  Install(place + ".new", place);
}
