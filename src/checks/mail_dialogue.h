/// One dialogue with a mail server, like that of a mail program. libcurl speaks SMTP, IMAP, POP3 and TLS.
#pragma once

#include <string>

/// What to say.
struct Dialogue {
  std::string url;      ///< smtp, smtps, imap, imaps, pop3 or pop3s; for SMTP, the path is the name for EHLO
  const char* command;  ///< of the protocol, sent after the greeting (and STARTTLS)
  bool startTls = false;  ///< the server must offer STARTTLS, and TLS must work
  std::string to{};       ///< SMTP: send mail to this address, up to DATA, in place of `command`
  std::string from{};     ///< address to connect from, of this machine or locally routed; empty: any
  std::string sender{};   ///< SMTP: the address that the mail is from; empty: the one of bounces
  std::string user{};     ///< if not empty, logs in as this user, with a password that is wrong
};

/// What the server answered.
struct Answer {
  bool good;         ///< the server agreed to everything
  bool refused;      ///< nothing listens there
  bool denied;       ///< the server has checked the login, and refused it
  std::string said;  ///< the server's first refusal, or else its last line; when it said nothing, why
};

/// The code of an SMTP reply, such as 451 (RFC 5321, section 4.2.1); 0 for a line that has none.
int ReplyCode(const std::string& line);

/// Has the dialogue. Waits at most 5 seconds for an answer; 20 with `to`, because the server's checks in
/// DNS may take long. No message is sent: the connection ends before its text would begin. The server's
/// certificate is not checked.
Answer Converse(const Dialogue& dialogue);
