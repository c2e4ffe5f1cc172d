/// One dialogue with a mail server, as a mail program would hold it; libcurl speaks SMTP, IMAP, POP3 and TLS.
#pragma once

#include <string>

/// What is to be said.
struct Dialogue {
  std::string url;        ///< smtp, smtps, imap, imaps, pop3 or pop3s; for SMTP its path is the name in EHLO
  const char* command;    ///< the protocol's own, after the greeting (and STARTTLS)
  bool startTls = false;  ///< the server must offer STARTTLS, and TLS must come about
  std::string to{};    ///< SMTP: mail from the empty address to this one, up to DATA; `command` is not used
  std::string from{};  ///< the own IPv4 address to come from; empty: any
};

/// What was heard.
struct Answer {
  bool good;         ///< the server consented to everything
  bool refused;      ///< nothing listens there
  std::string said;  ///< the server's first refusal, else its last line; where it said nothing, why
};

/// Holds the dialogue. A server that does not answer is waited for 5 seconds; 20 with `to`, since checks that
/// ask DNS may take long. No message comes about: the connection ends where its text would begin. Whether
/// clients trust the server's certificate is not asked.
Answer Hold(const Dialogue& dialogue);
