#include "preview/trial.h"

#include <syslog.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <list>

#include "checks/mail_check.h"
#include "core/commands.h"
#include "mail/listeners.h"
#include "preview/covers.h"
#include "preview/log.h"
#include "preview/rehearsal.h"
#include "preview/warnings.h"
#include "system/files.h"
#include "system/program.h"
#include "system/text.h"

namespace {

namespace fs = std::filesystem;

// A checker that runs.
struct Checker {
  Checker(DaemonId daemon, const std::vector<std::string>& line) : id(daemon), command(line), program(line) {}

  DaemonId id;
  std::vector<std::string> command;
  Program program;
  ProgramResult ended{};
};

// Runs the generators of one command in a new process.
Run RunGenerators(const std::string& word) {
  constexpr const char* kProgram = "nubo_set_config";
  TakeLog();
  const ProgramResult ended = Program([&] {
                                openlog(kProgram, 0, LOG_USER);
                                const char* const arguments[] = {kProgram, word.c_str(), nullptr};
                                return RunCommand(2, arguments);
                              }).Wait();
  Run run = {word, ended.status, Lines(ended.output + ended.errors), ended.status != 0};
  for (const std::string& line : SaidBy(kProgram, TakeLog())) {
    run.said.push_back("log: " + line);
    run.failed = true;
  }
  return run;
}

// The files of Postfix; nothing when they cannot be read, as the checkers say.
PostfixConfig PostfixHere() {
  for (const fs::directory_entry& entry : fs::directory_iterator(kEtc)) {
    if (entry.path().extension() == ".cf") SkipSettleTime(entry.path());
  }
  try {
    return ReadPostfix(kEtc);
  } catch (const Fault&) {
    return {};
  }
}

// Starts the checkers of a daemon's files. Those of a milter run only when main.cf names the milter.
void StartCheckers(std::list<Checker>& checkers, DaemonId id, const PostfixConfig& postfix) {
  const bool isPostfix = id == DaemonId::kPostfix;
  if (isPostfix && !(fs::exists(kEtc + "/main.cf") && fs::exists(kEtc + "/master.cf"))) return;
  if (isPostfix) checkers.emplace_back(id, MainCfCheck());
  if (IsWanted(DaemonOf(id), postfix.parameters)) checkers.emplace_back(id, DaemonOf(id).check);
}

// Which checker writes to the log under this name. Without a terminal, Postfix's programs do, each with a
// prefix and a slash before its name, and postfix(1) runs many of them.
std::string CheckerOf(const std::string& name) {
  const size_t slash = name.rfind('/');
  if (slash == std::string::npos) return name;
  return name.substr(slash + 1) == "postconf" ? "postconf" : "postfix";
}

CheckResult ResultOf(const Checker& checker, const std::vector<LogLine>& log) {
  const bool installed = checker.ended.status != kNotRun;
  Question question = {Topic::kConfiguration, checker.id, "", Asker::kMachine, checker.command[0]};
  if (!installed) return {question, Grade::kNotInstalled, {}, Consequence(checker.id, false)};
  for (size_t i = 1; i < checker.command.size(); ++i) question.to += " " + checker.command[i];
  std::vector<std::string> lines = Lines(checker.ended.errors);
  for (const LogLine& line : log) {
    if (CheckerOf(line.program) == checker.command[0]) lines.push_back(line.text);
  }
  std::vector<std::string> words;
  for (const std::string& line : lines) {
    if (GivesReason(line) && !Contains(words, line)) words.push_back(line);
  }
  const bool good = checker.ended.status == 0;
  if (!good && words.empty()) words.push_back("exit status " + std::to_string(checker.ended.status));
  return Judge(question, good, words, Consequence(checker.id));
}

// Waits for the ends of the checkers. `mailLog` is Postfix's own log.
void Wait(CheckResults& results, std::list<Checker>& checkers, const std::string& mailLog) {
  for (Checker& checker : checkers) checker.ended = checker.program.Wait();
  std::vector<LogLine> log = TakeLog();
  for (const LogLine& line : LogLines(Lines(ReadFile(mailLog)))) log.push_back(line);
  std::error_code none;
  fs::resize_file(mailLog, 0, none);
  for (const Checker& checker : checkers) results.push_back(ResultOf(checker, log));
}

// What is good in the daemons that run.
CheckResults GoodNow() {
  CheckResults good;
  const std::vector<TcpListener> all = TcpListeners();
  for (const Daemon& daemon : Daemons()) {
    if (std::any_of(all.begin(), all.end(), [&](const auto& one) { return Belongs(one, daemon); }))
      good.push_back({StartOf(daemon.id), Grade::kGood});
  }
  for (const CheckResult& one : CheckMail({true, true, false, "", ""})) {
    if (one.grade == Grade::kGood) good.push_back(one);
  }
  return good;
}

}  // namespace

Preview Try(const Trial& trial, bool generate) {
  Preview preview;
  Masks masks;
  for (const std::string& word : trial.words) {
    if (generate) preview.runs.push_back(RunGenerators(word));
  }
  if (!preview.Failed()) {
    const PostfixConfig postfix = PostfixHere();
    CoverData(postfix);
    std::list<Checker> checkers;
    std::list<Checker> lint;  // takes as long as all the rest
    const std::set<DaemonId> written = WrittenFor(trial.words);
    for (auto id = written.rbegin(); id != written.rend(); ++id) {
      StartCheckers(*id == DaemonId::kMailScanner ? lint : checkers, *id, postfix);
    }
    preview.files = FindDifferences(masks);
    // A process of its own stays on the machine's network, and its peers may keep it waiting.
    Program warnings([&] {
      if (!generate) return 0;
      const std::string listeners = kEtc + "/dovecot/conf.d/10-master.conf";
      const bool listenersChange = std::any_of(preview.files.begin(), preview.files.end(),
                                               [&](const auto& file) { return file.path == listeners; });
      for (const std::string& line : AllWarnings(listenersChange, postfix)) std::cout << line << '\n';
      return 0;
    });
    Wait(preview.results, checkers, postfix.Value("maillog_file"));
    const auto add = [&](const CheckResults& more) {
      preview.results.insert(preview.results.end(), more.begin(), more.end());
    };
    for (const CheckResult& result : CheckPorts(postfix.parameters)) {
      if (result.Bad()) add({result});
    }
    if (trial.rehearsal) add(Rehearse(postfix, trial.occupied));
    Wait(preview.results, lint, "");
    preview.warnings = Lines(warnings.Wait().output);
  } else {
    preview.files = FindDifferences(masks);
  }
  TidyWords(preview, masks);
  return preview;
}

void ExcuseOldFaults(Preview& preview, CheckResults before, const std::vector<std::string>& words) {
  const std::vector<Shift> shifts = Compare(before, preview.results);
  if (std::find(shifts.begin(), shifts.end(), Shift::kSoBefore) == shifts.end()) return;
  std::set<std::string> changed;
  for (const Difference& file : preview.files) changed.insert(file.path);
  // A file of these daemons may have been edited in place, and would be loaded.
  std::set<DaemonId> affected = WrittenFor(words);
  affected.merge(ReadersOf(changed));
  for (const CheckResult& one : GoodNow()) {
    if (affected.count(one.question.daemon) != 0) before.insert(before.begin(), one);
  }
  const std::vector<Shift> now = Compare(before, preview.results);
  for (size_t i = 0; i < now.size(); ++i) {
    CheckResult& result = preview.results[i];
    if (now[i] != Shift::kSoBefore) continue;
    result.grade = Grade::kWarning;
    result.words.insert(result.words.begin(), "It was so before this change.");
  }
}
