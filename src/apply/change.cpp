#include "apply/change.h"

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

#include "apply/basics.h"
#include "apply/state.h"
#include "core/config_generator.h"
#include "mail_check/configuration.h"
#include "system/program.h"

namespace {

namespace fs = std::filesystem;

const std::string kNext = kPending + "/next";
const std::string kKeptSsl = kPending + "/ssl";
const std::string kRefused = kStates + "/refused";
constexpr size_t kStatesKept = 10;
constexpr size_t kMostShown = 100'000;  // bytes of a difference in a message

volatile std::sig_atomic_t interrupted = 0;

void GoOn() {
  if (interrupted != 0) throw Fault("it was interrupted");
}

// This boot of the machine: random(4).
std::string ThisBoot() { return ReadFile("/proc/sys/kernel/random/boot_id"); }

// The time of day so many seconds from now.
std::string TimeOfDay(const char* format, long seconds) {
  const std::time_t time = std::time(nullptr) + seconds;
  std::tm local = {};
  char text[32] = "";
  std::strftime(text, sizeof text, format, localtime_r(&time, &local));
  return text;
}

// Throws Fault with all that is not good now and was good before the change.
void CheckAgain(const Change& change, const std::string& subject, const std::string& text) {
  const Step step("Mail is checked");
  std::list<std::string> worse;
  for (const MailObservation& one : AskMail(change.running, subject, change.what + text)) {
    if (one.Bad() && change.unwell.count(one.what) == 0) worse.push_back(one.what + ": " + one.detail);
  }
  if (!worse.empty()) throw Fault(JoinList(worse, "; "));
}

// Writes the way back to the disk. From here on, whatever happens, the change ends confirmed or taken back.
void Arm(const Change& change, Sort sort) {
  const Step step("The way back is written");
  const std::string tree = kPending + ".new";
  const std::string base = StateDirectory(change.base);
  Keep(Kind::kOutput, tree, base);
  if (sort == Sort::kRenew) {
    RunOrThrow({"cp", "-aT", kSsl, tree + "/ssl"}, "cannot copy " + kSsl);
  } else if (sort != Sort::kApply) {
    Keep(Kind::kInput, tree, base);
  } else if (Holds(base, Kind::kInput)) {
    // The settings that are there are those of the change.
    LinkTree(base + "/in", tree + "/in");
  }
  Json::Value about;
  about["base"] = change.base;
  about["what"] = change.what;
  about["user"] = change.user;
  about["boot"] = change.boot;
  about["deadline"] = static_cast<Json::Int64>(change.deadline);
  for (const std::string& name : change.running) about["running"].append(name);
  for (const std::string& what : change.unwell) about["unwell"].append(what);
  WriteFile(tree + "/about", about.toStyledString());
  Install(tree, kPending);
}

// Starts the one that takes the change back when its time is over.
void StartWaiting() {
  // It has to outlive the session, and where systemd ends a session's processes, their group too.
  const std::string self = fs::read_symlink("/proc/self/exe");
  if (!fs::exists("/run/systemd/system") ||
      RunProgram({"systemd-run", "--quiet", "--collect", self, "wait"}).status != 0) {
    RunOrThrow({"setsid", "--fork", self, "wait"}, "nobody would take the change back");
  }
}

// Writes the state that the change makes.
void KeepNext(const Change& change, Sort sort, const std::string& shown) {
  if (sort == Sort::kRenew) return;
  const std::string tree = kNext + ".new";
  const std::string base = StateDirectory(change.base);
  Keep(Kind::kOutput, tree, base);
  if (sort != Sort::kAsFound) Keep(Kind::kInput, tree, base);
  WriteFile(tree + "/preview",
            TimeOfDay("%Y-%m-%d %H:%M:%S %z", 0) + "  " + change.user + "  " + change.what + "\n\n" + shown);
  Install(tree, kNext);
}

void KeepRefused() {
  const std::string refused = kPending + "/refused";
  if (fs::exists(refused)) return;
  fs::remove_all(refused + ".new");
  Keep(Kind::kInput, refused + ".new", kPending);
  Install(refused + ".new", refused);
}

// The package helper was told the account type of the refused settings.
void TellHelper() {
  const std::string settings = "/in/var/packages/Brindlecot/etc/settings/smtp.json";
  if (ReadFile(kPending + settings) == ReadFile(kPending + "/refused" + settings)) return;
  ConfigGenerator generator;
  if (generator.LoadAllSettings() < 0 || generator.UpdatePamConfig() < 0) {
    throw Fault("the package helper was not told the account type, see the system log");
  }
}

}  // namespace

