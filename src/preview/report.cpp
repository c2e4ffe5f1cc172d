#include "preview/report.h"

#include <json/json.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "preview/sandbox.h"
#include "system/text.h"

namespace {

using Texts = std::vector<std::string>;

constexpr const char* kWords[] = {"good", "refused", "not installed", "warning", "not asked"};

constexpr const char* kBold = "\033[1m";
constexpr const char* kRed = "\033[31m";
constexpr const char* kGreen = "\033[32m";
constexpr const char* kYellow = "\033[33m";
constexpr const char* kCyan = "\033[36m";

size_t Count(const Preview& preview, Verdict::Word word) {
  return static_cast<size_t>(std::count_if(preview.verdicts.begin(), preview.verdicts.end(),
                                           [&](const Verdict& verdict) { return verdict.word == word; }));
}

std::string Counted(size_t number, const std::string& thing) {
  return std::to_string(number) + " " + thing + (number == 1 ? "" : "s");
}

// The sentence of a verdict. One that has none gets that of the first row whose part its name contains.
std::string Consequence(const Verdict& verdict) {
  if (verdict.word == Verdict::kGood || !verdict.consequence.empty()) return verdict.consequence;
  static const struct {
    const char* part;
    const char* refused;
    const char* notInstalled;
  } kSentences[] = {
      {"opendkim", "Mail would wait, since OpenDKIM would not answer (451).",
       "Mail would wait (451): install opendkim, or switch enable_dkim off."},
      {"opendmarc", "Mail would wait, since OpenDMARC would not answer (451).",
       "Mail would wait (451): install opendmarc, or switch enable_dmarc off."},
      {"dovec", "Nobody could read mail or log in to send, since Dovecot would not run.",
       "Nobody can read mail or log in to send: install dovecot-imapd and dovecot-pop3d."},
      {"spamassassin", "Spam would not be recognised.", "Spam is not recognised: install spamassassin."},
      {"'s log", "Mail that needs this part of Postfix would wait.", ""},
      {"", "Nobody could send or receive mail, since Postfix would not run.",
       "Nobody can send or receive mail: install postfix."},
  };
  const auto* row = std::begin(kSentences);
  while (!Contains(verdict.by, row->part)) ++row;
  if (verdict.word == Verdict::kRefused) return row->refused;
  return verdict.word == Verdict::kNotInstalled ? row->notInstalled : "";
}

// The lines of a program as the reader needs them: with the paths of the machine, not of the sandbox; without
// secrets, and without lines that give no reason. With `known`, also without the warnings in it, to which the
// new ones are added, and without those about lines that nubo_set_config always writes.
Texts Told(const Preview& preview, const Texts& said, std::set<std::string>* known = nullptr) {
  static const std::regex sandbox(std::string(kWork) + "/(old|master)\\b");
  static const std::regex empty("|\\S+: *|.*fatal: daemon initialization failure.*|exit status \\d+");
  static const std::regex always("smtpd?_use_tls|smtpd_sasl_sender_(quota_maps|rate_limit|quota_cache)");
  Texts told;
  for (std::string line : said) {
    line = std::regex_replace(std::regex_replace(line, sandbox, kEtc), std::regex(kWork), "");
    const size_t warning = line.find("warning: ");
    if (known != nullptr && warning != std::string::npos &&
        (std::regex_search(line, always) || !known->insert(line.substr(warning)).second)) {
      continue;
    }
    if (!std::regex_match(line, empty)) told.push_back(preview.masks.MaskLine(line));
  }
  return told.empty() && !said.empty() && known == nullptr ? Texts{said[0]} : told;
}

// Puts the runs with the same end together, with all their words: one fault in the settings ends every run.
std::vector<std::pair<std::string, Run>> Together(const Preview& preview) {
  std::vector<std::pair<std::string, Run>> groups;
  for (const Run& run : preview.runs) {
    const auto like = std::find_if(groups.begin(), groups.end(), [&](const auto& group) {
      return group.second.status == run.status && group.second.said == run.said;
    });
    if (like == groups.end()) {
      groups.emplace_back(run.word, run);
    } else {
      like->first += ", " + run.word;
    }
  }
  return groups;
}

Json::Value ToJson(const Texts& lines) {
  Json::Value array(Json::arrayValue);
  for (const std::string& line : lines) array.append(line);
  return array;
}

// Prints parts of the report, in colours if they are wanted.
class Printer {
 public:
  Printer(std::ostream& stream, bool colour) : out(stream), colour_(colour) {}

  std::string Painted(const char* code, const std::string& text) const {
    return colour_ && !text.empty() ? code + text + "\033[0m" : text;
  }

