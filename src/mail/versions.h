/// The versions of the programs that work together.
#pragma once

#include <string>
#include <vector>

struct InstalledVersion {
  std::string program;  ///< "Postfix"
  std::string version;  ///< "3.7.11"
  std::string warning;  ///< a sentence when the tests do not cover this version; else empty
};

/// The Debian release, and Postfix, Dovecot and the milters as far as they are installed.
std::vector<InstalledVersion> DaemonVersions();

/// "Debian 12, Postfix 3.7.11, Dovecot 2.3.19.1".
std::string ToString(const std::vector<InstalledVersion>& versions);

/// A line for `--version`: the program of ours, then each daemon and scanner that is installed.
std::string Versions(const std::string& program);
