/// The system log of the sandbox, and log files.
#pragma once

#include <string>
#include <vector>

/// One message.
struct LogLine {
  std::string program;  ///< such as "postfix/smtpd"
  std::string text;
};

/// From here on keeps what is sent to /dev/log.
void KeepLog();

/// What was sent since the last call.
std::vector<LogLine> TakeLog();

/// The lines of a log as syslog(3) of the C library sends them or Postfix writes them into its own file:
/// `[<PRIORITY>]TIME [HOST] PROGRAM[[PID]]: TEXT`.
std::vector<LogLine> LogLines(const std::vector<std::string>& lines);

/// What a program, or any program when that is empty, says in these lines.
std::vector<std::string> SaidBy(const std::string& program, const std::vector<LogLine>& lines);
