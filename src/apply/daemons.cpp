#include "apply/daemons.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>

#include "apply/state.h"
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
  std::string process;               // as /proc/PID/comm names it
  std::string mark;                  // in its arguments or its environment
  std::string files;                 // those that it reads begin so; Postfix: all others
  std::vector<std::string> command;  // that starts it
  std::string port;                  // of a milter
};

// clang-format off
const std::vector<Daemon>& Daemons() {
  static const std::vector<Daemon> daemons = {
      {"OpenDKIM", "brindlecot-opendkim", "opendkim", kTree + "/opendkim.conf", kTree + "/opendkim",
       {"opendkim", "-x", kTree + "/opendkim.conf"}, "8891"},
      {"OpenDMARC", "brindlecot-opendmarc", "opendmarc", kTree + "/opendmarc.conf", kTree + "/opendmarc",
       {"opendmarc", "-c", kTree + "/opendmarc.conf"}, "8893"},
      {"Dovecot", "brindlecot-dovecot", "dovecot", kTree + "/dovecot/dovecot.conf", kTree + "/dovecot/",
       {"dovecot", "-c", kTree + "/dovecot/dovecot.conf"}, ""},
      {"MailScanner", "", "", "", kTree + "/MailScanner/", {}, ""},
      {"MailScanner", "", "", "", kTree + "/spamassassin/", {}, ""},
      {"Postfix", "brindlecot-postfix", "master", "config_directory=" + kTree + '\0', kTree + "/",
       {"postfix", "-c", kTree, "start"}, ""}};
  return daemons;
}
// clang-format on

const Daemon& Named(const std::string& name) {
  return *std::find_if(Daemons().begin(), Daemons().end(),
                       [&](const Daemon& daemon) { return daemon.name == name; });
}

bool WaitFor(const std::function<bool()>& condition, seconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

bool Answers(const std::string& port) {
  addrinfo* places = nullptr;
  if (getaddrinfo("localhost", port.c_str(), nullptr, &places) != 0) return false;
  bool answers = false;
  for (const addrinfo* place = places; place != nullptr && !answers; place = place->ai_next) {
    const int end = socket(place->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    answers = end >= 0 && connect(end, place->ai_addr, place->ai_addrlen) == 0;
    if (end >= 0) close(end);
  }
  freeaddrinfo(places);
  return answers;
}

// The processes of this machine, and not of a container or a rehearsal, for which `wanted` holds.
std::vector<pid_t> Processes(const std::function<bool(const std::string& directory)>& wanted) {
  std::vector<pid_t> found;
  std::error_code gone;  // any of them may end at any moment
  const fs::path here = fs::read_symlink("/proc/self/ns/pid", gone);
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
    const std::string directory = entry.path();
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (wanted(directory) && fs::read_symlink(directory + "/ns/pid", gone) == here)
      found.push_back(std::stoi(name));
  }
  return found;
}

// More than one while a daemon starts.
std::vector<pid_t> ProcessesOf(const Daemon& daemon) {
  return Processes([&](const std::string& directory) {
    return TextOf(directory + "/comm") == daemon.process + "\n" &&
           (TextOf(directory + "/cmdline") + TextOf(directory + "/environ")).find(daemon.mark) !=
               std::string::npos;
  });
}

bool ByUnit(const std::string& unit) {
  return fs::exists("/run/systemd/system") &&
         RunProgram({"systemctl", "is-active", "--quiet", unit}).status == 0;
}

// What Postfix's master leaves behind when it dies.
void EndOrphans() {
  const auto orphans = [] {
    return Processes([](const std::string& directory) {
      std::error_code gone;
      const std::string program = fs::read_symlink(directory + "/exe", gone);
      return program.rfind("/usr/lib/postfix/", 0) == 0 &&
             TextOf(directory + "/environ").find("MAIL_CONFIG=" + kTree + '\0') != std::string::npos;
    });
  };
  for (const pid_t orphan : orphans()) kill(orphan, SIGKILL);
  WaitFor([&] { return orphans().empty(); }, seconds(5));
}

bool Wants(const Daemon& milter, const std::string& etc) {
  const std::string main = TextOf(etc + "/main.cf");
  const size_t line = main.find("\nsmtpd_milters = ");
  return line != std::string::npos &&
         main.substr(line + 1, main.find('\n', line + 1) - line).find(':' + milter.port) != std::string::npos;
}

// Parameters that Postfix reads at its start only.
std::string Fixed(const std::string& etc) {
  return RunProgram({"postconf", "-c", etc, "-h", "inet_interfaces", "inet_protocols", "queue_directory"})
      .output;
}

void Restart(const RunningDaemon& daemon) {
  StopDaemon(daemon);
  StartDaemon(daemon.name, daemon.unit);
}

}  // namespace

