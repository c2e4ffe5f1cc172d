// nubo_config_preview [--json] [--no-rehearsal] [WORD]: what `nubo_set_config WORD` would change, and what
// the daemons would say of it. See nubo_config_preview(8).

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>

#include "checks/mail_questions.h"
#include "core/commands.h"
#include "mail/paths.h"
#include "mail/versions.h"
#include "preview/baseline.h"
#include "preview/covers.h"
#include "preview/log.h"
#include "preview/network.h"
#include "preview/rehearsal.h"
#include "preview/report.h"
#include "preview/sandbox.h"
#include "preview/warnings.h"
#include "system/program.h"
#include "system/text.h"

namespace {

int Usage(std::ostream& out, int status) {
  std::string words;
  for (const std::string& word : CommandWords()) words += (words.empty() ? "" : "|") + word;
  out << "Usage: nubo_config_preview [--json] [--no-rehearsal] [" << words << "]" << std::endl;
  return status;
}

// True for a terminal, unless the environment says otherwise: https://no-color.org
bool WantsColour() {
  const char* const none = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) != 0 && (none == nullptr || *none == '\0') && terminal != nullptr &&
         terminal != std::string("dumb");
}

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

// Inside the sandbox.
Preview Try(const std::vector<std::string>& words, bool rehearsal, const std::vector<Place>& taken) {
  Preview preview;
  std::list<Checker> lint;  // takes as long as all the rest
  std::list<Checker> checkers;
  for (const std::string& word : words) {
    preview.runs.push_back(RunGenerators(word));
    if (word == "mailscanner") StartCheckers(lint, word);
  }
  const bool failed = preview.Failed();  // then the files are not those of the settings, and nobody is asked
  CoverData();
  for (const std::string& word : words) {
    if (word != "mailscanner" && !failed) StartCheckers(checkers, word);
  }
  preview.files = FindDifferences(preview.masks);
  if (failed) return preview;
  const std::string listeners = kEtc + "/dovecot/conf.d/10-master.conf";
  const bool listenersChange = std::any_of(preview.files.begin(), preview.files.end(),
                                           [&](const Difference& file) { return file.path == listeners; });
  // A process of its own stays on the machine's network, and its peers may keep it waiting.
  Program warnings([&] {
    for (const std::string& line : AllWarnings(listenersChange, NewPostfix())) std::cout << line << '\n';
    return 0;
  });
  preview.verdicts = Verdicts(checkers);
  const auto add = [&](const std::vector<Verdict>& more) {
    preview.verdicts.insert(preview.verdicts.end(), more.begin(), more.end());
  };
  add(PortVerdicts(MainCf()));
  if (rehearsal) add(Rehearse(taken));
  add(Verdicts(lint));
  preview.versions = DaemonVersions();
  for (const InstalledVersion& one : preview.versions) {
    if (!one.warning.empty()) preview.warnings.push_back(one.warning);
  }
  for (const std::string& line : Lines(warnings.Wait().output)) preview.warnings.push_back(line);
  return preview;
}

}  // namespace

int main(int argc, char* argv[]) {
  bool json = false;
  bool rehearsal = true;
  std::vector<std::string> words = CommandWords();
  int next = 1;
  for (; next < argc && argv[next][0] == '-'; ++next) {
    const std::string option = argv[next];
    if (option == "--help") return Usage(std::cout, 0);
    if (option == "--version") {
      std::cout << Versions("nubo_config_preview") << std::endl;
      return 0;
    }
    if (option == "--json") {
      json = true;
    } else if (option == "--no-rehearsal") {
      rehearsal = false;
    } else {
      return Usage(std::cerr, 2);
    }
  }
  if (next < argc) {
    if (next + 1 < argc || !Contains(words, argv[next])) return Usage(std::cerr, 2);
    words = {argv[next]};
  }
  if (geteuid() != 0) {
    std::cerr << "nubo_config_preview: only root may read the settings" << std::endl;
    return 2;
  }
  const bool colour = WantsColour();
  // No daemon that is rehearsed reads what this command writes.
  if (words == std::vector<std::string>{"mailscanner"}) rehearsal = false;
  try {
    const std::vector<Place> taken = TakenPlaces();
    Baseline baseline(words, rehearsal, taken);
    const int status = InSandbox(
        [&] {
          Preview preview = Try(words, rehearsal, taken);
          baseline.Compare(preview.verdicts, preview.files);
          json ? PrintJson(std::cout, preview) : PrintText(std::cout, preview, colour);
          return preview.Status();
        },
        [&] { baseline.Serve(); });
    return status < 0 ? 2 : status;
  } catch (const std::exception& error) {
    std::cerr << "nubo_config_preview: " << error.what() << std::endl;
    return 2;
  }
}
