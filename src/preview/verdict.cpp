#include "preview/verdict.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>

#include "preview/mail_questions.h"
#include "preview/run.h"
#include "preview/sandbox.h"

namespace {

namespace fs = std::filesystem;

const std::string kFolder = kEtc;
const std::vector<std::string> kLint = {"spamassassin", "--lint",
                                        "--siteconfigpath=" + kFolder + "/spamassassin"};

/// The verdict of a checker. `logged` is what it wrote to the log.
Verdict Judge(const std::vector<std::string>& command, const Ended& ended,
              const std::vector<std::string>& logged) {
  Verdict verdict = {"", ended.status == 0 ? Verdict::kGood : Verdict::kRefused, {}};
  if (ended.status == kNotRun) return {command[0], Verdict::kNotInstalled, {}};
  for (const std::string& word : command) verdict.by += (verdict.by.empty() ? "" : " ") + word;
  if (ended.status != 0) verdict.said.push_back("exit status " + std::to_string(ended.status));
  std::vector<std::string> lines = Lines(ended.errors);
  lines.insert(lines.end(), logged.begin(), logged.end());
  for (const std::string& line : lines) {
    if (std::find(verdict.said.begin(), verdict.said.end(), line) == verdict.said.end())
      verdict.said.push_back(line);
  }
  return verdict;
}

}  // namespace

Checkers::Checkers(const std::vector<std::string>& words) : words_(words) {
  for (const fs::directory_entry& entry : fs::directory_iterator(kEtc)) {
    if (entry.path().extension() == ".cf") Age(entry.path());
  }
  if (Checks("mailscanner")) lint_.emplace(kLint);
}

bool Checkers::Checks(const char* word) const {
  return std::find(words_.begin(), words_.end(), word) != words_.end();
}

std::vector<Verdict> Checkers::Ask() const {
  std::vector<std::vector<std::string>> commands;
  std::string mailLog;
  if (Checks("smtp") && fs::exists(kFolder + "/main.cf") && fs::exists(kFolder + "/master.cf")) {
    mailLog = MainParameter("maillog_file");
    commands.push_back({"postconf", "-c", kFolder, "-n"});
    commands.push_back({"postfix", "-c", kFolder, "check"});
    if (UsesMilter("8891")) commands.push_back({"opendkim", "-n", "-x", kFolder + "/opendkim.conf"});
    if (UsesMilter("8893")) commands.push_back({"opendmarc", "-n", "-c", kFolder + "/opendmarc.conf"});
  }
  if (Checks("dovecot")) commands.push_back({"doveconf", "-c", kFolder + "/dovecot/dovecot.conf", "-n"});
  std::vector<Verdict> verdicts;
  TakeLogOf("");
  for (const std::vector<std::string>& command : commands) {
    const Ended ended = RunProgram(command);
    std::vector<std::string> logged = TakeLogOf("");
    // Without a terminal, Postfix's programs write to the log.
    if (!mailLog.empty()) {
      std::ifstream file(mailLog);
      for (std::string line; std::getline(file, line);) {
        logged.push_back(std::regex_replace(line, std::regex("^.*?\\]: "), ""));
      }
      std::error_code none;
      fs::resize_file(mailLog, 0, none);
    }
    verdicts.push_back(Judge(command, ended, logged));
  }
  return verdicts;
}

std::vector<Verdict> Checkers::AskLast() {
  if (!lint_) return {};
  return {Judge(kLint, lint_->Wait(), {})};
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
