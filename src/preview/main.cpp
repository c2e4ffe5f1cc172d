/// nubo_config_preview [--json] [--no-rehearsal] [WORD]: what `nubo_set_config WORD` would change, and what
/// the daemons would say of it. See nubo_config_preview(8).

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <iostream>

#include "main/commands.h"
#include "preview/network.h"
#include "preview/rehearsal.h"
#include "preview/report.h"
#include "preview/sandbox.h"
#include "preview/warnings.h"

namespace {

struct Options {
  bool json = false;
  bool rehearsal = true;
  std::vector<std::string> words = CommandWords();
};

/// False when the command line is wrong.
bool Parse(int argc, char* argv[], Options& options) {
  int next = 1;
  for (; next < argc && std::strncmp(argv[next], "--", 2) == 0; ++next) {
    if (std::strcmp(argv[next], "--json") == 0) {
      options.json = true;
    } else if (std::strcmp(argv[next], "--no-rehearsal") == 0) {
      options.rehearsal = false;
    } else {
      return false;
    }
  }
  if (next == argc) return true;
  const bool known = std::count(options.words.begin(), options.words.end(), argv[next]) != 0;
  options.words = {argv[next]};
  return known && next + 1 == argc;
}

int Usage() {
  std::string words;
  for (const std::string& word : CommandWords()) words += (words.empty() ? "" : "|") + word;
  std::cerr << "Usage: nubo_config_preview [--json] [--no-rehearsal] [" << words << "]" << std::endl;
  return 2;
}

/// Inside the sandbox.
int Show(const Options& options, const std::vector<std::string>& taken) {
  Preview preview;
  std::list<Checker> lint;  // takes as long as all the rest
  std::list<Checker> checkers;
  for (const std::string& word : options.words) {
    preview.runs.push_back(RunGenerators(word));
    if (word == "mailscanner") StartCheckers(lint, word);
  }
  // No daemon that is rehearsed reads what "mailscanner" writes.
  const bool rehearsal = options.rehearsal && options.words != std::vector<std::string>{"mailscanner"};
  if (rehearsal) CoverData();
  for (const std::string& word : options.words) {
    if (word != "mailscanner") StartCheckers(checkers, word);
  }
  preview.files = FindDifferences(preview.masks);
  preview.verdicts = Verdicts(checkers);
  const auto add = [&](const std::vector<Verdict>& more) {
    preview.verdicts.insert(preview.verdicts.end(), more.begin(), more.end());
  };
  if (rehearsal) add(Rehearse(taken));
  add(Verdicts(lint));
  if (!preview.Failed()) {
    preview.warnings =
        SettingsWarnings(std::any_of(preview.files.begin(), preview.files.end(), [](const Difference& file) {
          return file.path == kEtc + std::string("/dovecot/conf.d/10-master.conf");
        }));
  }
  (options.json ? PrintJson : PrintText)(std::cout, preview);
  return preview.Status();
}

}  // namespace

int main(int argc, char* argv[]) {
  Options options;
  if (!Parse(argc, argv, options)) return Usage();
  if (geteuid() != 0) {
    std::cerr << "nubo_config_preview: only root may read the settings" << std::endl;
    return 2;
  }
  try {
    const std::vector<std::string> taken = TakenPlaces();
    const int status = InSandbox([&] { return Show(options, taken); });
    return status < 0 ? 2 : status;
  } catch (const std::exception& error) {
    std::cerr << "nubo_config_preview: " << error.what() << std::endl;
    return 2;
  }
}
