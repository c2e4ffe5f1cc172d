/// The daemons' files, and what the daemons read in them.
#pragma once

#include <map>
#include <string>

/// The directory of the generated files.
inline const std::string kEtc = "/var/packages/Brindlecot/target/etc";

/// The directory of commands that run the daemons' programs on these files.
inline const std::string kSbin = "/var/packages/Brindlecot/target/sbin";

/// The directory of the certificate and its key.
inline const std::string kSsl = "/var/packages/Brindlecot/etc/ssl";

/// Values by the names of the parameters.
using Parameters = std::map<std::string, std::string>;

/// The `name = value` lines that postconf(1) and doveconf(1) print.
Parameters ParseParameters(const std::string& text);

/// All parameters of the main.cf in a directory, with the values of $name in them. Throws Fault when Postfix
/// cannot read the file.
Parameters PostfixParameters(const std::string& directory);

/// Makes a file of Postfix ten seconds old: Postfix's programs would wait until it is two seconds old, since
/// they cannot know that it is whole.
void SkipSettleTime(const std::string& path);
