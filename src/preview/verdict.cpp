#include "preview/verdict.h"

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "preview/log.h"
#include "preview/mail_questions.h"

namespace {

namespace fs = std::filesystem;

const std::string kFolder = kEtc;

/// Which checker writes to the log under this name. Without a terminal, Postfix's programs do, each with a
/// prefix and a slash before its name, and postfix(1) runs many of them.
std::string CheckerOf(const std::string& name) {
  const size_t slash = name.rfind('/');
  if (slash == std::string::npos) return name;
  return name.substr(slash + 1) == "postconf" ? "postconf" : "postfix";
}

}  // namespace

Verdict Judge(const std::string& by, bool good, const std::vector<std::string>& said) {
  Verdict verdict = {by, good ? Verdict::kGood : Verdict::kRefused, {}};
  for (const std::string& line : said) {
    if (!Has(verdict.said, line)) verdict.said.push_back(line);
  }
  return verdict;
}

void StartCheckers(std::list<Checker>& checkers, const std::string& word) {
  const auto start = [&](const std::vector<std::string>& command) { checkers.emplace_back(command); };
  for (const fs::directory_entry& entry : fs::directory_iterator(kFolder)) {
    if (entry.path().extension() == ".cf") Age(entry.path());
  }
  if (word == "smtp" && fs::exists(kFolder + "/main.cf") && fs::exists(kFolder + "/master.cf")) {
    start({"postconf", "-c", kFolder, "-n"});
    start({"postfix", "-c", kFolder, "check"});
    if (UsesMilter("8891")) start({"opendkim", "-n", "-x", kFolder + "/opendkim.conf"});
    if (UsesMilter("8893")) start({"opendmarc", "-n", "-c", kFolder + "/opendmarc.conf"});
  }
  if (word == "dovecot") start({"doveconf", "-c", kFolder + "/dovecot/dovecot.conf", "-n"});
  if (word == "mailscanner")
    start({"spamassassin", "--lint", "--siteconfigpath=" + kFolder + "/spamassassin"});
}

std::vector<Verdict> Verdicts(std::list<Checker>& checkers) {
  std::list<Ended> ends;
  for (Checker& checker : checkers) ends.push_back(checker.program.Wait());
  std::vector<LogLine> log = TakeLog();
  const std::string mailLog = MainParameter("maillog_file");
  for (const LogLine& line : LogLines(Lines(TextOf(mailLog)))) log.push_back(line);
  std::error_code none;
  fs::resize_file(mailLog, 0, none);
  std::vector<Verdict> verdicts;
  for (const Checker& checker : checkers) {
    const Ended& ended = ends.front();
    const std::vector<std::string>& command = checker.command;
    if (ended.status == kNotRun) {
      verdicts.push_back({command[0], Verdict::kNotInstalled, {}});
    } else {
      std::string by = command[0];
      std::for_each(command.begin() + 1, command.end(), [&](const std::string& word) { by += " " + word; });
      std::vector<std::string> said;
      if (ended.status != 0) said.push_back("exit status " + std::to_string(ended.status));
      for (const std::string& line : Lines(ended.errors)) said.push_back(line);
      for (const LogLine& line : log) {
        if (CheckerOf(line.program) == command[0]) said.push_back(line.text);
      }
      verdicts.push_back(Judge(by, ended.status == 0, said));
    }
    ends.pop_front();
  }
  return verdicts;
}

void Age(const std::string& path) {
  fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::seconds(10));
}

std::string MainParameter(const std::string& name) {
  static const Values values = ValuesOf(RunProgram({"postconf", "-c", kFolder, "-x"}).output);
  const auto found = values.find(name);
  return found == values.end() ? "" : found->second;
}

bool UsesMilter(const std::string& port) {
  return MainParameter("smtpd_milters").find(":" + port) != std::string::npos;
}
