// Lets each call of the platform fail in turn, for every command, until a run in which nothing was left
// to fail. Whatever fails: a target holds what it held, or what a whole run writes, merged or not; no
// secret and no scratch file stays behind; the status is one of the documented ones.

#include <gtest/gtest.h>

#include <filesystem>

#include "fake_platform.h"
#include "private_root.h"

namespace fs = std::filesystem;

namespace {

const char kEtc[] = "/var/packages/Brindlecot/target/etc/";
const std::vector<std::string> kTargets = {"aliases",
                                           "domain-aliases",
                                           "domain-aliases.cf",
                                           "ldap-aliases.cf",
                                           "quota_memcache.cf",
                                           "main.cf",
                                           "master.cf",
                                           "header_checks",
                                           "opendkim.conf",
                                           "opendmarc.conf",
                                           "opendkim/KeyTable",
                                           "opendkim/SigningTable",
                                           "opendkim/TrustedHosts",
                                           "dovecot/conf.d/10-master.conf",
                                           "dovecot/conf.d/10-mail.conf",
                                           "MailScanner/MailScanner.conf",
                                           "spamassassin/local.cf"};

struct Outcome {
  int status;
  std::map<std::string, std::string> targets;
  std::vector<std::string> others;
};

Outcome RunWithFault(const std::string& command, const std::string& accountType, int failAt,
                     bool customised) {
  fake = DefaultPlatform();
  for (const char* key :
       {"smtp_relay_enabled", "enable_dkim", "enable_dmarc", "reject_sasl_sender_rate_exceed"}) {
    fake.settings["smtp"][key] = Value<bool>{true};
  }
  fake.settings["smtp"]["account_type"] = Value<std::string>{accountType};
  fake.values = {{"uri", "ldap://h"}, {"base", "b"},          {"binddn", "d"}, {"secret", "SECRET"},
                 {"user", "u"},       {"password", "SECRET"}, {"joined", ""}};
  fake.info = "LDAP_server=s\nLDAP_port=1\nBind_Path=p\n";
  fake.search = "distinguishedName: CN=u\n";
  fake.users = {"CORP\\a"};
  fake.failAt = failAt;
  ResetPrivateRoot();
  for (const std::string& target : kTargets) Put(kEtc + target, "old");
  if (customised) {
    for (const char* file : {"postfix/main.cf", "MailScanner/MailScanner.conf", "dovecot/10-mail.conf"}) {
      Put(std::string("/var/packages/Brindlecot/etc/customize/") + file, "k=v\n");
    }
  }
  Outcome run = {RunProgram({command}), {}, {}};
  for (const std::string& target : kTargets) {
    run.targets[target] = Slurp(kEtc + target);
    fs::remove(kEtc + target);
  }
  for (const auto& entry : fs::recursive_directory_iterator(kEtc)) {
    if (entry.is_regular_file()) run.others.push_back(entry.path());
  }
  for (const auto& entry : fs::directory_iterator("/tmp")) run.others.push_back(entry.path());
  return run;
}

TEST(FaultsTest, EveryPlatformCall) {
  const std::pair<const char*, const char*> commands[] = {
      {"smtp", "local"},   {"smtp", "ldap"}, {"smtp", "win"},         {"dovecot", ""},
      {"mailscanner", ""}, {"alias", ""},    {"domain_alias", "win"}, {"sender_quota_map", ""}};
  for (const auto& [command, accountType] : commands) {
    const Outcome merged = RunWithFault(command, accountType, 0, true);
    const Outcome whole = RunWithFault(command, accountType, 0, false);
    EXPECT_EQ(merged.status, 0);
    EXPECT_TRUE(merged.others.empty()) << merged.others.front();
    for (int n = 1; n == 1 || fake.calls >= fake.failAt; ++n) {
      const Outcome run = RunWithFault(command, accountType, n, true);
      SCOPED_TRACE(std::string(command) + " " + accountType + ", call " + std::to_string(n) + ":\n" +
                   fake.trace);
      for (const std::string& target : kTargets) {
        const std::string& content = run.targets.at(target);
        EXPECT_TRUE(content == "old" || content == merged.targets.at(target) ||
                    content == whole.targets.at(target))
            << target << " holds " << content;
      }
      // An alias table that was not exported leaves its temporary file; nothing else does.
      for (const std::string& other : run.others)
        EXPECT_EQ(other.rfind(kEtc + std::string("aliases"), 0), 0U) << other;
      EXPECT_TRUE(run.status == 0 || run.status == -1 || run.status == -7 || run.status == 3) << run.status;
      if (std::string(command) == "smtp" && n > 3) {
        EXPECT_EQ(run.status, 0);  // the settings are loaded by then
      }
    }
  }
}

}  // namespace
