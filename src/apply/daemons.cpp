#include "apply/daemons.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

#include "apply/basics.h"
#include "core/config_generator.h"
#include "core/paths.h"
#include "preview/program.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

const std::string kTree = kEtc;
constexpr const char* kMailScannerPid =
    "/var/packages/Brindlecot/target/var/spool/MailScanner/run/MailScanner.pid";

struct Daemon {
  std::string name;
  std::string unit;
  std::string program;               // of its processes; that of Postfix begins so
  std::string mark;                  // in their arguments or environment
  std::vector<std::string> command;  // that starts it
  std::string port;                  // of a milter
};

// In the order of their start.
// clang-format off
const std::vector<Daemon>& Daemons() {
  static const std::vector<Daemon> daemons = {
      {"OpenDKIM", "brindlecot-opendkim", "/usr/sbin/opendkim", kTree + "/opendkim.conf",
       {"opendkim", "-x", kTree + "/opendkim.conf"}, "8891"},
      {"OpenDMARC", "brindlecot-opendmarc", "/usr/sbin/opendmarc", kTree + "/opendmarc.conf",
       {"opendmarc", "-c", kTree + "/opendmarc.conf"}, "8893"},
      {"Dovecot", "brindlecot-dovecot", "/usr/sbin/dovecot", kTree + "/dovecot/dovecot.conf",
       {"dovecot", "-c", kTree + "/dovecot/dovecot.conf"}, ""},
      {"Postfix", "brindlecot-postfix", "/usr/lib/postfix/", kTree + '\0', {"postfix", "-c", kTree, "start"}, ""}};
  return daemons;
}
// clang-format on

// Those that read the file.
std::set<std::string> ReadersOf(const std::string& path) {
  if (path.rfind(kSsl, 0) == 0) return {"Dovecot", "Postfix"};
  for (const auto& [begin, reader] : {std::pair(kTree + "/opendkim", "OpenDKIM"),
                                      {kTree + "/opendmarc", "OpenDMARC"},
                                      {kTree + "/dovecot/", "Dovecot"},
                                      {kTree + "/MailScanner/", "MailScanner"},
                                      {kTree + "/spamassassin/", "MailScanner"},
                                      {kTree + "/", "Postfix"}}) {
    if (path.rfind(begin, 0) == 0) return {reader};
  }
  return {};
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
        (TextOf(process + "/cmdline") + TextOf(process + "/environ")).find(daemon.mark) !=
            std::string::npos &&
        fs::read_symlink(process + "/ns/pid", gone) == here) {
      found.push_back(id);
    }
  }
  return found;
}

// The values of parameters in a directory's main.cf.
std::string Parameters(const std::string& etc, const std::vector<std::string>& names) {
  std::vector<std::string> command = {"postconf", "-c", etc, "-h"};
  command.insert(command.end(), names.begin(), names.end());
  return RunProgram(command).output;
}

// True when systemd has started the daemons, and has to start them again.
bool Managed() {
  return RunProgram({"systemctl", "is-active", "--quiet", "brindlecot-mail.target"}).status == 0;
}

// Throws Fault.
void Start(const Daemon& daemon) {
  std::vector<std::string> command = daemon.command;
  if (Managed()) {
    // systemd does not start what has failed a few times in a row.
    RunProgram({"systemctl", "reset-failed", daemon.unit});
    command = {"systemctl", "start", daemon.unit};
  } else if (fs::exists("/run/systemd/system")) {
    // Otherwise systemd would end it together with the service that this program runs in.
    command.insert(command.begin(), {"systemd-run", "--quiet", "--scope"});
  }
  RunOrThrow(command, daemon.name + " does not start");
  if (!daemon.port.empty() && !WaitFor([&] { return Listens(daemon.port); }, seconds(5))) {
    throw Fault(daemon.name + " does not listen on port " + daemon.port);
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
  const pid_t process = std::atoi(TextOf(kMailScannerPid).c_str());
  return process > 0 &&
         TextOf("/proc/" + std::to_string(process) + "/cmdline").find("MailScanner") != std::string::npos &&
         kill(process, SIGHUP) == 0;
}

// Has a daemon load its files. Returns how. Throws Fault.
std::string Load(const Daemon& daemon, const std::string& before) {
  const auto fixed = [](const std::string& etc) {  // what Postfix reads at its start only
    return Parameters(etc, {"inet_interfaces", "inet_protocols", "queue_directory"});
  };
  Daemon master = daemon;
  master.program += "sbin/master";
  const bool postfix = daemon.name == "Postfix";
  const bool reload = postfix && fixed(before) == fixed(kTree) && !ProcessesOf(master).empty();
  if (reload) {
    RunOrThrow({"postfix", "-c", kTree, "reload"}, "Postfix does not take the new files");
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
  const auto wanted = [](const Daemon& daemon, const std::string& etc) {
    return daemon.port.empty() ||
           Parameters(etc, {"smtpd_milters"}).find(':' + daemon.port) != std::string::npos;
  };
  std::list<std::string> done;
  for (const Daemon& daemon : Daemons()) {
    const bool load = running.count(daemon.name) != 0
                          ? concerned.count(daemon.name) != 0
                          : running.count("Postfix") != 0 && !wanted(daemon, before);
    if (load && wanted(daemon, kTree)) done.push_back(daemon.name + Load(daemon, before));
  }
  if (concerned.count("MailScanner") != 0 && ReloadMailScanner()) done.emplace_back("MailScanner reloaded");
  for (const Daemon& daemon : Daemons()) {
    if (running.count(daemon.name) == 0 || wanted(daemon, kTree)) continue;
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
