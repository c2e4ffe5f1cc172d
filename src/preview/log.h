/// The system log of the sandbox, and log files.
#pragma once

#include <string>
#include <vector>

#include "mail/postfix_log.h"

using LogLine = PostfixLogLine;

/// From here on keeps what is sent to /dev/log.
void KeepLog();

/// What was sent since the last call.
std::vector<LogLine> TakeLog();

/// The lines of a log that can be read.
std::vector<LogLine> LogLines(const std::vector<std::string>& lines);

/// What a program, or any program when that is empty, says in these lines.
std::vector<std::string> SaidBy(const std::string& program, const std::vector<LogLine>& lines);