bool IsPending() { return fs::exists(kPending); }

Change ReadPending() {
  if (!IsPending()) throw Fault("no change is pending");
  Json::Value about;
  std::ifstream(kPending + "/about") >> about;
  Change change = {about["base"].asInt(),
                   about["what"].asString(),
                   about["user"].asString(),
                   about["boot"].asString(),
                   static_cast<long>(about["deadline"].asInt64()),
                   {},
                   {}};
  for (const Json::Value& name : about["running"]) change.running.insert(name.asString());
  for (const Json::Value& what : about["unwell"]) change.unwell.insert(what.asString());
  return change;
}

long Now() {
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<long>(now.tv_sec);  // of 64 bits on 32-bit machines from Debian 13 on
}

void OutliveSession() {
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
  for (const int number : {SIGINT, SIGTERM}) std::signal(number, [](int) { interrupted = 1; });
}

std::vector<MailObservation> AskMail(const std::set<std::string>& daemons, const std::string& subject,
                                     const std::string& text) {
  return CheckMail({daemons.count("Postfix") != 0, daemons.count("Dovecot") != 0, false, subject, text});
}

Change Begin(const std::string& command, const Request& request) {
  if (IsPending()) throw Fault("a change is pending: confirm it, or take it back by recover");
  if (States().empty()) {
    const std::string tree = StateDirectory(1) + ".new";
    Keep(Kind::kOutput, tree, kLive);
    WriteFile(tree + "/preview", "As found\n");
    Install(tree, StateDirectory(1));
  }
  std::string what = command + (request.message.empty() ? "" : ": " + request.message);
  std::replace_if(
      what.begin(), what.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, ' ');
  Change change = {*States().rbegin(), what, request.user, ThisBoot(), 0, RunningDaemons(), {}};
  Step step("Mail as it is");
  for (const MailObservation& one :
       AskMail(change.running, "Mail before a change of its configuration",
               "The configuration is about to change. This message shows that mail is "
               "delivered.\n")) {
    if (one.Bad()) change.unwell.insert(one.what);
  }
  step.Say(change.running.empty() ? "no daemon runs"
           : change.unwell.empty()
               ? "well"
               : "not well: " + JoinList({change.unwell.begin(), change.unwell.end()}, "; "));
  return change;
}

int BringAbout(Change change, Sort sort, double minutes, const std::function<std::string()>& write) {
  GoOn();
  if (minutes > 0) change.deadline = Now() + std::lround(60 * minutes);
  Arm(change, sort);
  const std::string base = StateDirectory(change.base);
  try {
    if (minutes > 0) StartWaiting();
    const std::string shown = write();
    GoOn();
    // Nobody knows what the daemons have loaded of files as found.
    Paths changed = Differing(Kind::kOutput, Holds(base, Kind::kInput) ? base : "/nowhere");
    changed.merge(Differing(Kind::kInput, base));
    if (sort == Sort::kRenew) changed.insert(kSsl);
    Sync(changed);
    {
      Step step("The daemons follow");
      const std::list<std::string> done = Follow(changed, base + "/out" + kEtc);
      step.Say(done.empty() ? "nothing to do" : JoinList(done, ", "));
    }
    GoOn();
    // Postfix takes no message of any size.
    const std::string more = shown.size() > kMostShown ? "\n(More: nubo_config_apply history)\n" : "";
    CheckAgain(change, "The configuration of mail has changed", "\n\n" + shown.substr(0, kMostShown) + more);
    GoOn();
    KeepNext(change, sort, shown);
    if (change.deadline == 0) return Settle(change);
  } catch (const Refused&) {
    EndPending();
    throw;
  } catch (const std::exception& error) {
    return GoBack(change, error.what());
  }
  std::cout << "In force. Until " << TimeOfDay("%H:%M:%S", change.deadline - Now())
            << " confirm it by: nubo_config_apply confirm\nOtherwise it is taken back." << std::endl;
  return 0;
}