  void Indented(const Texts& lines) const {
    for (const std::string& line : lines) out << "  " << line << '\n';
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
      out << Painted(line[0] == '+'   ? kGreen
                     : line[0] == '-' ? kRed
                     : line[0] == '@' ? kCyan
                                      : "",
                     line)
          << '\n';
    }
    out << '\n';
  }

  void Show(const Verdict& verdict, const std::string& consequence, const Texts& told) const {
    const char* colour = verdict.word == Verdict::kGood      ? kGreen
                         : verdict.word == Verdict::kRefused ? kRed
                                                             : kYellow;
    out << verdict.by << ": " << Painted(colour, kWords[verdict.word]) << '\n';
    if (!consequence.empty()) Indented({consequence});
    Indented(told);
  }

  std::ostream& out;

 private:
  bool colour_;
};

}  // namespace

bool Preview::Failed() const {
  return std::any_of(runs.begin(), runs.end(), [](const Run& run) { return run.failed; });
}

int Preview::Status() const {
  if (Failed() || Count(*this, Verdict::kRefused) > 0) return 2;
  return files.empty() ? 0 : 1;
}

std::string Preview::Conclusion() const {
  const std::string change = (files.empty() ? "nothing" : Counted(files.size(), "file")) + " would change";
  if (Failed()) return "Refused: nubo_set_config would fail; " + change + ".";
  if (const size_t refused = Count(*this, Verdict::kRefused); refused > 0) {
    const auto first = std::find_if(verdicts.begin(), verdicts.end(),
                                    [](const Verdict& verdict) { return verdict.word == Verdict::kRefused; });
    return "Refused: " + Consequence(*first) +
           (refused == 1 ? "" : " " + Counted(refused - 1, "more refusal") + ".") + " (" + change + ".)";
  }
  std::string conclusion = "Good: " + change;
  const size_t warned = Count(*this, Verdict::kWarning) + warnings.size();
  const size_t notAsked = Count(*this, Verdict::kNotAsked);
  if (warned > 0) conclusion += ", with " + Counted(warned, "warning");
  if (notAsked > 0) conclusion += "; " + Counted(notAsked, "question") + " could not be asked";
  return conclusion + ".";
}

void PrintText(std::ostream& stream, const Preview& preview, bool colour) {
  const Printer printer(stream, colour);
  const std::string conclusion = preview.Conclusion();
  const char* tone = conclusion[0] == 'R' ? kRed : Contains(conclusion, "warning") ? kYellow : kGreen;
  stream << printer.Painted(tone, conclusion) << "\n\n";
  for (const auto& [words, run] : Together(preview)) {
    if (!run.failed && run.said.empty()) continue;
    stream << "nubo_set_config " << words << ": exit status " << run.status << '\n';
    printer.Indented(Told(preview, run.said));
    stream << '\n';
  }
  std::set<std::string> known;
  const auto show = [&](bool good) {
    for (const Verdict& verdict : preview.verdicts) {
      if (good != (verdict.word == Verdict::kGood)) continue;
      printer.Show(verdict, Consequence(verdict), Told(preview, verdict.said, good ? &known : nullptr));
    }
  };
  show(false);
  for (const std::string& warning : preview.warnings) {
    stream << printer.Painted(kYellow, "Warning: ") << preview.masks.MaskLine(warning) << '\n';
  }
  if (preview.verdicts.size() > Count(preview, Verdict::kGood) || !preview.warnings.empty()) stream << '\n';
  for (const Difference& file : preview.files) printer.Show(file);
  show(true);
  stream << "Installed: " << ToString(preview.versions) << '\n';
}

void PrintJson(std::ostream& out, const Preview& preview) {
  Json::Value all;
  all["status"] = preview.Status();
  all["conclusion"] = preview.Conclusion();
  all["runs"] = all["files"] = all["verdicts"] = all["warnings"] = Json::Value(Json::arrayValue);
  for (const Run& run : preview.runs) {
    Json::Value object;
    object["word"] = run.word;
    object["status"] = run.status;
    object["failed"] = run.failed;
    object["said"] = ToJson(Told(preview, run.said));
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
  std::set<std::string> known;
  for (const Verdict& verdict : preview.verdicts) {
    Json::Value object;
    object["by"] = verdict.by;
    object["verdict"] = kWords[verdict.word];
    object["consequence"] = Consequence(verdict);
    object["said"] = ToJson(Told(preview, verdict.said, verdict.word == Verdict::kGood ? &known : nullptr));
    all["verdicts"].append(object);
  }
  for (const InstalledVersion& one : preview.versions) all["versions"][one.program] = one.version;
  for (const std::string& warning : preview.warnings) all["warnings"].append(preview.masks.MaskLine(warning));
  std::ostringstream report;
  PrintText(report, preview, false);
  all["report"] = report.str();
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  out << Json::writeString(builder, all) << '\n';
}
