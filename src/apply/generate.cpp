#include "apply/generate.h"

#include <iostream>
#include <list>
#include <sstream>

#include "apply/basics.h"
#include "apply/change.h"
#include "apply/state.h"
#include "core/config_generator.h"

namespace {

const std::string kBin = "/var/packages/Brindlecot/target/bin/";

}  // namespace

ProgramResult Preview(const std::vector<std::string>& words) {
  std::vector<std::string> command = {kBin + "nubo_config_preview"};
  if (words.size() == 1) command.push_back(words[0]);
  ProgramResult preview;
  {
    const Step step("Preview and rehearsal");
    preview = RunProgram(command);
  }
  preview.output += preview.errors;
  if (preview.status == 0 || preview.status == 1) return preview;
  std::cout << preview.output << std::flush;
  throw Refused("refused by the preview; nothing was touched");
}

void Generate(const std::vector<std::string>& words, const std::string& shown) {
  const Step step("The files are written");
  for (const std::string& word : words) {
    // In a session of its own: Ctrl-C would end it, and not the compiler of tables that it runs.
    RunOrThrow({"setsid", "--wait", "flock", kRunLock, kBin + "nubo_set_config", word},
               "nubo_set_config " + word + " failed, see the system log");
  }
  const Paths written = Differing(Kind::kOutput, kPending);
  if (written.count(kEtc + "/main.cf") != 0) SkipSettleTime(kEtc + "/main.cf");
  std::list<std::string> unwritten;
  std::istringstream lines(shown);
  for (std::string line; std::getline(lines, line);) {
    const std::string path = line.substr(0, line.find(": "));
    // Other lines begin with the command of a checker, which may be a path, too.
    const bool file = StartsWith(path, kEtc + "/") || StartsWith(path, "/usr/nubo/");
    if (file && written.count(path) == 0) unwritten.push_back(path);
  }
  if (!unwritten.empty()) throw Fault("not written, see the system log: " + JoinList(unwritten, ", "));
}
