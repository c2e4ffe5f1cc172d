#include "preview/rehearsal.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <list>
#include <memory>
#include <regex>

#include "mail_check/configuration.h"
#include "mail_check/daemons.h"
#include "mail_check/listeners.h"
#include "mail_check/mail_check.h"
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

/// A daemon that goes into the background.
struct Rehearsed {
  Rehearsed(const std::vector<std::string>& command, const std::string& place)
      : name(fs::path(command[0]).filename()), port(place), program(command) {}

  std::string name;
  std::string port;  ///< where it listens some time after it has gone into the background; may be empty
  Program program;
};

/// Waits until the daemon runs. False, with its verdict, when it does not; false without, when it is not
/// installed, as a checker has said. `log` gets what was logged meanwhile.
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

/// What Postfix's daemons cannot work with, wherever they have met it.
Verdict JudgeLog(const std::string& log) {
  std::vector<std::string> said;
  for (const LogLine& line : LogLines(Lines(ReadFile(log)))) {
    // Other errors come from a directory's server that cannot be reached, and from the sandbox.
    if (std::regex_search(line.text, std::regex("^(fatal: |panic: |error: (open|unsupported) )")) &&
        line.text.find("Read-only file system") == std::string::npos)
      said.push_back(line.program.substr(line.program.rfind('/') + 1) + ": " + line.text);
  }
  return Judge("rehearsal: Postfix's log", said.empty(), said);
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
  check.runsOutside = [&](const std::string& place) { return RunsOutside(place, taken); };
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
  }
  for (const MailObservation& seen : CheckMail(check)) {
    constexpr Verdict::Word kWords[] = {Verdict::kGood, Verdict::kRefused, Verdict::kWarning,
                                        Verdict::kNotAsked};
    const bool good = seen.state == MailObservation::kGood;
    verdicts.push_back({"rehearsal: " + seen.what, kWords[seen.state], Lines(good ? "" : seen.detail),
                        good ? "" : seen.consequence});
  }
  if (check.postfix) {
    const bool ended = RunProgram({master, "-c", kEtc, "-t"}).status == 0;
    verdicts.push_back(Judge("rehearsal: postfix goes on", !ended, {}));
    verdicts.push_back(JudgeLog(log));
  }
  return verdicts;
}
