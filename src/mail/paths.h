/// Where the package's files are.
#pragma once

#include <string>

/// The directory of the generated files.
inline const std::string kEtc = "/var/packages/Brindlecot/target/etc";

/// The directory of commands that run the daemons' programs on these files.
inline const std::string kSbin = "/var/packages/Brindlecot/target/sbin";

/// The directory of the certificate and its key.
inline const std::string kSsl = "/var/packages/Brindlecot/etc/ssl";
