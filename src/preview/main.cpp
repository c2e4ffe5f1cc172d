// nubo_config_preview [--json] [--no-rehearsal] [WORD]: what `nubo_set_config WORD` would change, and what
// the daemons would say of it. See nubo_config_preview(8).

#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <sstream>

#include "core/commands.h"
#include "preview/sandbox.h"
#include "preview/trial.h"
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

// What a sandbox has printed. Throws Fault when that is not JSON: then it says why.
Preview ResultOf(Program& sandbox) {
  const ProgramResult ended = sandbox.Wait();
  std::cerr << ended.errors;
  Json::Value all;
  std::istringstream text(ended.output);
  if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &all, nullptr))
    throw Fault("nothing was tried");
  return PreviewFromJson(all);
}

// As JSON, without any change of what is not UTF-8.
std::string Written(const Json::Value& all, bool anyBytes) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = anyBytes;
  return Json::writeString(builder, all) + '\n';
}

// Tries the new files beside the installed ones, in two sandboxes.
Preview TryBoth(const Trial& trial) {
  const auto start = [&](bool generate) {
    return InSandbox([&trial, generate] {
      std::cout << Written(ToJson(Try(trial, generate)), true);
      return 0;
    });
  };
  const std::unique_ptr<Program> fresh = start(true);
  const std::unique_ptr<Program> installed = start(false);
  const std::vector<InstalledVersion> versions = DaemonVersions();
  Preview preview = ResultOf(*fresh);
  if (preview.Failed()) return preview;  // the other sandbox ends with this process
  ExcuseOldFaults(preview, ResultOf(*installed).results, trial.words);
  preview.versions = versions;
  for (const InstalledVersion& one : versions) {
    if (!one.warning.empty()) preview.warnings.push_back(one.warning);
  }
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
    const Preview preview = TryBoth({words, rehearsal, OccupiedEndpoints()});
    std::ostringstream text;
    PrintText(text, preview, colour && !json);
    Json::Value all = ToJson(preview);
    all["report"] = text.str();
    std::cout << (json ? Written(all, false) : text.str());
    return preview.Status();
  } catch (const std::exception& error) {
    std::cerr << "nubo_config_preview: " << error.what() << std::endl;
    return 2;
  }
}
