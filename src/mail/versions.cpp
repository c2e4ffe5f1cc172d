#include "mail/versions.h"

#include <cstdio>
#include <regex>
#include <utility>

#include "mail/postfix_config.h"
#include "system/files.h"
#include "system/program.h"

namespace {

struct Versioned {
  const char* name;
  std::vector<std::string> command;
  const char* before;        // the version, in what the command prints
  const char* oldestTested;  // of its releases
  const char* newestTested;
};

const std::vector<Versioned>& DaemonCommands() {
  static const std::vector<Versioned> daemons = {{"Postfix", PostfixVersionCommand(), "", "3.7", "3.10"},
                                                 {"Dovecot", {"dovecot", "--version"}, "", "2.3", "2.4"},
                                                 {"OpenDKIM", {"opendkim", "-V"}, " v", "2.11", "2.11"},
                                                 {"OpenDMARC", {"opendmarc", "-V"}, " v", "1.4", "1.4"}};
  return daemons;
}

// The first two numbers of a version.
std::pair<int, int> Release(const std::string& version) {
  std::pair<int, int> release;
  (void)std::sscanf(version.c_str(), "%d.%d", &release.first, &release.second);
  return release;
}

// Of this machine: os-release(5).
std::string DebianRelease() {
  const std::string text = ReadFile("/etc/os-release");
  std::smatch match;
  return std::regex_search(text, match, std::regex("(?:^|\n)VERSION_ID=\"?([0-9.]+)")) ? match[1]
                                                                                       : std::string();
}

std::string Warning(const Versioned& program, const std::string& version) {
  const std::string tested = std::string(program.oldestTested) + " to " + program.newestTested;
  const std::string text = program.name + (" " + version) + " is ";
  if (Release(version) < Release(program.oldestTested)) return text + "older than what was tested, " + tested;
  if (Release(program.newestTested) < Release(version)) {
    return text + "newer than these files are for, " + tested +
           ": install the nubo-set-config of this Debian";
  }
  return "";
}

std::vector<InstalledVersion> Ask(const std::vector<Versioned>& programs) {
  std::vector<InstalledVersion> found;
  for (const Versioned& program : programs) {
    std::vector<std::string> command = {"env", "PATH=/usr/sbin:/usr/bin:/sbin:/bin"};  // also for users
    command.insert(command.end(), program.command.begin(), program.command.end());
    const ProgramResult asked = RunProgram(command);
    const std::string text = asked.output + asked.errors;
    std::smatch match;
    if (std::regex_search(text, match, std::regex(program.before + std::string("([0-9]+\\.[0-9.]+)"))))
      found.push_back({program.name, match[1], Warning(program, match[1])});
  }
  return found;
}

}  // namespace

std::vector<InstalledVersion> DaemonVersions() {
  std::vector<InstalledVersion> versions = Ask(DaemonCommands());
  const std::string release = DebianRelease();
  const bool ours = release == NUBO_DEBIAN;
  versions.insert(
      versions.begin(),
      {"Debian", release,
       ours ? ""
            : "this nubo-set-config is for Debian " NUBO_DEBIAN ": install the one for Debian " + release});
  return versions;
}

std::string ToString(const std::vector<InstalledVersion>& versions) {
  std::string text;
  for (const InstalledVersion& one : versions) {
    text += (text.empty() ? "" : ", ") + one.program + " " + one.version;
  }
  return text;
}

std::string Versions(const std::string& program) {
  std::vector<InstalledVersion> all = DaemonVersions();
  for (const InstalledVersion& one :
       Ask({{"SpamAssassin", {"spamassassin", "--version"}, "SpamAssassin version ", "4.0", "4.0"},
            {"MailScanner", {"MailScanner", "--version"}, "MailScanner version ", "5.5", "5.5"}})) {
    all.push_back(one);
  }
  return program + " " + NUBO_VERSION + (all.empty() ? "" : ": ") + ToString(all);
}
