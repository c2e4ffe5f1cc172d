#include "change/daemons.h"

#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <thread>

#include "change/basics.h"
#include "core/config_generator.h"
#include "mail/dovecot_config.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

constexpr const char* kMailScannerPid = "/run/MailScanner.pid";

// The user that runs a process; -1 when it has gone. (Any process can have another owner put on its files in
// /proc.)
uid_t UserOf(pid_t process) {
  const std::string status = ReadFile("/proc/" + std::to_string(process) + "/status");
  const size_t place = status.find("\nUid:");
  return place == std::string::npos ? static_cast<uid_t>(-1)
                                    : static_cast<uid_t>(std::stoul(status.substr(place + 5)));
}

bool IsOwner(uid_t user, const Daemon& daemon) {
  const passwd* account = daemon.account.empty() ? nullptr : getpwnam(daemon.account.c_str());
  return user == 0 || (account != nullptr && account->pw_uid == user);
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
    if (id > 0 && StartsWith(fs::read_symlink(process + "/exe", gone), daemon.program) &&
        Contains(ReadFile(process + "/cmdline") + ReadFile(process + "/environ"),
                 daemon.configuration + '\0') &&
        IsOwner(UserOf(id), daemon) && fs::read_symlink(process + "/ns/pid", gone) == here) {
      found.push_back(id);
    }
  }
  return found;
}

bool HasMaster() {
  Daemon master = DaemonOf(DaemonId::kPostfix);
  master.program += "sbin/master";
  return !ProcessesOf(master).empty();
}

// True when systemd has started the daemons, and has to start them again.
bool IsManaged() {
  return RunProgram({"systemctl", "is-active", "--quiet", "brindlecot-mail.target"}).status == 0;
}

bool HasSystemd() { return fs::exists("/run/systemd/system"); }

// The processes that listen on a port, and are the daemon's or not.
std::vector<Owner> Holders(const std::string& port, const Daemon& daemon, bool own) {
  const std::vector<pid_t> processes = ProcessesOf(daemon);
  std::vector<Owner> holders;
  for (const TcpListener& listener : TcpListeners()) {
    // A milter's place on ::1 is held by another process, of systemd or of the milter.
    if (listener.port != port || listener.address == "::1") continue;
    for (const Owner& owner : OwnersOf(listener)) {
      if (own == (std::count(processes.begin(), processes.end(), owner.pid) != 0)) holders.push_back(owner);
    }
  }
  return holders;
}

// For each process of others that listens on a port, what it is and how it is stopped.
std::set<std::string> Foreigners(const std::string& port, const Daemon& daemon) {
  std::set<std::string> lines;
  for (const Owner& owner : Holders(port, daemon, false)) {
    const std::string process = std::to_string(owner.pid);
    const std::string group = fs::path(ReadFile("/proc/" + process + "/cgroup")).filename();
    // Debian 12 runs its Postfix in postfix@-.service, which postfix.service starts again at boot.
    const size_t unit = std::min(group.find("@-.service"), group.find(".service"));
    lines.insert(
        "Port " + port + " is held by " + owner.program + ", process " + process + "; stop it by: " +
        (unit == std::string::npos ? "kill " + process : "systemctl disable --now " + group.substr(0, unit)));
  }
  return lines;
}

// Throws Fault.
void StartDaemon(const Daemon& daemon) {
  const bool managed = IsManaged();
  const auto start = [&](std::vector<std::string> command) {
    // Otherwise systemd would end it together with the service that this program runs in.
    if (HasSystemd() && !managed) command.insert(command.begin(), {"systemd-run", "--quiet", "--scope"});
    return RunProgram(command);
  };
  // systemd does not start what has failed a few times in a row.
  if (managed) RunProgram({"systemctl", "reset-failed", daemon.unit});
  const mode_t mask = umask(022);
  const ProgramResult result =
      start(managed ? std::vector<std::string>{"systemctl", "start", daemon.unit} : daemon.start);
  if (!managed && !daemon.milterPort.empty() && result.status == 0) {
    start(StartOnIpv6(daemon));  // in vain where there is no IPv6
  }
  umask(mask);
  if (result.status != 0) throw Fault(daemon.name + " does not start: " + result.output + result.errors);
  if (!WaitFor([&] { return IsServing(daemon); }, seconds(5))) {
    const std::set<std::string> others = Foreigners(daemon.milterPort, daemon);
    throw Fault(daemon.name + " does not listen. " + JoinList({others.begin(), others.end()}, ". "));
  }
}

// MailScanner's user can write the file with the number of its process. So that process is signalled only if
// it is this user's own, who could do it himself.
bool ReloadMailScanner() {
  const pid_t process = std::atoi(ReadFile(kMailScannerPid).c_str());
  struct stat file = {};
  if (process <= 0 || lstat(kMailScannerPid, &file) != 0 || !S_ISREG(file.st_mode)) return false;
  const std::string place = "/proc/" + std::to_string(process);
  return (file.st_uid == 0 || file.st_uid == UserOf(process)) &&
         Contains(ReadFile(place + "/cmdline"), DaemonOf(DaemonId::kMailScanner).name) &&
         kill(process, SIGHUP) == 0;
}

// What Postfix reads at its start only. Nothing when the main.cf in the directory cannot be read.
std::optional<std::vector<std::string>> FixedParameters(const std::string& etc) {
  try {
    Parameters mainCf = PostfixParameters(etc);
    return std::vector{mainCf["inet_interfaces"], mainCf["inet_protocols"], mainCf["queue_directory"]};
  } catch (const Fault&) {
    return {};
  }
}

