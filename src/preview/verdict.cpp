#include "preview/verdict.h"

#include <algorithm>
#include <filesystem>

#include "mail/daemons.h"
#include "preview/log.h"
#include "system/files.h"
#include "system/text.h"

namespace {

namespace fs = std::filesystem;

// Which checker writes to the log under this name. Without a terminal, Postfix's programs do, each with a
// prefix and a slash before its name, and postfix(1) runs many of them.
std::string CheckerOf(const std::string& name) {
  const size_t slash = name.rfind('/');
  if (slash == std::string::npos) return name;
  return name.substr(slash + 1) == "postconf" ? "postconf" : "postfix";
}

}  // namespace

Verdict Judge(const std::string& by, bool good, const std::vector<std::string>& said) {
  Verdict verdict = {by, good ? Verdict::kGood : Verdict::kRefused, {}};
  for (const std::string& line : said) {
    if (!Contains(verdict.said, line)) verdict.said.push_back(line);
  }
  return verdict;
}

void StartCheckers(std::list<Checker>& checkers, const std::string& word) {
  const auto start = [&](const std::vector<std::string>& command) { checkers.emplace_back(command); };
  if (word == "smtp" && fs::exists(kEtc + "/main.cf") && fs::exists(kEtc + "/master.cf")) {
    start(MainCfCheck());
    start(DaemonNamed("Postfix").check);
    for (const char* milter : {"OpenDKIM", "OpenDMARC"}) {
      if (IsWanted(DaemonNamed(milter), MainCf())) start(DaemonNamed(milter).check);
    }
  }
  if (word == "dovecot") start(DaemonNamed("Dovecot").check);
  if (word == "mailscanner") start({"spamassassin", "--lint", "--siteconfigpath=" + kEtc + "/spamassassin"});
}

std::vector<Verdict> Verdicts(std::list<Checker>& checkers) {
  std::list<ProgramResult> ends;
  for (Checker& checker : checkers) ends.push_back(checker.program.Wait());
  std::vector<LogLine> log = TakeLog();
  const std::string mailLog = MainParameter("maillog_file");
  for (const LogLine& line : LogLines(Lines(ReadFile(mailLog)))) log.push_back(line);
  std::error_code none;
  fs::resize_file(mailLog, 0, none);
  std::vector<Verdict> verdicts;
  for (const Checker& checker : checkers) {
    const ProgramResult& ended = ends.front();
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

const PostfixConfig& NewPostfix() {
  static const PostfixConfig config = [] {
    for (const fs::directory_entry& entry : fs::directory_iterator(kEtc)) {
      if (entry.path().extension() == ".cf") SkipSettleTime(entry.path());
    }
    try {
      return ReadPostfix(kEtc);
    } catch (const Fault&) {
      return PostfixConfig();  // the checkers say why
    }
  }();
  return config;
}

std::string MainParameter(const std::string& name) { return NewPostfix().Value(name); }
