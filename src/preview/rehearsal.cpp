#include "preview/rehearsal.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
#include <memory>
#include <regex>

#include "checks/mail_check.h"
#include "mail/daemons.h"
#include "mail/dovecot_config.h"
#include "mail/listeners.h"
#include "mail/postfix_config.h"
#include "preview/covers.h"
#include "preview/log.h"
#include "preview/network.h"
#include "preview/sandbox.h"
#include "preview/services.h"
#include "system/files.h"
#include "system/program.h"
#include "system/text.h"
#include "system/wait.h"

namespace {

namespace fs = std::filesystem;

const std::string kMain = kEtc + "/main.cf";

constexpr std::chrono::seconds kPatience(5);

// A daemon that goes into the background.
struct Rehearsed {
  Rehearsed(const std::vector<std::string>& command, const std::string& place)
      : name(fs::path(command[0]).filename()), port(place), program(command) {}

  std::string name;  // of its program
  std::string port;  // where it listens some time after it has gone into the background; may be empty
  Program program;
};

// Waits until the daemon runs. False, with its verdict, when it does not; false without, when it is not
// installed, as a checker has said. `log` gets what was logged meanwhile.
bool Runs(std::vector<Verdict>& verdicts, Rehearsed& daemon, std::vector<LogLine>& log) {
  const auto listens = [&] { return daemon.port.empty() || IsListening(daemon.port); };
  const ProgramResult ended = daemon.program.Wait();
  if (ended.status == kNotRun) return false;
  const bool runs = ended.status == 0 && WaitFor(listens, kPatience);
  for (const LogLine& line : TakeLog()) log.push_back(line);
  verdicts.push_back(Judge("rehearsal: " + daemon.name + " starts", runs, {}));
  if (!runs) {
    verdicts.back().said = Lines(ended.errors);
    for (const std::string& line : SaidBy(daemon.name, log)) verdicts.back().said.push_back(line);
  }
  return runs;
}

// Why the master has ended at once: what it says goes to its own log socket, where nobody listened yet. Here
// it starts once more, with the system log for its log.
std::vector<std::string> MasterSays(const std::string& master) {
  SetParameter("maillog_file", "");
  TakeLog();
  RunProgram({master, "-c", kEtc, "-w"});
  return SaidBy("", TakeLog());
}

// What Postfix's daemons cannot work with, wherever they have met it.
Verdict JudgeLog(const std::string& log) {
  std::vector<std::string> said;
  for (const LogLine& line : LogLines(Lines(ReadFile(log)))) {
    // Other errors come from a directory's server that cannot be reached.
    if (std::regex_search(line.text, std::regex("^(fatal: |panic: |error: (open|unsupported) )")) &&
        !Contains(line.text, "Read-only file system"))
      said.push_back(line.program.substr(line.program.rfind('/') + 1) + ": " + line.text);
  }
  return Judge("rehearsal: Postfix's log", said.empty(), said);
}

Verdict VerdictOf(const CheckResult& result) {
  constexpr Verdict::Word kWords[] = {Verdict::kGood, Verdict::kRefused, Verdict::kWarning,
                                      Verdict::kNotAsked, Verdict::kNotInstalled};
  const bool good = result.grade == Grade::kGood;
  return {"rehearsal: " + Name(result.question), kWords[static_cast<size_t>(result.grade)],
          good ? std::vector<std::string>() : result.words, result.sentence};
}

// Whether Postfix takes mail at all with so much room on the queue's disk.
Verdict JudgeRoom() {
  const std::string queue = kMachine + MainParameter("queue_directory");
  struct statvfs disk = {};
  Verdict verdict = Judge("rehearsal: room for mail", true, {});
  if (statvfs(queue.c_str(), &disk) != 0) {
    verdict.word = Verdict::kNotAsked;
    verdict.said = {queue.substr(kMachine.size()) + ": " + std::strerror(errno)};
    return verdict;
  }
  const double mib = 1024 * 1024;
  const double free = static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize) / mib;
  // smtpd(8) wants one and a half times the size of the largest message.
  const double wanted = 1.5 * std::atof(MainParameter("message_size_limit").c_str()) / mib;
  if (free > wanted) return verdict;
  verdict.word = Verdict::kRefused;
  verdict.said = {std::to_string(std::lround(free)) + " MiB are free for the queue, and Postfix wants " +
                  std::to_string(std::lround(wanted)) + ", for message_size_limit"};
  verdict.consequence = "Nobody can send mail to this machine.";
  return verdict;
}

