#include <chrono>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <thread>

#include "apply/basics.h"
#include "apply/change.h"
#include "apply/commands.h"
#include "apply/state.h"
#include "core/commands.h"
#include "core/config_generator.h"
#include "system/program.h"

namespace {

namespace fs = std::filesystem;

const std::string kBin = "/var/packages/Brindlecot/target/bin/";

// What the preview shows. Throws Refused, and prints it, unless the change can be tried. Nothing would change
// when the status is 0.
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

// Runs nubo_set_config. Throws Fault when a run fails, or when a file is still what it was that the preview
// has named. (The exit status of "nubo_set_config smtp" does not tell.)
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
    if (line[0] == '/' && written.count(path) == 0) unwritten.push_back(path);
  }
  if (!unwritten.empty()) throw Fault("not written, see the system log: " + JoinList(unwritten, ", "));
}

}  // namespace

int Apply(const std::vector<std::string>& words, double minutes) {
  const Change change = Begin(words.size() == 1 ? "nubo_config_apply " + words[0] : "nubo_config_apply");
  const std::string base = StateDirectory(change.base);
  const ProgramResult preview = Preview(words);
  if (preview.status == 0 && Holds(base, Kind::kInput) && Differing(Kind::kOutput, base).empty() &&
      Differing(Kind::kInput, base).empty()) {
    std::cout << "Nothing has changed since state " << change.base << std::endl;
    return 0;
  }
  return BringAbout(change, Sort::kApply, minutes, [&] {
    Generate(words, preview.output);
    return preview.output;
  });
}

int Undo(int state, double minutes) {
  const std::set<int> states = States();
  if (state == 0 && states.size() > 1) state = *std::next(states.rbegin());
  if (states.count(state) == 0) throw Fault("there is no such state, see: nubo_config_apply history");
  const std::string tree = StateDirectory(state);
  const Change change = Begin("nubo_config_apply undo " + std::to_string(state));
  if (!Holds(tree, Kind::kInput)) {
    return BringAbout(change, Sort::kAsFound, minutes, [&] {
      const Step step("The files are put back");
      Mirror(Kind::kOutput, tree, kLive);
      return "The files of state " + std::to_string(state) + ".\n";
    });
  }
  return BringAbout(change, Sort::kUndo, minutes, [&] {
    Mirror(Kind::kInput, tree, kLive);
    ProgramResult preview;
    try {
      preview = Preview(CommandWords());
    } catch (const Refused&) {
      Mirror(Kind::kInput, kPending, kLive);
      throw;
    }
    Generate(CommandWords(), preview.output);
    return preview.output;
  });
}

int Confirm() {
  const Change pending = ReadPending();
  if (!fs::exists(kPending + "/next"))
    throw Fault("the change was not finished; take it back by: nubo_config_apply recover");
  return Settle(pending);
}

int Recover() {
  if (!IsPending()) {
    std::cout << "No change is pending." << std::endl;
    return 0;
  }
  const Change pending = ReadPending();
  if (States().count(pending.base + 1) == 0) {
    const bool finished = fs::exists(kPending + "/next");
    return GoBack(pending, finished ? "it was not confirmed" : "it was not finished");
  }
  EndPending();  // it was killed before it could say so
  std::cout << "The change was confirmed." << std::endl;
  return 0;
}

int Wait() {
  const long deadline = ReadPending().deadline;
  const auto gone = [&] { return !IsPending() || ReadPending().deadline != deadline; };
  while (Now() < deadline) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    if (gone()) return 0;
  }
  // Until here a shutdown ends it; what is pending then is taken back at boot.
  OutliveSession();
  LockStates(std::chrono::hours(24), false);
  return gone() ? 0 : Recover();
}
