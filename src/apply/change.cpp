#include "apply/change.h"

#include <syslog.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <sstream>
#include <thread>

#include "apply/go_back.h"
#include "apply/lock.h"
#include "apply/report.h"
#include "apply/state.h"
#include "main/commands.h"
#include "preview/program.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

const std::string kBin = "/var/packages/Brindlecot/target/bin/";
const std::string kNext = std::string(kPending) + "/next";
constexpr const char* kEtcInTree = "/out/var/packages/Brindlecot/target/etc";
constexpr size_t kStatesKept = 10;

volatile std::sig_atomic_t interrupted = 0;

void GoOn() {
  if (interrupted != 0) throw Fault("it was interrupted");
}

struct Base {
  int number;
  std::string tree;
  std::vector<RunningDaemon> running;
  std::set<std::string> unwell;
};

// The last confirmed state, made from the files as they are found where there is none; and mail as it is.
Base BaseOfChange() {
  if (IsPending()) throw Fault("a change is pending: confirm it, or take it back by recover");
  if (States().empty()) {
    const std::string tree = StateDirectory(1) + ".new";
    Keep(Kind::kOutput, tree, "");
    WriteText(tree + "/preview", "As found\n");
    Install(tree, StateDirectory(1));
  }
  const int number = *States().rbegin();
  Base base = {number, StateDirectory(number), RunningDaemons(), {}};
  Step step("Mail as it is");
  for (const MailObservation& one :
       AskMail(base.running, "Mail before a change of its configuration",
               "The configuration is about to change. This message shows that mail is "
               "delivered.\n")) {
    if (!one.good) base.unwell.insert(one.what);
  }
  step.Say(base.running.empty()  ? "no daemon runs"
           : base.unwell.empty() ? "well"
                                 : "not well: " + Join({base.unwell.begin(), base.unwell.end()}, "; "));
  return base;
}

struct Shown {
  int status;
  std::string text;
};

// Runs the preview with its rehearsal. True when the change can be tried; otherwise prints why not.
bool Accepted(const std::vector<std::string>& words, Shown& shown) {
  std::vector<std::string> command = {kBin + "nubo_config_preview"};
  if (words.size() == 1) command.push_back(words[0]);
  {
    const Step step("Preview and rehearsal");
    const Ended ended = RunProgram(command);
    shown = {ended.status, ended.output + ended.errors};
  }
  if (shown.status == 0 || shown.status == 1) return true;
  std::cout << shown.text << "Refused by the preview; nothing was touched." << std::endl;
  return false;
}

// The files that the preview has named, on a line each, and that are still what they were before the change.
// (The exit status of "nubo_set_config smtp" does not tell.)
std::vector<std::string> Unwritten(const std::string& shown) {
  const std::vector<std::string> written = Differing(Kind::kOutput, kPending);
  std::vector<std::string> unwritten;
  std::istringstream lines(shown);
  for (std::string line; std::getline(lines, line);) {
    const std::string path = line.substr(0, line.find(": "));
    if (line[0] == '/' && std::find(written.begin(), written.end(), path) == written.end())
      unwritten.push_back(path);
  }
  return unwritten;
}

void RunAll(const std::vector<std::string>& words) {
  for (const std::string& word : words) {
    const Ended ended = RunProgram({"flock", kRunLock, kBin + "nubo_set_config", word});
    if (ended.status != 0) {
      throw Fault("nubo_set_config " + word + " ended with " + std::to_string(ended.status) +
                  ", see the system log");
    }
  }
}

// Writes the way back to the disk. From here on, whatever happens, the change ends confirmed or taken back.
// `inputs` are the settings to go back to; without them, those of the base.
Pending Arm(const Base& base, const std::string& what, int minutes, bool liveInputs) {
  const std::string tree = std::string(kPending) + ".new";
  Keep(Kind::kOutput, tree, base.tree);
  if (liveInputs) {
    Keep(Kind::kInput, tree, base.tree);
  } else if (Holds(base.tree, Kind::kInput)) {
    fs::copy(base.tree + "/in", tree + "/in",
             fs::copy_options::recursive | fs::copy_options::create_hard_links);
  }
  Pending pending;
  pending.base = base.number;
  pending.what = what;
  pending.boot = ThisBoot();
  pending.deadline = minutes > 0 ? Now() + 60L * minutes : 0;
  pending.running = base.running;
  pending.unwell = base.unwell;
  WritePending(pending, tree);
  Install(tree, kPending);
  if (minutes > 0) {
    // It has to outlive the session, and where systemd ends a session's processes, their group too.
    const std::string self = fs::read_symlink("/proc/self/exe");
    if (!fs::exists("/run/systemd/system") ||
        RunProgram({"systemd-run", "--quiet", "--collect", self, "wait"}).status != 0) {
      RunProgram({"setsid", "--fork", self, "wait"});
    }
  }
  return pending;
}

std::string Today() {
  const std::time_t now = std::time(nullptr);
  std::tm local = {};
  char text[32] = "";
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime_r(&now, &local));
  return text;
}

int MakeState(const Pending& pending) {
  const int number = pending.base + 1;
  fs::rename(kNext, StateDirectory(number));  // from here on it is confirmed
  EndPending();
  for (std::set<int> states = States(); states.size() > kStatesKept; states = States()) {
    fs::rename(StateDirectory(*states.begin()), StateDirectory(*states.begin()) + ".new");
    fs::remove_all(StateDirectory(*states.begin()) + ".new");
  }
  syslog(LOG_MAIL | LOG_NOTICE, "%s is in force as state %d", pending.what.c_str(), number);
  std::cout << "In force, as state " << number << std::endl;
  return 0;
}

