#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "platform/brindlecot.h"
#include "platform/nubocore.h"
#include "private_root.h"
#include "recorded_syslog.h"

using namespace std::string_literals;

namespace {

const std::string kSettings = "/var/packages/Brindlecot/etc/settings/";
const std::string kTarget = "/var/packages/Brindlecot/target/";
const std::string kText = "a string of UTF-8 without control characters\n";

/// Loads `file` with that content and returns the lines logged, without the path. A load logs when it
/// fails, and only then.
std::string Load(const std::string& file, const std::string& content) {
  RecordedLog().clear();
  Put(kSettings + file, content);
  const int result = file == "scanner.json"   ? MailScanner().LoadSettings()
                     : file == "aliases.json" ? Alias().load()
                                              : Postfix().LoadSettings();
  EXPECT_EQ(result < 0, !RecordedLog().empty()) << content;
  std::string logged;
  for (const std::string& line : RecordedLog()) {
    EXPECT_EQ(line.rfind(kSettings + file + ":", 0), 0U) << line;
    logged += line.substr(kSettings.size() + file.size() + 1) + "\n";
  }
  return logged;
}

TEST(Settings, Faults) {
  ResetPrivateRoot();
  const std::string port = ": expected an integer from 1 to 65535\n";
  const std::string item1 = ": expected item 1 to be a non-empty " + kText.substr(2);
  const struct {
    const char* file;
    std::string content, logged;
  } kCases[] = {
      {"smtp.json", "\xef\xbb\xbf// all\n{\"smtp_port\": 65535, \"message_limit\": 0} /* that */ ", ""},
      {"smtp.json", "{\"smtp_hostname\": \"\xf4\x8f\xbf\xbf\xed\x9f\xbf\xe0\xa0\x80\xc2\x80\"}", ""},
      {"smtp.json", "", "1:1: syntax error\n"},
      {"smtp.json", "[]", "1:1: not an object\n"},
      {"smtp.json", "{\"smtp_port\": 1,}", "1:17: syntax error\n"},
      {"smtp.json", "{\n\"smtp_port\": 1} {}", "2:17: syntax error\n"},
      {"smtp.json", "{}\0{}"s, "1:3: syntax error\n"},
      {"smtp.json", "{\"smtp_port\": 1,\n \"smtp_port\": 1}", "2:2: duplicate key\n"},
      {"smtp.json", "{\"smtp_relay_password\": 12e}", "1:25: syntax error\n"},
      {"smtp.json", R"({"smtp_relay_password": "x\n"})", " smtp_relay_password: expected " + kText},
      {"smtp.json", std::string(5000, '['), "1:1: nested too deeply\n"},
      {"smtp.json", R"({"smtp_port": 25.0, "smtp_relay_server_port": 1e2, "smtp_tls_port": 4294967321,
           "smtps_port": 36893488147419103257, "enable_dkim": 1, "smtp_hostname": null, "x\n\u0000": 1})",
       " enable_dkim: expected true or false\n smtp_hostname: expected " + kText + " smtp_port" + port +
           " smtp_relay_server_port" + port + " smtp_tls_port" + port + " smtps_port" + port +
           " x??: expected a known key\n"},
      {"smtp.json", R"({"dnsbl": [{"zone": "", "kind": ""}, 1, {"zone": "z", "x": 1}]})",
       " dnsbl: expected item 2 to be an object\n dnsbl: expected item 3 to have no member x\n"
       " dnsbl: expected item 3 to have as kind " +
           kText},
      {"scanner.json", "{\"spam_required_score\": -2147483648}", ""},
      {"scanner.json", "{\"spam_required_score\": 2147483648}",
       " spam_required_score: expected an integer from -2147483648 to 2147483647\n"},
      {"aliases.json", R"({"": ["x"], "a": [], "b": "x", "c": [""], "d": ["\t"]})",
       " : expected a non-empty name of UTF-8 without control characters\n"
       " a: expected at least one recipient\n b: expected an array of strings\n c" +
           item1 + " d" + item1},
      {"aliases.json",
       R"({"straße": ["x"], "STRASSE": ["x"], "É": ["x"], "é": ["x"], "ı": ["x"], "i": ["x"]})",
       " straße: expected a name that differs from STRASSE in more than case\n"
       " é: expected a name that differs from É in more than case\n"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(Load(c.file, c.content), c.logged) << c.content;
  }
  // Control characters; surrogates, above U+10FFFF, overlong forms, a character cut off, one without a start.
  for (const char* bad :
       {"\\u0000", "\x7f", "\\udc00", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xc1\xa1",
        "\xe0\x9f\xbf", "\xf0\x8f\xbf\xbf", "\xe2\x82", "\x80"}) {
    EXPECT_EQ(Load("smtp.json", "{\"additional_domains\": [\"\", \""s + bad + "\"]}"),
              " additional_domains: expected item 2 to be " + kText)
        << bad;
  }
}

