#include "recorded_syslog.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

std::vector<std::string>& RecordedLog() {
  static std::vector<std::string> lines;
  return lines;
}

namespace {

void Record(int priority, const char* format, va_list arguments) {
  char line[8192];
  // clang-tidy 14 loses track of a va_list that is handed on. NOLINTNEXTLINE(clang-analyzer-valist.*)
  std::vsnprintf(line, sizeof line, format, arguments);
  RecordedLog().push_back((priority == LOG_ERR ? "" : "<" + std::to_string(priority) + ">") + line);
}

}  // namespace

// The C library's own names. NOLINTBEGIN(bugprone-reserved-identifier,readability-inconsistent-*)
extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Record(priority, format, arguments);
  va_end(arguments);
}

/// What fortified code calls.
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Record(priority, format, arguments);
  va_end(arguments);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,readability-inconsistent-*)
