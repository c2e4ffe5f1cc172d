/// The daemons that run on the generated files: one table of what is known of them.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "mail/postfix_config.h"

/// In the order of their start.
enum class DaemonId { kOpenDkim, kOpenDmarc, kDovecot, kPostfix, kMailScanner };

struct Daemon {
  DaemonId id;
  std::string name;           ///< "Postfix"
  std::string unit;           ///< of systemd
  std::string program;        ///< path of its executable; for Postfix, how the path begins
  std::string configuration;  ///< the argument that names its files; for Postfix, also in its environment
  std::vector<std::string> start;  ///< the command that starts it in the background
  std::vector<std::string> check;  ///< the command that checks its files
  std::string milterPort;          ///< where Postfix finds it on this machine; empty unless it is a milter
  std::string account;             ///< the account that it takes, unless it is root; for a milter
  std::vector<std::string> files;  ///< how the paths of the files begin that it reads; the longest one counts
  std::vector<std::string> words;  ///< the words of nubo_set_config that write its files
};

/// What is known of a daemon. MailScanner has a name, a checker, files and words alone: it is reloaded, and
/// never started or stopped here.
const Daemon& DaemonOf(DaemonId id);

/// The one of this name. Throws std::out_of_range for a name that is none.
const Daemon& DaemonNamed(const std::string& name);

/// The daemons that are started and stopped here, in the order of their start: all but MailScanner.
const std::vector<Daemon>& Daemons();

/// The daemons that read any of the files.
std::set<DaemonId> ReadersOf(const std::set<std::string>& paths);

/// The daemons whose files these words of nubo_set_config write.
std::set<DaemonId> WrittenFor(const std::vector<std::string>& words);

/// The command that starts a second one of a milter, on [::1]. Postfix looks for the milter at "localhost",
/// and asks [::1] there first, where any user could answer while the milter listens on 127.0.0.1 alone.
/// (Under systemd, a socket unit holds the address.)
std::vector<std::string> StartOnIpv6(const Daemon& milter);

/// True unless it is a milter that this main.cf does not name.
bool IsWanted(const Daemon& daemon, const Parameters& mainCf);
