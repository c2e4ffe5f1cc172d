#include "preview/report.h"

#include <json/json.h>

#include <algorithm>

namespace {

constexpr const char* kWords[] = {"good", "refused", "not installed", "warning", "not asked"};

bool Refused(const Preview& preview) {
  return std::any_of(preview.verdicts.begin(), preview.verdicts.end(),
                     [](const Verdict& verdict) { return verdict.word == Verdict::kRefused; });
}

Json::Value Masked(const Masks& masks, const std::vector<std::string>& lines) {
  Json::Value array(Json::arrayValue);
  for (const std::string& line : lines) array.append(masks.Said(line));
  return array;
}

}  // namespace

bool Preview::Failed() const {
  return std::any_of(runs.begin(), runs.end(), [](const Run& run) { return run.failed; });
}

int Preview::Status() const {
  if (Failed() || Refused(*this)) return 2;
  return files.empty() ? 0 : 1;
}

void PrintText(std::ostream& out, const Preview& preview) {
  const auto print = [&](const std::vector<std::string>& lines) {
    for (const std::string& line : lines) out << "  " << preview.masks.Said(line) << '\n';
  };
  for (const Run& run : preview.runs) {
    out << "nubo_set_config " << run.word << ": exit status " << run.status << '\n';
    print(run.said);
  }
  for (const Difference& file : preview.files) {
    out << '\n' << file.path;
    if (file.after.empty()) {
      out << ": gone";
    } else if (file.before.empty()) {
      out << ": new, " << file.after;
    } else if (file.before != file.after) {
      out << ": " << file.before << " becomes " << file.after;
    }
    out << '\n' << (file.secret ? "  (another secret)\n" : "") << file.diff;
  }
  out << '\n';
  for (const Verdict& verdict : preview.verdicts) {
    out << verdict.by << ": " << kWords[verdict.word] << '\n';
    print(verdict.said);
  }
  for (const std::string& warning : preview.warnings)
    out << "Warning: " << preview.masks.Said(warning) << '\n';
  out << '\n'
      << preview.files.size() << (preview.files.size() == 1 ? " file" : " files") << " would change.\n";
  if (preview.Failed()) out << "The run failed.\n";
  if (Refused(preview)) out << "The daemons would not accept it.\n";
}

void PrintJson(std::ostream& out, const Preview& preview) {
  Json::Value all;
  all["status"] = preview.Status();
  all["runs"] = all["files"] = all["verdicts"] = Json::Value(Json::arrayValue);
  for (const Run& run : preview.runs) {
    Json::Value object;
    object["word"] = run.word;
    object["status"] = run.status;
    object["failed"] = run.failed;
    object["said"] = Masked(preview.masks, run.said);
    all["runs"].append(object);
  }
  for (const Difference& file : preview.files) {
    Json::Value object;
    object["path"] = file.path;
    object["before"] = file.before.empty() ? Json::Value() : file.before;
    object["after"] = file.after.empty() ? Json::Value() : file.after;
    object["diff"] = file.diff;
    object["secret"] = file.secret;
    all["files"].append(object);
  }
  for (const Verdict& verdict : preview.verdicts) {
    Json::Value object;
    object["by"] = verdict.by;
    object["verdict"] = kWords[verdict.word];
    object["said"] = Masked(preview.masks, verdict.said);
    all["verdicts"].append(object);
  }
  all["warnings"] = Masked(preview.masks, preview.warnings);
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  out << Json::writeString(builder, all) << '\n';
}
