/// The lines of Postfix's log: postlogd(8), or syslog's files.
#pragma once

#include <optional>
#include <string>

#include "mail/postfix_config.h"

/// What a line says of a message.
enum class MailEvent {
  kOther,
  kMessageId,  ///< it is in the queue, with this Message-ID
  kActive,     ///< it is about to be delivered
  kHeld,       ///< it is held until somebody lets it go
  kRejected,   ///< a milter does not take it
  kDelivery,   ///< how the delivery to one recipient went, for now
  kRemoved,    ///< it has left the queue
  kFatal       ///< of no message: a program has ended
};

/// Fields that a line does not have are empty.
struct PostfixLogLine {
  std::string program;  ///< "postfix/smtpd"
  std::string text;     ///< all that it says, the queue ID too
  std::string queueId{};
  std::string said{};  ///< without the queue ID
  MailEvent event = MailEvent::kOther;
  std::string messageId{};   ///< with <>
  std::string to{};          ///< the recipient
  std::string originalTo{};  ///< whom an alias has replaced
  Peer relay{};              ///< numeric: the server that was given the message
  Peer unreachable{};        ///< numeric: the server or the socket that could not be reached
  std::string status{};      ///< "sent", "deferred", "bounced" or "expired"
  std::string reason{};      ///< why, in parentheses
};

/// A line "TIME [HOST] PROGRAM[PID]: TEXT", where the time is that of RFC 3164 or RFC 5424, with the <number>
/// of syslog(3) before it or without. Also of other programs. Nothing for another line.
std::optional<PostfixLogLine> ParsePostfixLogLine(const std::string& line);
