// The attachment filter: extensions in which no attachment's name may end, written as MailScanner's filename
// rules.
//
//     {"deny_extensions": ["exe", "tar.gz"]}
//
// A rule is one line of four fields with a tab between them: action, Perl regular expression, text for the
// log and text for the recipient ("-" is none). The first rule that matches decides.
#include "common/files.h"
#include "libbrindlecot/json_file.h"
#include "platform/brindlecot.h"

namespace {

// The regular expression that matches `text` and nothing else.
std::string EscapeRegex(const std::string& text) {
  std::string regex;
  for (const char c : text) {
    const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                       static_cast<unsigned char>(c) >= 0x80;
    if (c == ' ') {
      regex += "\\x20";  // a blank would be trimmed off, or end the field
    } else if (c == '#') {
      regex += "\\x23";  // a # would begin a comment
    } else {
      regex += plain ? "" : "\\";
      regex += c;
    }
  }
  return regex;
}

}  // namespace

int AttachmentFilter::GenerateConfig() {
  JsonFile file("/var/packages/Brindlecot/etc/settings/attachment_filter.json");
  Json::Value list(Json::arrayValue);
  file.Take("deny_extensions", list);
  const auto extensions = file.ReadStrings("deny_extensions", list, 1);
  file.ReportUnknownKeys();
  if (file.Result() != 0) return -1;
  std::string rules;
  for (const std::string& extension : extensions) {
    rules += "deny\t(?i)\\." + EscapeRegex(extension) +
             "$\tDenied attachment extension\tThis kind of attachment is not accepted\n";
  }
  rules += "allow\t.*\t-\t-\n";
  return ReplaceFile("/var/packages/Brindlecot/target/etc/MailScanner/filename.rules.conf", rules, 0644);
}
