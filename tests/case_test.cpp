// Runs the cases of cases/*.case. A case sets the scene, runs one command with the fake platform, and
// names all that comes of it: result, calls and log lines in their order, and every file that is new,
// changed or gone, with its mode and bytes. What a case does not name makes it fail.
//
//   case TITLE
//   set smtp KEY VALUE        a setting (also scanner, imap_pop3); VALUE "mistyped" holds no value
//   domain NAME / dnsbl ZONE KIND / user NAME / value KEY TEXT / info LINE / search LINE
//   file PATH CONTENT         a file in place (\n for a newline)
//   dir PATH / remove PATH    a directory in place; nothing there
//   fail CALL                 a platform call that fails
//   brief NAME...             files whose bytes other cases show; "reads", "trace" for those of settings, for
//   all calls run COMMAND...            the program's arguments expect (the transcript; $E is the package's
//   target/etc, $P the package, XXXXXX a temporary name's suffix)
//
// NUBO_UPDATE_CASES=1 writes the transcripts into the files, for a diff to be reviewed.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "fake_platform.h"
#include "private_root.h"

namespace fs = std::filesystem;

namespace {

struct Case {
  std::string title;
  std::string scene;
  std::string expected;
};

std::vector<Case> ReadCases(const fs::path& path) {
  std::vector<Case> cases;
  std::ifstream file(path);
  bool expecting = false;
  for (std::string line; std::getline(file, line);) {
    if (line.compare(0, 5, "case ") == 0) {
      cases.push_back({line.substr(5), {}, {}});
      expecting = false;
    } else if (line == "expect" && !expecting) {
      expecting = true;
    } else if (!cases.empty()) {
      (expecting ? cases.back().expected : cases.back().scene) += line + "\n";
    }
  }
  return cases;
}

std::string Expand(std::string text) {
  text = std::regex_replace(text, std::regex("\\$E"), "/var/packages/Brindlecot/target/etc");
  text = std::regex_replace(text, std::regex("\\$P"), "/var/packages/Brindlecot");
  return std::regex_replace(text, std::regex("\\\\n"), "\n");
}

std::string Shorten(std::string text) {
  static const std::regex kSuffix(
      "((?:main.cf|master.cf|header_checks|opendkim.conf|KeyTable|SigningTable|"
      "TrustedHosts|opendmarc.conf|10-master.conf|10-mail.conf|MailScanner.conf|"
      "local.cf|aliases|aliases.cf|quota_memcache.cf|ad_info))[A-Za-z0-9]{6}\\b");
  text = std::regex_replace(text, kSuffix, "$1XXXXXX");
  text = std::regex_replace(text, std::regex("/var/packages/Brindlecot/target/etc"), "$$E");
  return std::regex_replace(text, std::regex("/var/packages/Brindlecot"), "$$P");
}

void SetSetting(const std::string& object, const std::string& key, const std::string& text) {
  boost::any& value = fake.settings[object].at(key);
  if (text == "mistyped") {
    value = boost::any();
  } else if (value.type() == typeid(Value<bool>)) {
    value = Value<bool>{text == "true"};
  } else if (value.type() == typeid(Value<int>)) {
    value = Value<int>{std::stoi(text)};
  } else {
    value = Value<std::string>{text};
  }
}

using Tree = std::map<std::string, std::string>;  // mode and content by path

Tree ReadTree() {
  Tree tree;
  for (const char* top : {"/tmp", "/var/packages"}) {
    for (const auto& entry : fs::recursive_directory_iterator(top)) {
      if (!entry.is_regular_file()) continue;
      std::ostringstream mode;
      mode << std::oct << static_cast<unsigned>(entry.status().permissions());
      tree[entry.path()] = mode.str() + "\n" + Slurp(entry.path());
    }
  }
  return tree;
}

std::string ShowFile(const std::string& path, const std::string& modeAndContent,
                     const std::set<std::string>& brief) {
  std::istringstream lines(modeAndContent);
  std::string line;
  std::getline(lines, line);
  std::string shown = Shorten(path) + " " + line + "\n";
  if (brief.count(fs::path(path).filename()) != 0) return shown;
  while (std::getline(lines, line)) shown += "|" + Shorten(line) + "\n";
  if (modeAndContent.back() != '\n') shown += "(no newline at the end)\n";
  return shown;
}

std::string Transcript(const std::string& scene) {
  fake = DefaultPlatform();
  ResetPrivateRoot();
  std::set<std::string> brief;
  std::vector<std::string> arguments;
  for (const char* folder : {"MailScanner", "dovecot/conf.d", "opendkim", "spamassassin"}) {
    fs::create_directories(std::string("/var/packages/Brindlecot/target/etc/") + folder);
  }
  for (const char* name : {"main", "master", "header_checks", "opendkim", "opendmarc", "10-mail",
                           "mailscanner", "spamassassin"}) {
    Put(std::string("/var/packages/Brindlecot/target/etc/template/") + name + ".template",
        std::string("# ") + name + "\n");
  }
  std::istringstream lines(scene);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(Expand(line));
    std::string verb;
    std::string first;
    std::string second;
    words >> verb;
    if (verb == "brief" || verb == "run") {
      for (std::string word; words >> word;) {
        brief.insert(verb == "brief" ? word : "");
        if (verb == "run") arguments.push_back(word);
      }
      continue;
    }
    words >> first;
    std::string rest;
    std::getline(words.ignore(), rest, '\0');
    if (verb == "set") {
      const size_t blank = rest.find(' ');
      SetSetting(first, rest.substr(0, blank), rest.substr(std::min(blank, rest.size() - 1) + 1));
    } else if (verb == "domain") {
      fake.domains.push_back(first);
    } else if (verb == "dnsbl") {
      fake.dnsbl.emplace_back(first, rest);
    } else if (verb == "user") {
      fake.users.push_back(first + (rest.empty() ? "" : " " + rest));
    } else if (verb == "value") {
      fake.values[first] = rest;
    } else if (verb == "info") {
      fake.info += first + (rest.empty() ? "" : " " + rest) + "\n";
    } else if (verb == "search") {
      fake.search += line.substr(line.find(' ') + 1) + "\n";
    } else if (verb == "file") {
      Put(first, rest);
    } else if (verb == "dir") {
      fs::create_directories(first + "/x");
    } else if (verb == "remove") {
      fs::remove_all(first);
    } else if (verb == "fail") {
      fake.failing.insert(first);
    } else if (!verb.empty()) {
      ADD_FAILURE() << "unknown line: " << line;
    }
  }

