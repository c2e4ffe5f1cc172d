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
#include <map>

#include "checks/mail_check.h"
#include "mail/dovecot_config.h"
#include "mail/listeners.h"
#include "preview/covers.h"
#include "preview/log.h"
#include "preview/sandbox.h"
#include "preview/services.h"
#include "system/files.h"
#include "system/text.h"
#include "system/wait.h"

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience(5);
const std::string kReadOnly = "Read-only file system";  // here, and not on the machine: it decides nothing

// Waits until the daemon runs, which is a result unless it is not installed, as a checker has said. `log`
// gets what was logged meanwhile.
bool Runs(CheckResults& results, DaemonId id, Program& daemon, std::vector<LogLine>& log) {
  const std::string& port = DaemonOf(id).milterPort;  // where it listens some time after that
  const auto listens = [&] { return port.empty() || IsListening(port); };
  const ProgramResult ended = daemon.Wait();
  if (ended.status == kNotRun) return false;
  const bool runs = ended.status == 0 && WaitFor(listens, kPatience);
  for (const LogLine& line : TakeLog()) log.push_back(line);
  const Question question = StartOf(id);
  results.push_back(Judge(question, runs, {}, Consequence(id)));
  if (!runs) {
    results.back().words = Lines(ended.errors);
    for (const std::string& line : SaidBy(question.to, log)) results.back().words.push_back(line);
  }
  return runs;
}

// Why the master has ended at once. It has told its own log socket, where nobody listened yet; here it starts
// once more and tells the system log.
std::vector<std::string> MasterSays(const std::string& master) {
  SetParameter("maillog_file", "");
  TakeLog();
  RunProgram({master, "-c", kEtc, "-w"});
  return SaidBy("", TakeLog());
}

// What Postfix's daemons cannot work with, wherever they have met it, and mail that they throw away.
CheckResult JudgeLog(const std::string& log) {
  const Question question = {Topic::kLog, DaemonId::kPostfix};
  std::vector<std::string> said;
  std::vector<std::string> discarded;
  for (const LogLine& line : LogLines(Lines(ReadFile(log)))) {
    const auto begins = [&](const char* begin) { return StartsWith(line.text, begin); };
    if (begins("NOQUEUE: discard: RCPT")) discarded = {line.text};
    // Other errors come from a directory's server that cannot be reached.
    const bool fault =
        begins("fatal: ") || begins("panic: ") || begins("error: open ") || begins("error: unsupported ");
    const std::string text = line.program.substr(line.program.rfind('/') + 1) + ": " + line.text;
    if (fault && !Contains(text, kReadOnly) && !Contains(said, text)) said.push_back(text);
  }
  if (said.empty() && !discarded.empty())
    return {question, Grade::kWarning, discarded, "Mail is taken, and thrown away: nobody hears of it."};
  return Judge(question, said.empty(), said, "Mail that needs this part of Postfix would wait.");
}

// Whether Postfix takes mail at all with so much room on the queue's disk.
CheckResult JudgeRoom(const PostfixConfig& postfix) {
  const Question question = {Topic::kRoom, DaemonId::kPostfix};
  const std::string queue = postfix.Value("queue_directory");
  struct statvfs disk = {};
  if (statvfs((kMachineRoot + queue).c_str(), &disk) != 0)
    return {question, Grade::kNotAsked, {queue + ": " + std::strerror(errno)}};
  const double mib = 1024 * 1024;
  const double free = static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize) / mib;
  // smtpd(8) wants one and a half times the size of the largest message.
  const double wanted = 1.5 * std::atof(postfix.Value("message_size_limit").c_str()) / mib;
  if (free > wanted) return {question, Grade::kGood};
  return {question,
          Grade::kBad,
          {std::to_string(std::lround(free)) + " MiB are free for the queue, and Postfix wants " +
           std::to_string(std::lround(wanted)) + ", for message_size_limit"},
          "Nobody can send mail to this machine."};
}

// Whether Dovecot asks the PAM services that the package helper is told for this type of account.
CheckResult JudgePam() {
  CheckResult result = {{Topic::kPam, DaemonId::kDovecot}, Grade::kGood};
  Json::Value told;
  std::ifstream file(fs::exists(kToldPamConfig) ? kToldPamConfig : kKeptPamConfig);
  const bool known = Json::parseFromStream(Json::CharReaderBuilder(), file, &told, nullptr) &&
                     told.isObject() && told["id-list"].isArray();
  const Json::Value services = known ? told["id-list"] : Json::arrayValue;
  const auto warn = [&](const std::string& why, const char* sentence) {
    result.grade = Grade::kWarning;
    result.words.push_back("Dovecot asks PAM for " + why);
    result.sentence = sentence;
  };
  for (const std::string& name : PamServices(ReadDovecotFiles())) {
    if (!fs::exists("/etc/pam.d/" + name)) {
      warn(name + ", which has no file in /etc/pam.d",
           "Whom the service \"other\" admits can log in, and nobody else.");
    } else if (known && std::find(services.begin(), services.end(), Json::Value(name)) == services.end()) {
      warn(name + ", which is not for the account_type",
           "Users of another account_type can log in, and not those of this one.");
    }
  }
  return result;
}

}  // namespace

