#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <regex>
#include <string>

#include "platform/nubocore.h"
#include "platform/nubosdk.h"
#include "platform/nubowins.h"
#include "private_root.h"
#include "recorded_syslog.h"

using namespace std::string_literals;

namespace {

// Each asks a library for something about the file at `path` and returns the answer, or the log line that
// says why there is none.

std::string SetKeys(const char* path, const std::string& pairs) {
  Put("/tmp/pairs", pairs);
  ZELBCSzHash* hash = ZELBCSzHashAlloc(0);
  const bool got = ZELBCFileGetPair("/tmp/pairs", &hash) >= 0;
  const bool set = got && ZELBCFileSetKeys(path, hash, 0, "%s = %s\n") >= 0;
  ZELBCSzHashFree(hash);
  return set ? Slurp(path) : RecordedLog().at(0);
}

std::string OneKey(const char* path, const std::string& key) {
  char value[] = "xxxxxxxx";
  const int length = ZELBCFileGetKeyValue(path, key.c_str(), value, sizeof value, 0);
  return std::to_string(length) + value;
}

std::string LdapInfo(const char* path, const std::string& key) {
  char value[9];
  const bool got = NUBOLDAPInfoGetFromConf(path, key.c_str(), value, sizeof value) > 0;
  return got ? value : RecordedLog().at(0);
}

std::string LdapSecret(const char*, const std::string&) {
  char secret[9];
  const bool got = NUBOLDAPSecretGet(secret, sizeof secret) >= 0;
  return got ? secret : RecordedLog().at(0) + " " + std::to_string(ZELBCErrGet());
}

std::string DomainUser(const char*, const std::string&) {
  char domain[9], user[9], password[9];
  const bool got = NUBOWinsGetAuthUser(domain, 9, user, 9, password, 9) >= 0;
  return got ? std::string(domain) + '|' + user + '|' + password : RecordedLog().at(0);
}

std::string Joined(const char*, const std::string&) {
  return (NUBOWinsADSJoined() != 0 ? "yes"s : "no"s) + (RecordedLog().empty() ? "" : ", logged");
}

std::string Users(const char*, const std::string& domain) {
  ZELBCSzList* list = ZELBCSzListAlloc(1);
  std::string names = ZELBUserEnum(&list, 2, domain.c_str()) >= 0 ? "" : RecordedLog().at(0);
  for (int i = 0; i < list->count; ++i) {
    names += list->items[i] + "|"s;
  }
  ZELBCSzListFree(list);
  return names;
}

std::string Exec(const char* path, const std::string& argument) {
  const int exec = ZELBCExec(path, argument.c_str(), nullptr, "c", nullptr);
  const int execl = ZELBCExecl(path, 187, argument.c_str(), nullptr);
  const std::string log = RecordedLog().empty() ? "" : RecordedLog().at(0);
  return exec == (log.empty() ? 0 : -1) && (execl == 0) == log.empty() ? log : "results";
}

TEST(CoreLibraries, Answers) {
  const std::string file = "/tmp/file", exe = "/tmp/exe", net = "/usr/bin/net", passwd = "/etc/passwd";
  const std::string nslcd = "/usr/nubo/etc/nslcd.conf", ldap = "/usr/nubo/etc/ldap.secret";
  const std::string wins = "/usr/nubo/etc/wins.secret";
  const std::string users = "r:x:0:0:::\nD\\b:x:7:7:::\nDO\\x:x:7:7:::\nd\\\xc3\\c:x:7:7:::\nD:x:7:7:::\n";
  const struct {
    std::string (*ask)(const char* path, const std::string& argument);
    std::string argument, path, content, wanted;
    unsigned mode = 0600;
  } kCases[] = {
      {SetKeys, "B C=%s%n\n x=y # z \t\r\na =\"\"", file, "", "B C = %s%n x=y # z\na = \"\"\n"},
      {SetKeys, " \nb = 0\nc = 1\r\n\r\n \t\r\n # b\r\n\t2\r\n 3\nb =\n\n 4\n", file, "",
       "b = 4\nc = 1 2 3\n"},
      {SetKeys, "a = 1\n= 1\n", file, "", "/tmp/pairs:2: expected a pair, key = value"},
      {SetKeys, "\n = 1\n", file, "", "/tmp/pairs:2: expected a pair before its continuation"},
      {SetKeys, "b = 1\0002\n"s, file, "", "/tmp/pairs:1: expected text without NUL bytes"},
      {SetKeys, "a = 1\n", file, "x", "x\na = 1\n", 0640},
      {SetKeys, "a = 3", file, "# a = 0\r\na=1\r\n\r\nb = 2\r\n", "# a = 0\r\na = 3\n\r\nb = 2\r\n"},
      {SetKeys, "c = 7\na = 6", file, "a = 1\n 2\n# c\n\n\t3\nb = 4\n 5", "a = 6\n# c\n\nb = 4\n 5\nc = 7\n"},
      {SetKeys, "a = 7", file, "a = 1\n 2\n# c\n 3\na = 4\n 5\nb = 6\n", "# c\na = 7\nb = 6\n"},
      {SetKeys, "a = 3", file, " a = 0\na = 1\nx {\n  a = 2\n}\n", " a = 0\na = 3\nx {\n  a = 2\n}\n"},
      {SetKeys, "a = 3", file, "A = 1\na\0 = 1\na = 1\0\n = 2"s, "A = 1\na\0 = 1\na = 3\n"s},
      {OneKey, "a", file, "a = 1\na = 12345678\n", "812345678"},
      {OneKey, "a", file, "a = 123456789\n", "-1"},
      {OneKey, "a", file, "a = 1\nb\n", "-1"},
      {LdapInfo, "uri", nslcd, "#uri x\nurix y\n\n \tURI\tldap://a  b \r\nuri c\n", "ldap://a"},
      {LdapInfo, "base", nslcd, "base Passwd p\nBASE shadow\nbase o=a b \nbase c\n", "o=a b"},
      {LdapInfo, "uri", nslcd, "uri\nuri a\n", nslcd + " is missing or has no uri"},
      {LdapSecret, "", ldap, " a b cd \r\nc\n", " a b cd "},
      {LdapSecret, "", ldap, "123456789", ldap + ": expected a text of less than 9 bytes 3"},
      {LdapSecret, "", ldap, "a\n", ldap + ": expected a mode without rights for group or others 2", 0640},
      {LdapSecret, "", ldap, "\r\nc\n", ldap + " is missing or empty 1"},
      {DomainUser, "", wins, "domain=D\nuser = s m\npassword = s =#3t\r\n", "D|s m|s =#3t"},
      {DomainUser, "", wins, "", wins + ": expected a mode without rights for group or others", 0602},
      {DomainUser, "", wins, "domain=D\nuser=\npassword=p", wins + " is missing or has no user"},
      {DomainUser, "", wins, "domain=D\nuser=u\ns3t", wins + ":3: expected a pair, key = value"},
      {Joined, "", net, "#!/bin/sh\nexit 255\n", "no", 0755},
      {Joined, "", net, "#!/bin/sh\ntest \"$*\" = 'ads testjoin'\n", "yes", 0755},
      {Users, "D", passwd, users, "D\\b|d\\\xc3\\c|", 0644},
      {Users, "", passwd, users, "users of type 2 can only be listed for a Windows domain with a short name"},
      {Exec, "a b", exe, "#!/bin/sh\nsleep 0.05; test \"$0|$*|$#\" = '/tmp/exe|a b|1'", "", 0755},
      {Exec, "", exe, "#!/bin/sh\nexit 3", "/tmp/exe: exit status 3", 0755},
      {Exec, "", exe, "#!/bin/sh\nkill -9 $$", "/tmp/exe: killed by signal 9", 0755},
      {Exec, "", exe, "exit 0", "/tmp/exe: could not be run: Exec format error", 0755},
  };
  Put("/etc/nsswitch.conf", "passwd: files\n");
  // A program's status is easily lost where signals interrupt the wait or SIGCHLD is ignored.
  struct sigaction tick = {};
  tick.sa_handler = [](int) {};
  sigaction(SIGALRM, &tick, nullptr);
  std::signal(SIGCHLD, SIG_IGN);
  ualarm(1000, 1000);
  for (const auto& row : kCases) {
    Put(row.path, row.content, row.mode);
    RecordedLog().clear();
    EXPECT_EQ(row.ask(row.path.c_str(), row.argument), row.wanted) << row.content;
    EXPECT_EQ(std::filesystem::status(row.path).permissions(), std::filesystem::perms{row.mode});
  }
  ualarm(0, 0);
  EXPECT_EQ(std::signal(SIGCHLD, SIG_DFL), SIG_IGN);
}

TEST(CoreLibraries, Failures) {
  std::filesystem::remove("/etc/passwd");
  RecordedLog().clear();
  EXPECT_EQ(Users("", "D"), "cannot read the user database: No such file or directory");
  ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=8k"), 0);
  Put("/tmp/file", "a = 1\n");
  RecordedLog().clear();
  EXPECT_EQ(SetKeys("/tmp/file", "a = 2"), "/tmp/file: cannot be replaced: No space left on device");
  EXPECT_EQ(Slurp("/tmp/file"), "a = 1\n");
  EXPECT_EQ(umount("/tmp"), 0);
}

/// Closes the descriptors whose bits are set, then tells whether a program is given the right ones.
bool DescriptorsAreRight(unsigned closed) {
  std::string error = std::filesystem::read_symlink("/proc/self/fd/2");
  dup2(1, 9);  // passed on to no program
  for (int fd = 0; fd < 3; ++fd) {
    if ((closed >> fd & 1U) != 0) close(fd);
  }
  error = (closed & 4U) != 0 ? "/dev/null" : error;
  FILE* endless = ZELBCPopen("/usr/bin/yes", "r", nullptr);
  FILE* links = ZELBCPopen("/bin/readlink", "r", "/proc/self/fd/0", "/proc/self/fd/1", "/proc/self/fd/2",
                           "/proc/self/fd/9", nullptr);
  std::string seen(1000, '\0');
  seen.resize(fread(seen.data(), 1, seen.size(), links));
  return ZELBCPclose(endless) == 0 && ZELBCPclose(links) == 0 &&
         std::regex_match(seen, std::regex("/dev/null\npipe:.*\n" + error + "\n"));
}

TEST(CoreLibraries, DescriptorsOfAProgram) {
  for (unsigned closed = 0; closed < 8; ++closed) {
    EXPECT_EXIT(_exit(DescriptorsAreRight(closed) ? 0 : 1), testing::ExitedWithCode(0), "") << closed;
  }
}

}  // namespace