  const Tree before = ReadTree();
  testing::internal::CaptureStdout();
  const int status = RunProgram(arguments);
  std::string shown = testing::internal::GetCapturedStdout();
  if (brief.count("reads") != 0) fake.trace = std::regex_replace(fake.trace, std::regex("read .*\n"), "");
  if (brief.count("trace") == 0) shown += Shorten(fake.trace);
  shown += "status " + std::to_string(status) + "\n";
  Tree after = ReadTree();
  for (const auto& [path, content] : before) {
    const auto found = after.find(path);
    if (found == after.end()) {
      shown += Shorten(path) + " gone\n";
    } else if (found->second == content) {
      after.erase(found);
    }
  }
  for (const auto& [path, content] : after) shown += ShowFile(path, content, brief);
  return shown;
}

class CaseTest : public testing::TestWithParam<std::string> {};

TEST_P(CaseTest, ComesOutAsWritten) {
  const fs::path path = fs::path(CASES_DIR) / (GetParam() + ".case");
  std::vector<Case> cases = ReadCases(path);
  ASSERT_FALSE(cases.empty()) << path;
  for (Case& each : cases) {
    const std::string actual = Transcript(each.scene);
    if (getenv("NUBO_UPDATE_CASES") != nullptr) {
      each.expected = actual;
    } else {
      EXPECT_EQ(each.expected, actual) << path.filename() << ": " << each.title;
    }
  }
  if (getenv("NUBO_UPDATE_CASES") != nullptr) {
    std::ofstream file(path);
    for (const Case& each : cases) {
      file << "case " << each.title << "\n" << each.scene << "expect\n" << each.expected;
    }
  }
}

std::vector<std::string> CaseFiles() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(CASES_DIR)) names.push_back(entry.path().stem());
  std::sort(names.begin(), names.end());
  return names;
}

INSTANTIATE_TEST_SUITE_P(Cases, CaseTest, testing::ValuesIn(CaseFiles()),
                         [](const auto& test) { return test.param; });

}  // namespace
