/// Another settings library, with data and constructors of its own: when the program calls them.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "core/commands.h"
#include "platform/brindlecot.h"

namespace fs = std::filesystem;

std::string calls;

struct Config::Data {
  boost::any value = Value<int>{1};  // not the type that is read: the read ends the run with a stream open
};

Config::Config() : data_(new Data) { calls += "made "; }
Config::~Config() {
  const auto isGenerated = [](const fs::path& link) {
    std::error_code gone;
    return fs::read_symlink(link, gone).string().rfind("/var/packages", 0) == 0;
  };
  const bool open = std::any_of(fs::directory_iterator("/proc/self/fd"), {}, isGenerated);
  calls += open ? "gone before its file " : "gone ";
}
boost::any& Config::Get(const std::string&) { return calls += "read ", data_->value; }
Postfix::Postfix() = default;
Postfix::~Postfix() = default;
MailScanner::MailScanner() = default;
MailScanner::~MailScanner() = default;
ImapPop3::ImapPop3() = default;
ImapPop3::~ImapPop3() = default;
int Postfix::LoadSettings() { return calls += "loaded ", 0; }
int MailScanner::LoadSettings() { return calls += "loaded ", 0; }
int ImapPop3::LoadSettings() { return calls += "loaded ", 0; }
std::list<std::string>& Postfix::GetAdditionDomain() { std::abort(); }
std::list<std::pair<std::string, std::string>>& Postfix::GetDNSBLList() { std::abort(); }

TEST(OtherPlatform, ConstructorsRunBeforeLoadingAndDestructorsAfterTheStreamsAreClosed) {
  fs::create_directories("/var/packages/Brindlecot/target/etc/dovecot/conf.d");
  const char* const arguments[] = {"nubo_set_config", "dovecot"};
  EXPECT_EQ(RunCommand(2, arguments), -1);
  EXPECT_EQ(calls, "made made made loaded loaded loaded read gone gone gone ");
}
