#include "preview/report.h"

#include <algorithm>
#include <set>

#include "preview/sandbox.h"
#include "system/text.h"

namespace {

using Texts = std::vector<std::string>;

constexpr const char* kBold = "\033[1m";
constexpr const char* kRed = "\033[31m";
constexpr const char* kGreen = "\033[32m";
constexpr const char* kYellow = "\033[33m";
constexpr const char* kCyan = "\033[36m";

size_t Count(const Preview& preview, Grade grade) {
  return static_cast<size_t>(std::count_if(preview.results.begin(), preview.results.end(),
                                           [&](const CheckResult& result) { return result.grade == grade; }));
}

std::string Counted(size_t number, const std::string& thing) {
  return std::to_string(number) + " " + thing + (number == 1 ? "" : "s");
}

// The questions to checkers, and whose the ports are, are not asked in the rehearsal.
std::string Title(const Question& question) {
  const bool checker = question.topic == Topic::kConfiguration && !question.to.empty();
  return (checker || question.topic == Topic::kPortOwner ? "" : "rehearsal: ") + Name(question);
}

const char* WordOf(const CheckResult& result) { return result.Bad() ? "refused" : Word(result.grade); }

// With `known`, without the warnings in it, to which the new ones are added.
void Tidy(Texts& lines, const Masks& masks, std::set<std::string>* known) {
  Texts tidy;
  for (std::string line : lines) {
    for (size_t at; (at = line.find(kWork)) != std::string::npos;) line.erase(at, std::string(kWork).size());
    const size_t warning = known == nullptr ? std::string::npos : line.find("warning: ");
    const Texts always = Words(
        "smtp_use_tls smtpd_use_tls smtpd_sasl_sender_quota_maps smtpd_sasl_sender_rate_limit "
        "smtpd_sasl_sender_quota_cache");
    if (!GivesReason(line)) continue;
    if (warning != std::string::npos &&
        (std::any_of(always.begin(), always.end(), [&](const auto& name) { return Contains(line, name); }) ||
         !known->insert(line.substr(warning)).second))
      continue;
    tidy.push_back(masks.MaskLine(line));
  }
  lines = tidy;
}

Json::Value ToJson(const Texts& lines) {
  Json::Value array(Json::arrayValue);
  for (const std::string& line : lines) array.append(line);
  return array;
}

Texts TextsOf(const Json::Value& array) {
  Texts lines;
  for (const Json::Value& line : array) lines.push_back(line.asString());
  return lines;
}

// Prints parts of the report, in colours if they are wanted.
struct Printer {
  std::ostream& out;
  bool colour;

  std::string Painted(const char* code, const std::string& text) const {
    return colour && !text.empty() ? code + text + "\033[0m" : text;
  }

  void Indented(const Texts& lines) const {
    for (const std::string& line : lines) out << "  " << line << '\n';
  }

  // Runs with the same end are told once, with all their words: one fault in the settings ends every run.
  void Show(const std::vector<Run>& runs) const {
    std::vector<Run> told;
    for (const Run& run : runs) {
      const auto like = std::find_if(told.begin(), told.end(), [&](const Run& one) {
        return one.status == run.status && one.said == run.said;
      });
      if (like != told.end()) {
        like->word += ", " + run.word;
      } else if (run.failed || !run.said.empty()) {
        told.push_back(run);
      }
    }
    for (const Run& run : told) {
      out << "nubo_set_config " << run.word << ": exit status " << run.status << '\n';
      Indented(run.said);
      out << '\n';
    }
  }

  void Show(const Difference& file) const {
    out << Painted(kBold, file.path);
    if (file.after.empty()) {
      out << ": gone";
    } else if (file.before.empty()) {
      out << ": new, " << file.after;
    } else if (file.before != file.after) {
      out << ": " << file.before << " becomes " << file.after;
    }
    out << '\n' << (file.secret ? "  (another secret)\n" : "");
    for (const std::string& line : Lines(file.diff)) {
      const char begin = line[0];
      const char* code = begin == '+' ? kGreen : begin == '-' ? kRed : begin == '@' ? kCyan : nullptr;
      out << (code != nullptr ? Painted(code, line) : line) << '\n';
    }
    out << '\n';
  }

  void Show(const CheckResults& results, bool good) const {
    for (const CheckResult& result : results) {
      if (good != (result.grade == Grade::kGood)) continue;
      out << Title(result.question) << ": "
          << Painted(good           ? kGreen
                     : result.Bad() ? kRed
                                    : kYellow,
                     WordOf(result))
          << '\n';
      if (!result.sentence.empty()) Indented({result.sentence});
      Indented(result.words);
    }
  }
};

}  // namespace