// Whether Dovecot asks the PAM services that the package helper is told for this type of account.
Verdict JudgePam() {
  Verdict verdict = Judge("rehearsal: PAM services", true, {});
  std::string told = ReadFile(kToldPamConfig);
  if (told.empty()) told = ReadFile("/usr/nubo/etc/pam-config/Brindlecot.json");
  for (const std::string& name : PamServices(ReadDovecotFiles())) {
    if (!fs::exists("/etc/pam.d/" + name)) {
      verdict.said.push_back("Dovecot asks PAM for " + name + ", which has no file in /etc/pam.d");
      verdict.consequence = "Whom the service \"other\" admits can log in, and nobody else.";
    } else if (!told.empty() && !Contains(told, '"' + name + '"')) {
      verdict.said.push_back("Dovecot asks PAM for " + name + ", which is not for the account_type");
      verdict.consequence = "Users of another account_type can log in, and not those of this one.";
    }
  }
  if (!verdict.said.empty()) verdict.word = Verdict::kWarning;
  return verdict;
}

// A file system that is read-only here, and not on the machine, decides nothing.
void ExcuseSandbox(std::vector<Verdict>& verdicts) {
  for (Verdict& verdict : verdicts) {
    if (verdict.word == Verdict::kRefused &&
        std::any_of(verdict.said.begin(), verdict.said.end(),
                    [](const std::string& line) { return Contains(line, "Read-only file system"); }))
      verdict.word = Verdict::kNotAsked;
  }
}

}  // namespace

std::vector<Verdict> Rehearse(const std::vector<Place>& taken) {
  std::vector<Verdict> verdicts;
  const bool postfix = fs::exists(kMain) && fs::exists(kEtc + "/master.cf");
  LeaveNetwork(taken, postfix ? TcpServices(taken) : std::vector<Service>());
  if (postfix) KeepSockets();
  // Makes the directories of the queue, of which Dovecot needs one for its socket.
  if (postfix && !fs::exists(MainParameter("queue_directory") + "/pid"))
    RunProgram({"postfix", "-c", kEtc, "check"});
  MailCheck check;
  check.isolated = true;
  check.subject = "rehearsal";
  check.text = "This is a rehearsal.\n";
  check.dovecot = check.postfix = false;
  check.users = MailUsers();
  check.runsOutside = [&](const Peer& peer) { return RunsOutside(peer, taken); };
  TakeLog();
  // A login that is refused would wait for two seconds.
  const std::string& dovecotConf = DaemonNamed("Dovecot").configuration;
  if (fs::exists(dovecotConf)) std::ofstream(dovecotConf, std::ios::app) << "\nauth_failure_delay = 0\n";
  std::vector<LogLine> logged;
  std::list<Rehearsed> daemons;
  for (const Daemon& daemon : Daemons()) {
    const bool milter = !daemon.milterPort.empty();
    const bool wanted = milter ? postfix && IsWanted(daemon, MainCf()) : fs::exists(daemon.configuration);
    if (daemon.name != "Postfix" && wanted) daemons.emplace_back(daemon.start, daemon.milterPort);
  }
  for (Rehearsed& daemon : daemons) {
    const bool runs = Runs(verdicts, daemon, logged);
    if (daemon.name == "dovecot") check.dovecot = runs;
  }
  const std::string log = MainParameter("maillog_file");
  const std::string master = MainParameter("daemon_directory") + "/master";
  if (postfix) {
    // Not by postfix(1), which would check all once more.
    Rehearsed daemon({master, "-c", kEtc, "-w"}, "");
    check.postfix = Runs(verdicts, daemon, logged);
    if (!check.postfix && fs::exists(master)) verdicts.back().said = MasterSays(master);
  }
  for (const CheckResult& result : CheckMail(check)) verdicts.push_back(VerdictOf(result));
  if (postfix) {
    verdicts.push_back(JudgeRoom());
    verdicts.push_back(JudgePam());
  }
  if (check.postfix) {
    const bool ended = RunProgram({master, "-c", kEtc, "-t"}).status == 0;
    verdicts.push_back(Judge("rehearsal: postfix goes on", !ended, {}));
    verdicts.push_back(JudgeLog(log));
  }
  ExcuseSandbox(verdicts);
  return verdicts;
}