TEST(Settings, DefaultsAndFailedReload) {
  ResetPrivateRoot();
  Postfix smtp;
  EXPECT_EQ(smtp.LoadSettings() + MailScanner().LoadSettings() + ImapPop3().LoadSettings(), 0);
  EXPECT_EQ(boost::any_cast<Value<std::string>>(smtp.Get("dkim_selector")).value, "default");
  Put(kSettings + "smtp.json",
      R"({"smtp_port": 26, "additional_domains": ["b", "a"], "dnsbl": [{"kind": "RBL", "zone": "z"}]})");
  EXPECT_EQ(smtp.LoadSettings(), 0);
  Put(kSettings + "smtp.json", R"({"smtp_port": 27, "additional_domains": ["c"], "dnsbl": [], "x": 1})");
  EXPECT_LT(smtp.LoadSettings(), 0);
  EXPECT_EQ(boost::any_cast<Value<int>>(smtp.Get("smtp_port")).value, 26);
  EXPECT_EQ(smtp.GetAdditionDomain(), (std::list<std::string>{"b", "a"}));
  EXPECT_EQ(smtp.GetDNSBLList(), (std::list<std::pair<std::string, std::string>>{{"z", "RBL"}}));
  std::filesystem::remove(kSettings + "smtp.json");
  std::filesystem::create_directory(kSettings + "smtp.json");  // not missing
  EXPECT_LT(smtp.LoadSettings(), 0);
  EXPECT_EQ(RecordedLog().back(), kSettings + "smtp.json: expected a readable file: Is a directory");
}

/// What the loaded aliases are exported as.
std::string Exported() {
  Alias alias;
  return alias.load() >= 0 && alias.ExportAlias("/tmp/aliases") >= 0 ? Slurp("/tmp/aliases") : "(failed)";
}

TEST(Alias, ReadByPostfix) {
  ResetPrivateRoot();
  EXPECT_EQ(Exported(), "postmaster: root\n");
  Put(kSettings + "aliases.json", R"({"sales": ["alice", "bob@example.com"], "Z": ["é"]})");
  EXPECT_EQ(Exported(), "Z: é\nsales: alice, bob@example.com\n");
  if (access("/usr/sbin/postalias", X_OK) != 0) {
    GTEST_SKIP() << "needs Postfix";
  }
  std::string settings = "{\"A\": [\"x\"]";
  std::vector<std::pair<std::string, std::string>> names;  // plain, and as JSON and aliases(5) quote them
  for (const char c : " !\"#$%&'()*+,-./09:;<=>?@[\\]^_`az{|}~"s) {
    const std::string q = (c == '"' || c == '\\' ? "\\"s : ""s) + c;
    names.emplace_back(c + "X"s + c + "1" + c, "\"" + q + "X" + q + "1" + q + "\"");
    settings += ", " + names.back().second + ": [\"a\", " + names.back().second + ", \"b@c\"]";
  }
  Put(kSettings + "aliases.json", settings + "}");
  ASSERT_NE(Exported(), "(failed)");
  Put("/etc/passwd", "nobody:x:65534:65534::/:\npostfix:x:101:101::/:\n");  // other tests bring their own
  ASSERT_EQ(ZELBCExec("/usr/sbin/postalias", "-of", "hash:/tmp/aliases", nullptr, nullptr), 0);
  FILE* const listing = ZELBCPopen("/usr/sbin/postalias", "r", "-s", "hash:/tmp/aliases", nullptr);
  std::string records(65536, '\n');
  records.resize(1 + fread(&records[1], 1, records.size() - 1, listing));
  ZELBCPclose(listing);
  for (const auto& [plain, quoted] : names) {
    const auto found = [&, &name = plain](const std::string& recipient) {
      return records.find("\n" + name + ":\ta, " + recipient + ", b@c\n") != std::string::npos;
    };
    EXPECT_TRUE(found(plain) || found(quoted)) << plain;
  }
}