bool Preview::Failed() const {
  return std::any_of(runs.begin(), runs.end(), [](const Run& run) { return run.failed; });
}

int Preview::Status() const {
  if (Failed() || Count(*this, Grade::kBad) > 0) return 2;
  return files.empty() ? 0 : 1;
}

std::string Preview::Conclusion() const {
  const std::string change = (files.empty() ? "nothing" : Counted(files.size(), "file")) + " would change";
  if (Failed()) return "Refused: nubo_set_config would fail; " + change + ".";
  if (const size_t refused = Count(*this, Grade::kBad); refused > 0) {
    const auto first =
        std::find_if(results.begin(), results.end(), [](const CheckResult& result) { return result.Bad(); });
    return "Refused: " + first->sentence +
           (refused == 1 ? "" : " " + Counted(refused - 1, "more refusal") + ".") + " (" + change + ".)";
  }
  std::string conclusion = "Good: " + change;
  const size_t warned = Count(*this, Grade::kWarning) + warnings.size();
  const size_t notAsked = Count(*this, Grade::kNotAsked);
  if (warned > 0) conclusion += ", with " + Counted(warned, "warning");
  if (notAsked > 0) conclusion += "; " + Counted(notAsked, "question") + " could not be asked";
  return conclusion + ".";
}

bool GivesReason(const std::string& line) {
  const std::string text = Trim(line);
  const bool name = EndsWith(text, ":") && text.find_first_of(" \t") == std::string::npos;
  return !text.empty() && !name && !Contains(text, "fatal: daemon initialization failure");
}

void TidyWords(Preview& preview, const Masks& masks) {
  std::set<std::string> known;
  for (Run& run : preview.runs) Tidy(run.said, masks, nullptr);
  for (CheckResult& result : preview.results) {
    Tidy(result.words, masks, result.grade == Grade::kGood ? &known : nullptr);
  }
  for (std::string& warning : preview.warnings) warning = masks.MaskLine(warning);
}

void PrintText(std::ostream& stream, const Preview& preview, bool colour) {
  const Printer printer = {stream, colour};
  const bool warned = Count(preview, Grade::kWarning) > 0 || !preview.warnings.empty();
  const char* tone = preview.Status() == 2 ? kRed : warned ? kYellow : kGreen;
  stream << printer.Painted(tone, preview.Conclusion()) << "\n\n";
  printer.Show(preview.runs);
  printer.Show(preview.results, false);
  for (const std::string& warning : preview.warnings) {
    stream << printer.Painted(kYellow, "Warning: ") << warning << '\n';
  }
  if (preview.results.size() > Count(preview, Grade::kGood) || !preview.warnings.empty()) stream << '\n';
  for (const Difference& file : preview.files) printer.Show(file);
  printer.Show(preview.results, true);
  stream << "Installed: " << ToString(preview.versions) << '\n';
}

Json::Value ToJson(const Preview& preview) {
  Json::Value all;
  all["status"] = preview.Status();
  all["conclusion"] = preview.Conclusion();
  all["runs"] = all["files"] = all["verdicts"] = Json::arrayValue;
  for (const Run& run : preview.runs) {
    Json::Value& object = all["runs"].append(Json::objectValue);
    object["word"] = run.word;
    object["status"] = run.status;
    object["failed"] = run.failed;
    object["said"] = ToJson(run.said);
  }
  for (const Difference& file : preview.files) {
    Json::Value& object = all["files"].append(Json::objectValue);
    object["path"] = file.path;
    object["before"] = file.before.empty() ? Json::Value() : file.before;
    object["after"] = file.after.empty() ? Json::Value() : file.after;
    object["diff"] = file.diff;
    object["secret"] = file.secret;
  }
  for (const CheckResult& result : preview.results) {
    Json::Value& object = all["verdicts"].append(ToJson(result));
    object["by"] = Title(result.question);
    object["verdict"] = WordOf(result);
    object["said"] = ToJson(result.words);
  }
  for (const InstalledVersion& one : preview.versions) all["versions"][one.program] = one.version;
  all["warnings"] = ToJson(preview.warnings);
  return all;
}

Preview PreviewFromJson(const Json::Value& all) {
  Preview preview;
  for (const Json::Value& run : all["runs"]) {
    preview.runs.push_back(
        {run["word"].asString(), run["status"].asInt(), TextsOf(run["said"]), run["failed"].asBool()});
  }
  for (const Json::Value& file : all["files"]) {
    preview.files.push_back({file["path"].asString(), file["before"].asString(), file["after"].asString(),
                             file["diff"].asString(), file["secret"].asBool()});
  }
  preview.results = FromJson(all["verdicts"]);
  preview.warnings = TextsOf(all["warnings"]);
  return preview;
}
