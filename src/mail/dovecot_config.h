/// Dovecot's configuration, in the words of Dovecot 2.3 and 2.4: doveconf(1), and the files that it reads.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "mail/postfix_config.h"

/// The settings between the braces of a block, or outside of all.
struct DovecotBlock {
  std::string name;     ///< with those around it: "service auth/unix_listener /run/x"; outside, it is empty
  Parameters settings;  ///< the values are without quotes
};
using DovecotConfig = std::vector<DovecotBlock>;  ///< blocks of one name may be many

/// One of the listeners for mail programs.
struct DovecotListener {
  std::string name;                      ///< "imap", "imaps", "pop3" or "pop3s"
  std::string protocol;                  ///< "imap" or "pop3"
  std::string usualPort;                 ///< numeric
  bool implicitTls;                      ///< TLS from the first byte
  bool startTls = true;                  ///< STARTTLS has to be offered
  std::string port{};                    ///< numeric; empty when it is off
  std::vector<std::string> addresses{};  ///< or names; none for all
};

/// The blocks of a text as doveconf(1) prints it, or of a file that it reads.
DovecotConfig ParseDovecot(const std::string& text);

/// What Dovecot reads in target/etc, without defaults. Private values, such as names of key files, are in it.
/// Throws Fault with what doveconf(1) says when Dovecot cannot read its files.
DovecotConfig ReadDovecot();

/// What stands in all files below target/etc/dovecot, also where Dovecot could not read them.
DovecotConfig ReadDovecotFiles();

/// The value of a setting in the blocks of this name: the last one, or empty.
std::string ValueIn(const DovecotConfig& config, const std::string& block, const std::string& setting);

/// All four listeners.
std::vector<DovecotListener> DovecotListeners(const DovecotConfig& config);

/// The files of certificates, each with that of its key. None where TLS is off.
std::vector<std::pair<std::string, std::string>> DovecotCertificates(const DovecotConfig& config);

/// The paths of UNIX sockets that Dovecot makes; one may be relative to base_dir.
std::vector<std::string> DovecotSockets(const DovecotConfig& config);

/// The names of the PAM services that Dovecot asks about passwords.
std::vector<std::string> PamServices(const DovecotConfig& config);
