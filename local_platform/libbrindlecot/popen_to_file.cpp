#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/files.h"
#include "common/text.h"
#include "platform/brindlecot.h"

namespace {

// The `name=value` line of a `Name: value` line; empty when it has no name or no value.
std::string FormatPair(std::string_view line) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return "";
  std::string name(Trim(line.substr(0, colon)));
  const std::string value(Trim(line.substr(colon + 1)));
  std::replace(name.begin(), name.end(), ' ', '_');
  return name.empty() || value.empty() ? "" : name + '=' + value + '\n';
}

// Reads `stream` to its end. False, with errno set, on a read error.
bool ReadStream(FILE* stream, std::string& text) {
  char block[4096];
  do {
    clearerr(stream);
    text.append(block, fread(block, 1, sizeof block, stream));
  } while (!feof(stream) && (!ferror(stream) || errno == EINTR));
  return feof(stream) != 0;
}

bool Write(const char* path, const std::string& mode, const std::string& text) {
  FILE* const file = fopen(path, (mode + 'e').c_str());
  if (file == nullptr) return false;
  const bool written = WriteAll(fileno(file), text);
  const int reason = errno;
  const bool closed = fclose(file) == 0;
  errno = written ? errno : reason;
  return written && closed;
}

}  // namespace

int PopenToFile(FILE* stream, const char* path, const char* mode) {
  std::string output;
  const bool read = ReadStream(stream, output);
  std::string pairs;
  for (std::string_view rest = output; read && !rest.empty();) {
    pairs += FormatPair(TakeLine(rest));
  }
  if (read && Write(path, mode, pairs)) return 0;
  syslog(LOG_ERR, "%s: %s: %s", Printable(path).c_str(),
         read ? "cannot be written" : "expected readable output for it", std::strerror(errno));
  return -1;
}