int Settle(const Change& pending) {
  const int number = pending.base + 1;
  const bool state = fs::exists(kNext);
  if (state) fs::rename(kNext, StateDirectory(number));
  std::string said = "in force" + (state ? ", as state " + std::to_string(number) : "");
  try {  // whatever happens from here on, it is confirmed
    EndPending();
    for (std::set<int> states = States(); states.size() > kStatesKept; states = States()) {
      fs::rename(StateDirectory(*states.begin()), StateDirectory(*states.begin()) + ".new");
      fs::remove_all(StateDirectory(*states.begin()) + ".new");
    }
  } catch (const std::exception& error) {
    said += std::string("; but ") + error.what();
  }
  syslog(LOG_MAIL | LOG_NOTICE, "%s: %s", pending.what.c_str(), said.c_str());
  std::cout << 'I' << said.substr(1) << std::endl;
  return 0;
}

int GoBack(const Change& pending, const std::string& reason) {
  std::signal(SIGINT, SIG_IGN);  // one more must not end the programs that put things back
  std::cout << "Taken back: " << reason << std::endl;
  std::list<std::string> failed;
  const auto attempt = [&](const std::function<void()>& work) {
    try {
      work();
    } catch (const std::exception& error) {
      failed.emplace_back(error.what());
    }
  };
  const bool renew = fs::exists(kKeptSsl);
  const bool settings = Holds(kPending, Kind::kInput);
  attempt([&] {
    const Step step("The settings are put back");
    fs::remove_all(kNext + ".new");  // it may have filled the disk
    renew ? InstallSsl(kKeptSsl) : KeepRefused();
    if (settings) Mirror(Kind::kInput, kPending, kLive);
  });
  attempt([] {
    const Step step("The files are put back");
    Mirror(Kind::kOutput, kPending, kLive);
  });
  const bool files = failed.empty();
  if (settings) attempt(TellHelper);
  Change before = pending;
  if (pending.boot != ThisBoot()) before.running = RunningDaemons();  // none, when this is done at boot
  if (pending.boot == ThisBoot() || !before.running.empty()) {
    attempt([&] {
      const Step step("The daemons are restarted");
      StartAnew(before.running);
    });
    attempt([&] {
      CheckAgain(before, "A change of the mail system was taken back", " was taken back.\n" + reason + "\n");
    });
  }
  if (files) {
    attempt([&] {
      if (!renew) {
        LinkTree(kPending + "/refused", kRefused + ".new");
        Install(kRefused + ".new", kRefused);
      }
      EndPending();
    });
  }
  syslog(LOG_MAIL | LOG_WARNING, "%s was taken back: %s", pending.what.c_str(), reason.c_str());
  for (const std::string& one : failed) {
    std::cout << "Not as before: " << one << std::endl;
    syslog(LOG_MAIL | LOG_ERR, "not as before: %s", one.c_str());
  }
  if (IsPending()) {
    std::cout << "Mend what is named, then run: nubo_config_apply recover" << std::endl;
    return 4;
  }
  std::cout << (failed.empty() ? "All is as before" : "The files are as before")
            << (settings ? "; the settings that were refused are in " + kRefused
                         : "; your settings are as you wrote them")
            << std::endl;
  return failed.empty() ? 3 : 4;
}

void EndPending() {
  fs::rename(kPending, kPending + ".new");
  Sync({kPending});
  fs::remove_all(kPending + ".new");
}

void InstallSsl(const std::string& directory) {
  const std::string beside = kSsl + ".new";
  fs::remove_all(beside);
  RunOrThrow({"cp", "-aT", directory, beside}, "cannot copy " + directory);
  Install(beside, kSsl);
}
