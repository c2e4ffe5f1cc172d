/// The certificates with which the listeners prove who they are, and keys, in PEM form (RFC 7468).
#pragma once

#include <set>
#include <string>
#include <vector>

#include "mail/daemons.h"

/// A certificate file that Postfix or Dovecot names.
struct Certificate {
  std::string file;
  std::string key;             ///< the file of its key
  std::set<DaemonId> readers;  ///< Postfix, Dovecot, or both
  std::string names;           ///< for which it was made, with blanks between
  std::string fingerprint;     ///< SHA-256, 32 bytes
  long days = 0;               ///< until it expires; negative afterwards
  bool usable = true;          ///< the daemon can load it, and its time has come and is not over
  std::string fault{};         ///< what is wrong, as a sentence; may be set where it is usable
};

/// A certificate that expires in fewer days has a fault.
inline constexpr long kFewDays = 14;

/// The certificates that Postfix with these files and the Dovecot that reads target/etc would show, each
/// once. None where TLS is off, or where Dovecot cannot read its files. One that others have signed has a
/// fault when it is made for neither myhostname nor a name in mydestination.
std::vector<Certificate> Certificates(const PostfixConfig& postfix);

/// The fingerprint of the certificate that a running listener shows at ADDRESS:PORT; `startTls` is "smtp",
/// "imap" or "pop3" where TLS begins by STARTTLS, and empty where it begins at once. Empty when the listener
/// shows none within ten seconds.
std::string ServedFingerprint(const std::string& place, const std::string& startTls);

/// The public key of a private key's file, as a DKIM record has it: base64 in one piece (RFC 6376, section
/// 3.6.1). Empty when the file cannot be read.
std::string PublicKey(const std::string& privateKey);

/// Throws Fault unless these files hold a certificate that has not expired, and its private key, without a
/// password.
void CheckPair(const std::string& certificate, const std::string& privateKey);