std::vector<RunningDaemon> RunningDaemons() {
  std::vector<RunningDaemon> running;
  for (const Daemon& daemon : Daemons()) {
    if (!ProcessesOf(daemon).empty()) running.push_back({daemon.name, ByUnit(daemon.unit)});
  }
  return running;
}

bool Runs(const std::vector<RunningDaemon>& daemons, const std::string& name) {
  return std::any_of(daemons.begin(), daemons.end(),
                     [&](const RunningDaemon& daemon) { return daemon.name == name; });
}

void StartDaemon(const std::string& name, bool unit) {
  const Daemon& daemon = Named(name);
  const Ended ended =
      RunProgram(unit ? std::vector<std::string>{"systemctl", "start", daemon.unit} : daemon.command);
  if (ended.status != 0) throw Fault(name + " does not start: " + ended.output + ended.errors);
  if (!daemon.port.empty() && !WaitFor([&] { return Answers(daemon.port); }, seconds(5))) {
    throw Fault(name + " does not answer on port " + daemon.port);
  }
}

void StopDaemon(const RunningDaemon& daemon) {
  if (daemon.unit) {
    RunProgram({"systemctl", "stop", Named(daemon.name).unit});
  } else {
    const auto end = [&](int number) {
      for (const pid_t process : ProcessesOf(Named(daemon.name))) kill(process, number);
      return WaitFor([&] { return ProcessesOf(Named(daemon.name)).empty(); }, seconds(10));
    };
    if (!end(SIGTERM)) end(SIGKILL);
  }
  if (daemon.name == "Postfix") EndOrphans();
}

std::vector<std::string> Follow(const std::vector<std::string>& changed, const std::string& before) {
  const std::vector<RunningDaemon> running = RunningDaemons();
  const auto find = [&](const std::string& name) {
    return std::find_if(running.begin(), running.end(),
                        [&](const RunningDaemon& one) { return one.name == name; });
  };
  const auto postfix = find("Postfix");
  std::set<std::string> concerned;  // by what has changed
  for (const std::string& path : changed) {
    for (const Daemon& daemon : Daemons()) {
      if (path.rfind(daemon.files, 0) == 0) {
        concerned.insert(daemon.name);
        break;
      }
    }
  }
  std::vector<std::string> done;
  for (const Daemon& daemon : Daemons()) {
    const auto own = find(daemon.name);
    const bool milter = !daemon.port.empty();
    if (daemon.name == "Postfix" || (milter && !Wants(daemon, kTree))) continue;
    if (own != running.end() && concerned.count(daemon.name) != 0) {
      Restart(*own);
      done.push_back(daemon.name + " restarted");
    } else if (own == running.end() && milter && !Wants(daemon, before) && postfix != running.end()) {
      StartDaemon(daemon.name, postfix->unit);
      done.push_back(daemon.name + " started");
    }
  }
  if (postfix != running.end() && concerned.count("Postfix") != 0) {
    const bool restart = Fixed(before) != Fixed(kTree);
    if (restart) {
      Restart(*postfix);
    } else {
      const Ended ended = RunProgram({"postfix", "-c", kTree, "reload"});
      if (ended.status != 0)
        throw Fault("Postfix does not take the new files: " + ended.output + ended.errors);
    }
    // A master that cannot go on says so to nobody, and ends after a second.
    std::this_thread::sleep_for(seconds(2));
    if (!Runs(RunningDaemons(), "Postfix")) throw Fault("Postfix has ended on the new files");
    done.push_back(restart ? "Postfix restarted" : "Postfix reloaded");
  }
  const pid_t scanner = std::atoi(TextOf(kMailScannerPid).c_str());
  if (scanner > 0 && concerned.count("MailScanner") != 0 && kill(scanner, SIGHUP) == 0) {
    done.push_back("MailScanner reloaded");
  }
  for (const RunningDaemon& daemon : running) {
    if (!Named(daemon.name).port.empty() && !Wants(Named(daemon.name), kTree)) {
      StopDaemon(daemon);
      done.push_back(daemon.name + " stopped");
    }
  }
  return done;
}
