#include "preview/rehearsal.h"

#include <arpa/inet.h>
#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <thread>

#include "preview/mail_check.h"
#include "preview/network.h"
#include "preview/run.h"
#include "preview/sandbox.h"

namespace {

namespace fs = std::filesystem;

const std::string kMain = std::string(kEtc) + "/main.cf";
const std::string kDovecot = std::string(kEtc) + "/dovecot/dovecot.conf";

/// Waits up to five seconds.
bool Becomes(const std::function<bool()>& condition) {
  for (int tries = 0; tries < 250; ++tries) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

/// Daemons write into homes and beside their own data; what they find there is empty, and goes with the
/// sandbox.
void CoverData() {
  for (const char* folder : {"/var/log", "/var/tmp", "/var/lib/dovecot"}) Cover(folder);
  if (fs::exists(kMain)) {
    for (const char* name : {"queue_directory", "data_directory", "mail_spool_directory"}) {
      const std::string folder = MainParameter(name);
      if (folder.rfind("/var/packages/", 0) != 0) CoverByDirectories(folder);
    }
  }
  const std::unique_ptr<FILE, int (*)(FILE*)> users(std::fopen("/etc/passwd", "re"), std::fclose);
  while (const passwd* user = users ? fgetpwent(users.get()) : nullptr) {
    const std::string home = user->pw_dir;
    const bool person = user->pw_uid == 0 || user->pw_uid >= 1000;
    if (person && std::string(kEtc).rfind(home, 0) != 0) Cover(home);
  }
}

/// Starts a daemon that goes into the background. True when it has; otherwise what it said is a refusal.
bool Start(std::vector<Verdict>& verdicts, const std::vector<std::string>& command, const std::string& log) {
  TakeLogOf("");
  const Ended ended = RunProgram(command);
  Verdict verdict = {
      "rehearsal: " + fs::path(command[0]).filename().string() + " starts", Verdict::kGood, {}};
  if (ended.status == kNotRun) return false;  // a checker has said that it is not installed
  if (ended.status != 0) {
    verdict.word = Verdict::kRefused;
    verdict.said = Lines(ended.errors);
    std::ifstream file(log);
    for (std::string line; std::getline(file, line);) verdict.said.push_back(line);
    for (const std::string& line : TakeLogOf(command[0])) verdict.said.push_back(line);
  }
  verdicts.push_back(verdict);
  return ended.status == 0;
}

/// Why the master has ended at once: what it says goes to its own log socket, where nobody listened yet. Here
/// it starts once more, with the system log for its log.
std::vector<std::string> MasterSays(const std::string& master) {
  const std::string folder = std::string(kWork) + "/master";
  fs::create_directory(folder);
  for (const char* name : {"/main.cf", "/master.cf"}) fs::copy_file(kEtc + std::string(name), folder + name);
  RunProgram({"postconf", "-c", folder, "-e", "maillog_file="});
  Age(folder + "/main.cf");
  Age(folder + "/master.cf");
  TakeLogOf("");
  RunProgram({master, "-c", folder, "-w"});
  return TakeLogOf("");
}

bool Listens(std::uint16_t port) {
  const int file = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in place = {};
  place.sin_family = AF_INET;
  place.sin_port = htons(port);
  place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool answered = connect(file, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0;
  close(file);
  return answered;
}

void StartMilter(std::vector<Verdict>& verdicts, const std::string& name, const char* option,
                 std::uint16_t port) {
  if (!UsesMilter(std::to_string(port))) return;
  // It goes into the background before it listens.
  if (Start(verdicts, {name, option, std::string(kEtc) + "/" + name + ".conf"}, "") &&
      !Becomes([=] { return Listens(port); })) {
    verdicts.back().word = Verdict::kRefused;
    verdicts.back().said = TakeLogOf(name);
  }
}

/// What Postfix's daemons cannot work with, wherever they have met it.
Verdict ReadMailLog(const std::string& log) {
  const std::regex form(R"(.* postfix[^ ]*/(.*?)\[\d+\]: ((?:fatal|panic|error): .*))");
  Verdict verdict = {"rehearsal: Postfix's log", Verdict::kGood, {}};
  std::ifstream file(log);
  for (std::string line; std::getline(file, line);) {
    std::smatch match;
    if (!std::regex_match(line, match, form)) continue;
    const std::string said = match[1].str() + ": " + match[2].str();
    if (match[2].str().rfind("error: ", 0) == 0 &&
        !std::regex_search(said, std::regex("error: (open|unsupported) "))) {
      continue;  // a server of a directory that cannot be reached
    }
    if (said.find("Read-only file system") != std::string::npos) continue;  // the sandbox's doing
    verdict.word = Verdict::kRefused;
    if (std::find(verdict.said.begin(), verdict.said.end(), said) == verdict.said.end())
      verdict.said.push_back(said);
  }
  return verdict;
}

/// Whether a line of the log matches.
bool Says(const std::string& log, const std::string& pattern) {
  std::ifstream file(log);
  const std::regex form(pattern);
  for (std::string line; std::getline(file, line);) {
    if (std::regex_search(line, form)) return true;
  }
  return false;
}

/// Lets a message leave this machine, as far as it gets; also where it is held for scanning.
void SendOut(const std::string& log) {
  constexpr const char* kTo = "postmaster@elsewhere.invalid";  // RFC 6761, section 6.4
  const std::string end = std::string("to=<") + kTo + ">, .*status=|: (fatal|panic|milter-reject): ";
  RunProgram({"sendmail", "-C", kEtc, "-i", "-f", "postmaster", kTo}, "Subject: rehearsal\n\n");
  Becomes([&] { return Says(log, end + "|: hold: "); });
  if (!Says(log, ": hold: ")) return;
  RunProgram({"postsuper", "-c", kEtc, "-H", "ALL"});
  RunProgram({"postqueue", "-c", kEtc, "-f"});
  Becomes([&] { return Says(log, end); });
}

}  // namespace

std::vector<Verdict> Rehearse(const std::vector<std::string>& taken) {
  std::vector<Verdict> verdicts;
  const bool postfix = fs::exists(kMain) && fs::exists(std::string(kEtc) + "/master.cf");
  CoverData();
  LeaveNetwork(taken);
  // Makes the directories of the queue, of which Dovecot needs one for its socket.
  if (postfix && !fs::exists(MainParameter("queue_directory") + "/pid"))
    RunProgram({"postfix", "-c", kEtc, "check"});
  MailCheck check;
  check.isolated = true;
  check.subject = "rehearsal";
  check.text = "This is a rehearsal.\n";
  check.dovecot = fs::exists(kDovecot) && Start(verdicts, {"dovecot", "-c", kDovecot}, "");
  check.postfix = false;
  std::string log;
  std::string master;
  if (postfix) {
    StartMilter(verdicts, "opendkim", "-x", 8891);
    StartMilter(verdicts, "opendmarc", "-c", 8893);
    log = MainParameter("maillog_file");
    // Not by postfix(1), which would check all once more.
    master = MainParameter("daemon_directory") + "/master";
    check.postfix = Start(verdicts, {master, "-c", kEtc, "-w"}, log);
    if (!check.postfix && !verdicts.empty()) verdicts.back().said = MasterSays(master);
  }
  if (check.postfix) SendOut(log);
  for (const MailObservation& seen : CheckMail(check)) {
    verdicts.push_back({"rehearsal: " + seen.what, seen.good ? Verdict::kGood : Verdict::kRefused, {}});
    if (!seen.good) verdicts.back().said = Lines(seen.detail);
  }
  if (check.postfix) {
    const Ended status = RunProgram({"postfix", "-c", kEtc, "status"});
    verdicts.push_back(
        {"rehearsal: postfix goes on", status.status == 0 ? Verdict::kGood : Verdict::kRefused, {}});
    verdicts.push_back(ReadMailLog(log));
  }
  return verdicts;
}
