#include <gtest/gtest.h>
#include <sys/stat.h>

#include "core/config_generator.h"
#include "fake_platform.h"
#include "private_root.h"

namespace {

TEST(CoreTest, JoinList) {
  const std::pair<std::list<std::string>, const char*> rows[] = {
      {{}, ""}, {{"a"}, "a"}, {{"a", "b", "c"}, "a, b, c"}, {{"a", "", "b"}, "a, , b"}, {{"", ""}, ", "}};
  for (const auto& [items, joined] : rows) EXPECT_EQ(JoinList(items, ", "), joined);
}

TEST(CoreTest, TypedReadsDoNotConvert) {
  fake = DefaultPlatform();
  Postfix smtp;
  smtp.LoadSettings();
  EXPECT_EQ(GetInt(smtp, "smtp_port"), 25);
  EXPECT_THROW(GetBool(smtp, "smtp_port"), boost::bad_any_cast);
  EXPECT_THROW(GetString(smtp, "smtp_port"), boost::bad_any_cast);
  EXPECT_THROW(GetInt(smtp, "no_such_key"), boost::bad_any_cast);
  EXPECT_NE(fake.Trace().find("log config_generator:71 setting smtp_port: expected a value of type bool\n"),
            std::string::npos);
}

TEST(CoreTest, CopiesAnySize) {
  fake = DefaultPlatform();
  ResetPrivateRoot();
  for (const size_t size : {0U, 1U, 1023U, 1024U, 1025U, 4096U}) {
    std::string content;
    while (content.size() < size) content += static_cast<char>(content.size() % 251);
    Put("/tmp/from", content);
    Put("/tmp/to", std::string(5000, 'x'), 0600);
    EXPECT_EQ(CopyFile("/tmp/from", "/tmp/to"), 0);
    EXPECT_EQ(Slurp("/tmp/to"), content);
    EXPECT_EQ(AppendFile("/tmp/from", "/tmp/to"), 0);
    EXPECT_EQ(Slurp("/tmp/to"), content + content);
  }
  struct stat copied = {};
  ASSERT_EQ(stat("/tmp/to", &copied), 0);
  EXPECT_EQ(copied.st_mode & 07777U, 0600U);
}

TEST(CoreTest, CopiesReportWhatFails) {
  const struct {
    const char* what;
    int (*copy)(const char* source, const char* destination);
    const char* source;
    const char* destination;
    int result;
    const char* log;
  } rows[] = {
      {"no source", CopyFile, "/tmp/none", "/tmp/to", -1, "110 copy file error: No such file or directory"},
      {"no directory", CopyFile, "/tmp/from", "/tmp/no/to", -1,
       "110 copy file error: No such file or directory"},
      {"unreadable", CopyFile, "/tmp", "/tmp/to", -1, "110 copy file error: Is a directory"},
      {"full disk", CopyFile, "/tmp/from", "/dev/full", -1, "110 copy file error: No space left on device"},
      {"no source", AppendFile, "/tmp/none", "/tmp/to", -1, "140 copy file error: No such file or directory"},
      {"no directory", AppendFile, "/tmp/from", "/tmp/no/to", -1,
       "140 copy file error: No such file or directory"},
      {"unreadable", AppendFile, "/tmp", "/tmp/to", 0, ""},
  };
  Put("/tmp/from", "text");
  for (const auto& row : rows) {
    fake = DefaultPlatform();
    EXPECT_EQ(row.copy(row.source, row.destination), row.result) << row.what;
    const std::string log = *row.log == '\0' ? "" : std::string("log config_generator:") + row.log + "\n";
    EXPECT_EQ(fake.Trace(), log) << row.what;
  }
}

// Every combination of the four switches, byte for byte.
TEST(DovecotTest, AllListeners) {
  for (unsigned switches = 0; switches < 16; ++switches) {
    const bool imap = (switches & 1U) != 0;
    const bool imaps = (switches & 2U) != 0;
    const bool pop3 = (switches & 4U) != 0;
    const bool pop3s = (switches & 8U) != 0;
    fake = DefaultPlatform();
    ResetPrivateRoot();
    fake.settings["imap_pop3"] = {{"imap_enabled", Value<bool>{imap}},
                                  {"imaps_enabled", Value<bool>{imaps}},
                                  {"pop3_enabled", Value<bool>{pop3}},
                                  {"pop3s_enabled", Value<bool>{pop3s}}};
    Put("/var/packages/Brindlecot/target/etc/dovecot/conf.d/10-master.conf", "old");
    EXPECT_EQ(RunProgram({"dovecot"}), 0);
    const std::string expected = std::string("protocols = $protocols ") +
                                 (pop3 || pop3s ? "imap pop3" : "imap") +
                                 R"(
service imap-login {
    service_count = 0
    process_limit = 256
    inet_listener imap {
)" + (imap ? "" : "        address = localhost\n") +
                                 R"(        port = 143
    }
    inet_listener imaps {
        port = )" + (imaps ? "993" : "0") +
                                 R"(
        ssl = yes
    }
}
service pop3-login {
    service_count = 0
    process_limit = 256
    inet_listener pop3 {
        port = )" + (pop3 ? "110" : "0") +
                                 R"(
    }
    inet_listener pop3s {
        port = )" + (pop3s ? "995" : "0") +
                                 R"(
        ssl = yes
    }
}
)";
    EXPECT_EQ(Slurp("/var/packages/Brindlecot/target/etc/dovecot/conf.d/10-master.conf"), expected)
        << switches;
  }
}

}  // namespace
