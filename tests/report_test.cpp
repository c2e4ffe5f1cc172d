#include "preview/report.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

std::string Text(const Preview& preview, bool colour) {
  std::ostringstream text;
  PrintText(text, preview, colour);
  return text.str();
}

}  // namespace

TEST(Report, TellsAFaultOfTheSettingsOnce) {
  Preview preview;
  for (const char* word : {"smtp", "dovecot"}) preview.runs.push_back({word, 255, {"log: a"}, true});
  preview.runs.push_back({"alias", 0, {}, false});
  EXPECT_EQ(Text(preview, false),
            "Refused: nubo_set_config would fail; nothing would change.\n\n"
            "nubo_set_config smtp, dovecot: exit status 255\n  log: a\n\nInstalled: \n");
}

TEST(Report, BeginsWithWhatIsRefused) {
  Preview preview;
  preview.files.push_back({"/a", "", "644 root:root", "-x\n+y\n", false});
  preview.warnings = {"w: bind_pw = x"};
  preview.verdicts = {
      {"postconf -n", Verdict::kGood, {"postconf: warning: /tmp/preview/old/a: b", "warning: smtp_use_tls"}},
      {"postfix check", Verdict::kGood, {"x: warning: /tmp/preview/old/a: b"}},
      {"rehearsal: mail",
       Verdict::kRefused,
       {"exit status 1", "postdrop: ", "/tmp/preview/var/x: y"},
       "Nobody."},
      {"doveconf -n", Verdict::kNotInstalled, {}}};
  const std::string etc = "/var/packages/Brindlecot/target/etc";
  EXPECT_EQ(Text(preview, false),
            "Refused: Nobody. (1 file would change.)\n\n"
            "rehearsal: mail: refused\n  Nobody.\n  /var/x: y\n"
            "doveconf -n: not installed\n"
            "  Nobody can read mail or log in to send: install dovecot-imapd and dovecot-pop3d.\n"
            "Warning: w: bind_pw =********\n\n"
            "/a: new, 644 root:root\n-x\n+y\n\n"
            "postconf -n: good\n  postconf: warning: " +
                etc +
                "/a: b\n"
                "postfix check: good\nInstalled: \n");
  EXPECT_NE(Text(preview, true).find("\033[31m-x\033[0m\n\033[32m+y\033[0m"), std::string::npos);
  std::ostringstream json;
  PrintJson(json, preview);
  for (const char* part :
       {"\"conclusion\" : \"Refused: Nobody. ", "\"consequence\" : \"Nobody.\"", "/target/etc/a: b"}) {
    EXPECT_NE(json.str().find(part), std::string::npos) << part;
  }
}