// After the way back is written: brings into force what `write` writes, or puts everything back.
int BringAbout(const Base& base, const Pending& pending, const std::string& shown, bool inputs,
               const std::function<void()>& write) {
  try {
    {
      const Step step("The files are written");
      write();
    }
    const std::vector<std::string> unwritten = inputs ? Unwritten(shown) : std::vector<std::string>();
    if (!unwritten.empty()) throw Fault("not written, see the system log: " + Join(unwritten, ", "));
    GoOn();
    // Nobody knows what the daemons have loaded of files as found.
    std::vector<std::string> changed =
        Differing(Kind::kOutput, Holds(base.tree, Kind::kInput) ? base.tree : "/nowhere");
    const std::vector<std::string> more = Differing(Kind::kInput, base.tree);
    std::copy(more.begin(), more.end(), std::back_inserter(changed));
    Sync(changed);
    {
      Step step("The daemons follow");
      const std::vector<std::string> done = Follow(changed, base.tree + kEtcInTree);
      step.Say(done.empty() ? "nothing to do" : Join(done, ", "));
    }
    GoOn();
    {
      const Step step("Mail is checked");
      const std::vector<std::string> worse =
          Worse(AskMail(base.running, "The configuration of mail has changed", pending.what + "\n\n" + shown),
                base.unwell);
      if (!worse.empty()) throw Fault(Join(worse, "; "));
    }
    GoOn();
    const std::string tree = kNext + ".new";
    Keep(Kind::kOutput, tree, base.tree);
    if (inputs) Keep(Kind::kInput, tree, base.tree);
    WriteText(tree + "/preview", Today() + "  " + pending.what + "\n\n" + shown);
    Install(tree, kNext);
  } catch (const std::exception& error) {
    return GoBack(pending, error.what());
  }
  if (pending.deadline == 0) return MakeState(pending);
  const long left = std::max(0L, pending.deadline - Now());
  std::cout << "In force. Confirm it within " << left / 60 << " min " << left % 60
            << " s by: nubo_config_apply confirm\nOtherwise it is taken back." << std::endl;
  return 0;
}

}  // namespace

void OutliveSession() {
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
  for (const int number : {SIGINT, SIGTERM}) std::signal(number, [](int) { interrupted = 1; });
}

int Apply(const std::vector<std::string>& words, int minutes) {
  const Base base = BaseOfChange();
  Shown shown;
  if (!Accepted(words, shown)) return 1;
  const bool known = Holds(base.tree, Kind::kInput);
  if (shown.status == 0 && known && Differing(Kind::kOutput, base.tree).empty() &&
      Differing(Kind::kInput, base.tree).empty()) {
    std::cout << "Nothing has changed since state " << base.number << std::endl;
    return 0;
  }
  GoOn();
  const std::string what = words.size() == 1 ? "nubo_config_apply " + words[0] : "nubo_config_apply";
  const Pending pending = Arm(base, what, minutes, false);
  return BringAbout(base, pending, shown.text, true, [&] { RunAll(words); });
}

int Undo(int state, int minutes) {
  const std::set<int> states = States();
  if (state == 0 && states.size() > 1) state = *std::next(states.rbegin());
  if (states.count(state) == 0) throw Fault("there is no such state, see: nubo_config_apply history");
  const std::string tree = StateDirectory(state);
  const Base base = BaseOfChange();
  const Pending pending = Arm(base, "nubo_config_apply undo " + std::to_string(state), minutes, true);
  if (!Holds(tree, Kind::kInput)) {
    return BringAbout(base, pending, "The files of state " + std::to_string(state) + ".\n", false, [&] {
      const std::vector<std::string> failed = PutBack(Kind::kOutput, tree);
      if (!failed.empty()) throw Fault(Join(failed, "; "));
    });
  }
  Shown shown = {2, ""};
  const std::vector<std::string> failed = PutBack(Kind::kInput, tree);
  if (!failed.empty() || !Accepted(CommandWords(), shown)) {
    const std::vector<std::string> still = PutBack(Kind::kInput, kPending);
    std::cout << Join(failed, "\n") << Join(still, "\n");
    if (!still.empty()) return 4;
    EndPending();
    return 1;
  }
  return BringAbout(base, pending, shown.text, true, [] { RunAll(CommandWords()); });
}

int Confirm() {
  const Pending pending = ReadPending();
  if (!fs::exists(kNext))
    throw Fault("the change was not finished; take it back by: nubo_config_apply recover");
  return MakeState(pending);
}

int Recover() {
  if (!IsPending()) {
    std::cout << "No change is pending." << std::endl;
    return 0;
  }
  const Pending pending = ReadPending();
  if (States().count(pending.base + 1) == 0) {
    return GoBack(pending, fs::exists(kNext) ? "it was not confirmed" : "it was not finished");
  }
  EndPending();  // confirmed, and killed before it could say so
  return 0;
}

int Wait() {
  OutliveSession();
  const long deadline = ReadPending().deadline;
  while (Now() < deadline) {
    std::this_thread::sleep_for(seconds(1));
    // At a shutdown it must not be waited for. What is pending then is taken back at boot.
    if (interrupted != 0 || !IsPending() || ReadPending().deadline != deadline) return 0;
  }
  const Lock lock(std::chrono::hours(24));
  if (!lock.Held() || !IsPending() || ReadPending().deadline != deadline) return 0;
  return Recover();
}