Question StartOf(DaemonId id) {
  const std::string program =
      id == DaemonId::kPostfix ? "master" : fs::path(DaemonOf(id).program).filename().string();
  return {Topic::kStarts, id, "", Asker::kMachine, program};
}

std::string Consequence(DaemonId id, bool installed) {
  switch (id) {
    case DaemonId::kOpenDkim:
      return installed ? "Mail would wait, since OpenDKIM would not answer (451)."
                       : "Mail would wait (451): install opendkim, or switch enable_dkim off.";
    case DaemonId::kOpenDmarc:
      return installed ? "Mail would wait, since OpenDMARC would not answer (451)."
                       : "Mail would wait (451): install opendmarc, or switch enable_dmarc off.";
    case DaemonId::kDovecot:
      return installed ? "Nobody could read mail or log in to send, since Dovecot would not run."
                       : "Nobody can read mail or log in to send: install dovecot-imapd and dovecot-pop3d.";
    case DaemonId::kPostfix:
      return installed ? "Nobody could send or receive mail, since Postfix would not run."
                       : "Nobody can send or receive mail: install postfix.";
    case DaemonId::kMailScanner:
      return installed ? "Spam would not be recognised." : "Spam is not recognised: install spamassassin.";
  }
  return "";
}

CheckResults Rehearse(const PostfixConfig& postfix, const std::vector<Endpoint>& occupied) {
  CheckResults results;
  const bool files = !postfix.parameters.empty();
  LeaveNetwork(occupied, files ? TcpServices(postfix, occupied) : std::vector<Service>());
  if (files) KeepSockets(postfix);
  // Makes the directories of the queue, of which Dovecot needs one for its socket.
  if (files && !fs::exists(postfix.Value("queue_directory") + "/pid"))
    RunProgram(DaemonOf(DaemonId::kPostfix).check);
  MailCheck check = {
      false, false, true, "rehearsal", "This is a rehearsal.\n", MailUsers(postfix), [&](const Peer& peer) {
        return RunsOutside(postfix, peer, occupied);
      }};
  TakeLog();
  // A login that is refused would wait for two seconds.
  const std::string& dovecotConf = DaemonOf(DaemonId::kDovecot).configuration;
  if (fs::exists(dovecotConf)) std::ofstream(dovecotConf, std::ios::app) << "\nauth_failure_delay = 0\n";
  std::vector<LogLine> logged;
  std::map<DaemonId, Program> started;
  for (const Daemon& daemon : Daemons()) {
    const bool milter = !daemon.milterPort.empty();
    const bool wanted =
        milter ? files && IsWanted(daemon, postfix.parameters) : fs::exists(daemon.configuration);
    if (daemon.id != DaemonId::kPostfix && wanted) started.try_emplace(daemon.id, daemon.start);
  }
  for (auto& [id, program] : started) {
    const bool runs = Runs(results, id, program, logged);
    if (id == DaemonId::kDovecot) check.dovecot = runs;
  }
  const std::string master = postfix.Value("daemon_directory") + "/master";
  if (files) {
    // Not by postfix(1), which would check all once more.
    Program program({master, "-c", kEtc, "-w"});
    check.postfix = Runs(results, DaemonId::kPostfix, program, logged);
    if (!check.postfix && fs::exists(master)) results.back().words = MasterSays(master);
  }
  for (const CheckResult& result : CheckMail(check)) results.push_back(result);
  if (files) {
    results.push_back(JudgeRoom(postfix));
    results.push_back(JudgePam());
  }
  if (check.postfix) {
    const bool ended = RunProgram({master, "-c", kEtc, "-t"}).status == 0;
    results.push_back(Judge({Topic::kStaysUp, DaemonId::kPostfix, "", Asker::kMachine, "postfix"}, !ended, {},
                            Consequence(DaemonId::kPostfix)));
    results.push_back(JudgeLog(postfix.Value("maillog_file")));
  }
  for (CheckResult& result : results) {
    if (result.Bad() && Contains(result.Said(), kReadOnly)) result.grade = Grade::kNotAsked;
    if (result.grade == Grade::kGood) result.words.clear();
  }
  return results;
}