TEST(SenderQuota, Map) {
  const struct {
    const char *settings, *postmap, *wanted;
  } kCases[] = {
      {R"({"b@x": 5, "a@x": 0, "Z": 2147483647})", "cp $1 $1.db", "Z 2147483647\na@x 0\nb@x 5\n"},
      {"{}", "cp $1 $1.db", ""},
      {R"({"b@x": 5})", "exit 1", "b@x 5\n"},
      {R"({"b@x": 2147483648})", "", "old"},
      {R"({"b x": 1})", "", "old"},
      {R"({"#x": 1})", "", "old"},
      {R"({"a@x": 1, "A@x": 1})", "", "old"},
  };
  for (const auto& c : kCases) {
    ResetPrivateRoot();
    RecordedLog().clear();
    Put(kSettings + "sender_quotas.json", c.settings);
    Put(kTarget + "sbin/postmap", "#!/bin/sh\n"s + c.postmap + "\n", 0755);
    Put(kTarget + "etc/sender_quota_map", "old", 0600);
    const bool compiled = SenderQuota::GenerateConfig() == 0;
    EXPECT_EQ(Slurp(kTarget + "etc/sender_quota_map"), c.wanted);
    const auto mode = std::filesystem::status(kTarget + "etc/sender_quota_map").permissions();
    EXPECT_EQ(mode, std::filesystem::perms(c.wanted == "old"s ? 0600 : 0644));
    EXPECT_EQ(Slurp(kTarget + "etc/sender_quota_map.db"), compiled ? c.wanted : "(missing)") << c.settings;
    EXPECT_EQ(RecordedLog().size(), compiled ? 0U : 1U) << c.settings;
  }
}

TEST(AttachmentFilter, Rules) {
  ResetPrivateRoot();
  const std::string rules = kTarget + "etc/MailScanner/filename.rules.conf";
  const std::string texts = "\tDenied attachment extension\tThis kind of attachment is not accepted\n";
  Put(rules, "old", 0600);
  Put(kSettings + "attachment_filter.json", R"({"deny_extensions": ["exe", ""]})");
  EXPECT_LT(AttachmentFilter::GenerateConfig(), 0);
  EXPECT_EQ(Slurp(rules), "old");
  Put(kSettings + "attachment_filter.json", R"({"deny_extensions": ["Exe", "a.(b) #\\+é"]})");
  EXPECT_EQ(AttachmentFilter::GenerateConfig(), 0);
  EXPECT_EQ(Slurp(rules), "deny\t(?i)\\.Exe$" + texts + "deny\t(?i)\\.a\\.\\(b\\)\\x20\\x23\\\\\\+é$" +
                              texts + "allow\t.*\t-\t-\n");
  std::filesystem::remove(kSettings + "attachment_filter.json");
  EXPECT_EQ(AttachmentFilter::GenerateConfig(), 0);
  EXPECT_EQ(Slurp(rules), "allow\t.*\t-\t-\n");
  EXPECT_EQ(std::filesystem::status(rules).permissions(), std::filesystem::perms(0644));
}

TEST(PopenToFile, Lines) {
  ResetPrivateRoot();
  const std::string value(100000, 'x');  // longer than any buffer
  Put("/tmp/in",
      "LDAP server: 10.0.0.1\r\n\t Bind  Path\t:dc=a: b \nno colon\n: x\nx: \n\na\0b: c\0d\nlast:"s + value);
  const struct {
    const char *in, *out;
    std::string content, logged;
  } kCases[] = {
      {"/tmp/in", "/tmp/out", "LDAP_server=10.0.0.1\nBind__Path=dc=a: b\na\0b=c\0d\nlast="s + value + '\n',
       ""},
      {"/dev/null", "/tmp/out", "", ""},
      {"/tmp", "/tmp/none", "(missing)", "/tmp/none: expected readable output for it: Is a directory"},
      {"/tmp/in", "/dev/full", "", "/dev/full: cannot be written: No space left on device"},
      {"/tmp/in", "/tmp/none/out", "(missing)",
       "/tmp/none/out: cannot be written: No such file or directory"},
  };
  for (const auto& c : kCases) {
    RecordedLog() = {""};
    FILE* const stream = fopen(c.in, "re");
    EXPECT_EQ(PopenToFile(stream, c.out, "w") == 0, c.logged.empty()) << c.out;
    fclose(stream);
    EXPECT_EQ(RecordedLog().back(), c.logged);
    EXPECT_EQ(c.out == "/dev/full"s ? "" : Slurp(c.out), c.content);
  }
}

}  // namespace
