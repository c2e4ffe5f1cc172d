#include "apply/generate.h"

#include <json/json.h>

#include <iostream>
#include <memory>

#include "core/config_generator.h"
#include "mail/postfix_config.h"

namespace {

const std::string kBin = "/var/packages/Brindlecot/target/bin/";

}  // namespace

Preview RunPreview(const std::vector<std::string>& words) {
  std::vector<std::string> command = {kBin + "nubo_config_preview", "--json"};
  if (words.size() == 1) command.push_back(words[0]);
  ProgramResult result;
  {
    const Step step("Preview and rehearsal");
    result = RunProgram(command);
  }
  Json::Value said;
  std::string fault;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(result.output.data(), result.output.data() + result.output.size(), &said, &fault)) {
    throw Fault("the preview failed: " + result.errors);
  }
  if (result.status != 0 && result.status != 1) {
    std::cout << said["report"].asString() << std::flush;
    throw Fault("refused by the preview");
  }
  Preview preview = {result.status == 1, said["report"].asString(), {}};
  for (const Json::Value& file : said["files"]) preview.files.insert(file["path"].asString());
  return preview;
}

void Generate(const std::vector<std::string>& words, const Preview& preview) {
  const Step step("The files are written");
  PendingChange::SavePlan(preview.files);
  for (const std::string& word : words) {
    RunOrThrow({"flock", kRunLock, kBin + "nubo_set_config", word},
               "nubo_set_config " + word + " failed, see the system log");
  }
  const Paths edited = Differing(FileKind::kInput, kTried + ".new");
  if (!edited.empty()) {
    throw Fault("edited while the files were written: " + JoinList({edited.begin(), edited.end()}, ", "));
  }
  const Paths written = Differing(FileKind::kOutput, kPending);
  if (written.count(kEtc + "/main.cf") != 0) SkipSettleTime(kEtc + "/main.cf");
  std::list<std::string> unwritten;
  for (const std::string& path : preview.files) {
    if (written.count(path) == 0) unwritten.push_back(path);
  }
  if (!unwritten.empty()) throw Fault("not written, see the system log: " + JoinList(unwritten, ", "));
}
