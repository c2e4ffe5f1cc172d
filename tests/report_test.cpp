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
  const auto checker = [](DaemonId id, const char* command) {
    return Question{Topic::kConfiguration, id, "", Asker::kMachine, command};
  };
  Preview preview;
  preview.files.push_back({"/a", "", "644 root:root", "-x\n+y\n", false});
  preview.warnings = {"w: bind_pw = x"};
  preview.results = {
      {checker(DaemonId::kPostfix, "postconf -n"),
       Grade::kGood,
       {"postconf: warning: /tmp/preview/etc/a: b", "warning: smtp_use_tls"}},
      {checker(DaemonId::kPostfix, "postfix check"), Grade::kGood, {"x: warning: /tmp/preview/etc/a: b"}},
      {{Topic::kRoom, DaemonId::kPostfix}, Grade::kBad, {"postdrop: ", "/tmp/preview/var/x: y"}, "Nobody."},
      {checker(DaemonId::kDovecot, "doveconf"), Grade::kNotInstalled, {}, "Install it."},
      {{Topic::kPortOwner, DaemonId::kPostfix, "11211", Asker::kMachine, "memcached"}, Grade::kWarning}};
  TidyWords(preview, Masks());
  EXPECT_EQ(Text(preview, false),
            "Refused: Nobody. (1 file would change.)\n\n"
            "rehearsal: room for mail: refused\n  Nobody.\n  /var/x: y\n"
            "doveconf: not installed\n  Install it.\n"
            "memcached, port 11211: warning\n"
            "Warning: w: bind_pw =********\n\n"
            "/a: new, 644 root:root\n-x\n+y\n\n"
            "postconf -n: good\n  postconf: warning: /etc/a: b\n"
            "postfix check: good\nInstalled: \n");
  EXPECT_NE(Text(preview, true).find("\033[31m-x\033[0m\n\033[32m+y\033[0m"), std::string::npos);
  preview.runs.push_back({"smtp", 1, {"a"}, true});
  const Json::Value json = ToJson(preview);
  EXPECT_EQ(ToJson(PreviewFromJson(json)), json);
  EXPECT_EQ(json["verdicts"][2]["verdict"], "refused");
  EXPECT_EQ(json["verdicts"][2]["by"], "rehearsal: room for mail");
  EXPECT_EQ(json["verdicts"][2]["said"][0], "/var/x: y");
}
