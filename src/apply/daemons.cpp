#include "apply/daemons.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

#include "apply/basics.h"
#include "core/config_generator.h"
#include "mail_check/daemons.h"
#include "mail_check/listeners.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

constexpr const char* kMailScannerPid = "/run/MailScanner.pid";

// Those that read the file.
std::set<std::string> ReadersOf(const std::string& path) {
  std::set<std::string> readers;
  if (StartsWith(path, kEtc + "/MailScanner/") || StartsWith(path, kEtc + "/spamassassin/"))
    return {"MailScanner"};
  for (const Daemon& daemon : Daemons()) {
    for (const std::string& begin : daemon.files) {
      if (!StartsWith(path, begin)) continue;
      if (!StartsWith(path, kSsl)) return {daemon.name};
      readers.insert(daemon.name);
    }
  }
  return readers;
}

// Its processes on this machine, and not in a container or a rehearsal. While a daemon starts there may be
// two; of Postfix there are many, also when its master has died and left the others behind.
std::vector<pid_t> ProcessesOf(const Daemon& daemon) {
  std::vector<pid_t> found;
  std::error_code gone;  // any of them may end at any moment
  const fs::path here = fs::read_symlink("/proc/self/ns/pid", gone);
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
    const std::string process = entry.path();
    const pid_t id = std::atoi(entry.path().filename().c_str());
    if (id > 0 && fs::read_symlink(process + "/exe", gone).string().rfind(daemon.program, 0) == 0 &&
        (ReadFile(process + "/cmdline") + ReadFile(process + "/environ")).find(daemon.configuration + '\0') !=
            std::string::npos &&
        fs::read_symlink(process + "/ns/pid", gone) == here) {
      found.push_back(id);
    }
  }
  return found;
}

// The parameters of a directory's main.cf; none when Postfix cannot read it.
Parameters MainCf(const std::string& etc) {
  try {
    return PostfixParameters(etc);
  } catch (const Fault&) {
    return {};
  }
}

// True when systemd has started the daemons, and has to start them again.
bool Managed() {
  return RunProgram({"systemctl", "is-active", "--quiet", "brindlecot-mail.target"}).status == 0;
}

// Throws Fault.
void Start(const Daemon& daemon) {
  std::vector<std::string> command = daemon.start;
  if (Managed()) {
    // systemd does not start what has failed a few times in a row.
    RunProgram({"systemctl", "reset-failed", daemon.unit});
    command = {"systemctl", "start", daemon.unit};
  } else if (fs::exists("/run/systemd/system")) {
    // Otherwise systemd would end it together with the service that this program runs in.
    command.insert(command.begin(), {"systemd-run", "--quiet", "--scope"});
  }
  RunOrThrow(command, daemon.name + " does not start");
  if (!daemon.milterPort.empty() && !WaitFor([&] { return IsListening(daemon.milterPort); }, seconds(5))) {
    throw Fault(daemon.name + " does not listen on port " + daemon.milterPort);
  }
}

// What a dead master of Postfix has left behind is ended too: it would share the ports with the next one.
void Stop(const Daemon& daemon) {
  if (Managed()) RunProgram({"systemctl", "stop", daemon.unit});
  for (const int number : {SIGTERM, SIGKILL}) {
    for (const pid_t process : ProcessesOf(daemon)) kill(process, number);
    if (WaitFor([&] { return ProcessesOf(daemon).empty(); }, seconds(10))) return;
  }
}

// False when it does not run. Its file may be of an earlier boot, and the number another program's by now.
bool ReloadMailScanner() {
  const pid_t process = std::atoi(ReadFile(kMailScannerPid).c_str());
  return process > 0 &&
         ReadFile("/proc/" + std::to_string(process) + "/cmdline").find("MailScanner") != std::string::npos &&
         kill(process, SIGHUP) == 0;
}

// Has a daemon load its files. Returns how. Throws Fault.
std::string Load(const Daemon& daemon, const std::string& before) {
  const auto fixed = [](const std::string& etc) {  // what Postfix reads at its start only
    Parameters mainCf = MainCf(etc);
    return std::vector{mainCf["inet_interfaces"], mainCf["inet_protocols"], mainCf["queue_directory"]};
  };
  Daemon master = daemon;
  master.program += "sbin/master";
  const bool postfix = daemon.name == "Postfix";
  const bool reload = postfix && fixed(before) == fixed(kEtc) && !ProcessesOf(master).empty();
  if (reload) {
    RunOrThrow({"postfix", "-c", kEtc, "reload"}, "Postfix does not take the new files");
  } else {
    Stop(daemon);
    Start(daemon);
  }
  if (postfix) {
    // A master that cannot go on says so to nobody, and ends after a second.
    std::this_thread::sleep_for(seconds(2));
    if (ProcessesOf(master).empty()) throw Fault("Postfix has ended on the new files");
  }
  return reload ? " reloaded" : " restarted";
}

}  // namespace

std::set<std::string> RunningDaemons() {
  std::set<std::string> running;
  for (const Daemon& daemon : Daemons()) {
    if (!ProcessesOf(daemon).empty()) running.insert(daemon.name);
  }
  return running;
}

std::list<std::string> Follow(const std::set<std::string>& changed, const std::string& before) {
  std::set<std::string> concerned;
  for (const std::string& path : changed) concerned.merge(ReadersOf(path));
  const std::set<std::string> running = RunningDaemons();
  const Parameters mainCf = MainCf(kEtc);
  const Parameters earlier = MainCf(before);
  std::list<std::string> done;
  for (const Daemon& daemon : Daemons()) {
    const bool load = running.count(daemon.name) != 0
                          ? concerned.count(daemon.name) != 0
                          : running.count("Postfix") != 0 && !IsWanted(daemon, earlier);
    if (load && IsWanted(daemon, mainCf)) done.push_back(daemon.name + Load(daemon, before));
  }
  if (concerned.count("MailScanner") != 0 && ReloadMailScanner()) done.emplace_back("MailScanner reloaded");
  for (const Daemon& daemon : Daemons()) {
    if (running.count(daemon.name) == 0 || IsWanted(daemon, mainCf)) continue;
    Stop(daemon);
    done.push_back(daemon.name + " stopped");
  }
  return done;
}

void StartAnew(const std::set<std::string>& wanted) {
  ReloadMailScanner();
  std::for_each(Daemons().rbegin(), Daemons().rend(), Stop);
  std::list<std::string> failed;
  for (const Daemon& daemon : Daemons()) {
    if (wanted.count(daemon.name) == 0) continue;
    for (int triesLeft = 2; triesLeft > 0; --triesLeft) {
      try {
        Start(daemon);
        break;
      } catch (const Fault& fault) {
        // A change that was killed may have left a start behind, which has come first.
        Stop(daemon);
        if (triesLeft == 1) failed.emplace_back(fault.what());
      }
    }
  }
  if (!failed.empty()) throw Fault(JoinList(failed, "; "));
}
