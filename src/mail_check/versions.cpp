#include "mail_check/versions.h"

#include <regex>
#include <vector>

#include "system/program.h"

std::string Versions(const std::string& program) {
  struct Daemon {
    const char* name;
    std::vector<std::string> command;
    const char* before;  // the version, in what the command prints
  };
  const Daemon daemons[] = {{"Postfix", {"postconf", "-dh", "mail_version"}, ""},
                            {"Dovecot", {"dovecot", "--version"}, ""},
                            {"OpenDKIM", {"opendkim", "-V"}, " v"},
                            {"OpenDMARC", {"opendmarc", "-V"}, " v"},
                            {"SpamAssassin", {"spamassassin", "--version"}, "SpamAssassin version "},
                            {"MailScanner", {"MailScanner", "--version"}, "MailScanner version "}};
  std::string line = program + " " + NUBO_VERSION;
  const char* sign = ": ";
  for (const Daemon& daemon : daemons) {
    std::vector<std::string> command = {"env", "PATH=/usr/sbin:/usr/bin:/sbin:/bin"};  // also for users
    command.insert(command.end(), daemon.command.begin(), daemon.command.end());
    const ProgramResult asked = RunProgram(command);
    const std::string text = asked.output + asked.errors;
    std::smatch match;
    if (!std::regex_search(text, match, std::regex(daemon.before + std::string("([0-9]+\\.[0-9.]+)"))))
      continue;
    line += sign + std::string(daemon.name) + " " + match[1].str();
    sign = ", ";
  }
  return line;
}