std::string ReloadPostfix(const Daemon& postfix, const std::vector<std::string>& earlier) {
  CheckFiles(postfix);
  const auto now = FixedParameters(kEtc);
  const bool reload = HasMaster() && std::all_of(earlier.begin(), earlier.end(), [&](const std::string& etc) {
                        const auto then = FixedParameters(etc);
                        return !then || then == now;
                      });
  if (reload) {
    RunOrThrow({"postfix", "-c", kEtc, "reload"}, "Postfix does not take the new files");
  } else {
    RestartDaemon(postfix);
  }
  // A master that cannot go on says so to nobody, and ends after a second.
  std::this_thread::sleep_for(seconds(2));
  if (!HasMaster()) throw Fault("Postfix has ended on the new files");
  return reload ? "reloaded" : "restarted";
}

}  // namespace

std::set<DaemonId> RunningDaemons() {
  std::set<DaemonId> running;
  for (const Daemon& daemon : Daemons()) {
    if (!ProcessesOf(daemon).empty()) running.insert(daemon.id);
  }
  return running;
}

bool IsServing(const Daemon& daemon) {
  if (daemon.id == DaemonId::kPostfix) return HasMaster();
  return daemon.milterPort.empty() ? !ProcessesOf(daemon).empty()
                                   : !Holders(daemon.milterPort, daemon, true).empty();
}

std::set<DaemonId> WantedMilters(const std::string& etc) {
  std::set<DaemonId> wanted;
  try {
    const Parameters mainCf = PostfixParameters(etc);
    for (const Daemon& daemon : Daemons()) {
      if (!daemon.milterPort.empty() && IsWanted(daemon, mainCf)) wanted.insert(daemon.id);
    }
  } catch (const Fault&) {
  }
  return wanted;
}

void CheckFiles(const Daemon& daemon) {
  RunOrThrow(daemon.check, "the files of " + daemon.name + " are not good");
}

std::string ReloadDaemon(DaemonId id, const std::vector<std::string>& earlier) {
  switch (id) {
    case DaemonId::kMailScanner:
      return ReloadMailScanner() ? "reloaded" : "not running";
    case DaemonId::kPostfix:
      return ReloadPostfix(DaemonOf(id), earlier);
    case DaemonId::kDovecot:
    case DaemonId::kOpenDkim:
    case DaemonId::kOpenDmarc:
      RestartDaemon(DaemonOf(id));
  }
  return "restarted";
}

void RestartDaemon(const Daemon& daemon) {
  CheckFiles(daemon);
  StopDaemon(daemon);
  StartDaemon(daemon);
}

bool IsHeldBy(const TcpListener& listener, const Daemon& daemon) {
  const std::vector<pid_t> processes = ProcessesOf(daemon);
  const std::vector<Owner> owners = OwnersOf(listener);
  return std::any_of(owners.begin(), owners.end(), [&](const Owner& owner) {
    return std::count(processes.begin(), processes.end(), owner.pid) != 0;
  });
}

void StopDaemon(const Daemon& daemon) {
  if (IsManaged()) RunProgram({"systemctl", "stop", daemon.unit});
  for (const int number : {SIGTERM, SIGKILL}) {
    for (const pid_t process : ProcessesOf(daemon)) kill(process, number);
    if (WaitFor([&] { return ProcessesOf(daemon).empty(); }, seconds(10))) return;
  }
}

std::string SharedPorts() {
  const Daemon& postfix = DaemonOf(DaemonId::kPostfix);
  std::set<std::string> ports;
  const std::vector<TcpListener> all = TcpListeners();
  for (const TcpListener& one : all) {
    const bool twice = std::any_of(all.begin(), all.end(), [&](const TcpListener& other) {
      return other.port == one.port && other.address == one.address && other.inode != one.inode;
    });
    if (twice && IsHeldBy(one, postfix)) ports.insert(one.port);
  }
  std::set<std::string> lines;
  for (const std::string& port : ports) lines.merge(Foreigners(port, postfix));
  return JoinList({lines.begin(), lines.end()}, ". ");
}

std::string StartCommand(const Daemon& daemon) {
  return IsManaged() ? "systemctl start " + daemon.unit
                     : JoinList({daemon.start.begin(), daemon.start.end()}, " ");
}

std::set<std::string> FirstSteps() {
  std::set<std::string> steps;
  for (const PostfixService& service : ParseServices(ReadFile(kEtc + "/master.cf"))) {
    if (service.type == "inet") steps.merge(Foreigners(service.port, DaemonOf(DaemonId::kPostfix)));
  }
  const std::string listeners = ReadFile(kEtc + "/dovecot/conf.d/10-master.conf");
  for (const DovecotListener& listener : DovecotListeners(ParseDovecot(listeners))) {
    steps.merge(Foreigners(listener.port, DaemonOf(DaemonId::kDovecot)));
  }
  if (HasSystemd()) {
    steps.insert("Start the daemons now and with the machine: systemctl enable --now brindlecot-mail.target");
    return steps;
  }
  for (const Daemon& daemon : Daemons()) {
    if (daemon.milterPort.empty()) steps.insert("Start " + daemon.name + ": " + StartCommand(daemon));
  }
  return steps;
}
