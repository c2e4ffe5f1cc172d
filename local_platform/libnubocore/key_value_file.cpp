#include "libnubocore/key_value_file.h"

#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>

#include "common/files.h"
#include "common/text.h"
#include "platform/nubocore.h"

namespace {

enum class LineKind {
  kSkipped,       // empty, or a comment
  kContinuation,  // indented: continues the value above it
  kPair,
  kOther  // starts in the first column and is no pair
};

// A line of a key/value file. A pair has `key` and `value`, a continuation has `value`.
struct Line {
  LineKind kind;
  std::string_view key;
  std::string_view value;
};

Line ReadLine(std::string_view line) {
  const std::string_view text = Trim(line);
  if (text.empty() || text.front() == '#') return {LineKind::kSkipped, {}, {}};
  if (line.front() == ' ' || line.front() == '\t') return {LineKind::kContinuation, {}, text};
  const size_t equals = text.find('=');
  const std::string_view key = Trim(text.substr(0, equals));
  if (equals == std::string_view::npos || key.empty()) return {LineKind::kOther, {}, {}};
  return {LineKind::kPair, key, Trim(text.substr(equals + 1))};
}

// The text that is expected in the place of a faulty `line`; null when the line is right.
const char* FindFault(const Line& line, bool first) {
  if (line.kind == LineKind::kOther) return "a pair, key = value";
  if (line.kind == LineKind::kContinuation && first) return "a pair before its continuation";
  const bool binary =
      line.key.find('\0') != std::string_view::npos || line.value.find('\0') != std::string_view::npos;
  return binary ? "text without NUL bytes" : nullptr;
}

// Reads a file that has to exist.
bool ReadExisting(const char* path, std::string& content) {
  const ReadResult result = ReadFile(path, content);
  if (result == ReadResult::kMissing) {
    syslog(LOG_ERR, "%s: expected a readable file: %s", path, std::strerror(ENOENT));
  }
  return result == ReadResult::kOk;
}

std::string FormatPair(const char* format, const ZELBCSzHash::Entry& entry) {
  const int length = std::snprintf(nullptr, 0, format, entry.key.c_str(), entry.value.c_str());
  std::string line(static_cast<size_t>(length), '\0');
  std::snprintf(line.data(), line.size() + 1, format, entry.key.c_str(), entry.value.c_str());
  return line;
}

// For each entry, the number of the last line that sets it.
using LineNumbers = std::unordered_map<const ZELBCSzHash::Entry*, size_t>;

LineNumbers FindLastLines(std::string_view content, const ZELBCSzHash& hash) {
  LineNumbers last;
  for (size_t number = 0; !content.empty(); ++number) {
    const Line line = ReadLine(TakeLine(content));
    if (line.kind == LineKind::kPair) {
      if (const ZELBCSzHash::Entry* entry = hash.Find(line.key)) {
        last[entry] = number;
      }
    }
  }
  return last;
}

// Returns `content` with every key of `hash` set to its value.
std::string SetKeys(std::string_view content, const ZELBCSzHash& hash, const char* format) {
  const LineNumbers last = FindLastLines(content, hash);
  std::string changed;
  // The entry of the pair that is being read, or null. Every line that starts in the first column ends the
  // pair before it, even when it is no pair: indented lines in a block (`namespace inbox {`) do not continue
  // a pair above the block.
  const ZELBCSzHash::Entry* entry = nullptr;
  for (size_t number = 0; !content.empty(); ++number) {
    const std::string_view text = TakeLine(content);
    const Line line = ReadLine(text);
    if (line.kind == LineKind::kPair || line.kind == LineKind::kOther) {
      entry = line.kind == LineKind::kPair ? hash.Find(line.key) : nullptr;
    }
    if (entry == nullptr || line.kind == LineKind::kSkipped) {
      changed += text;
    } else if (last.at(entry) == number) {
      changed += FormatPair(format, *entry);
    }
  }
  for (const ZELBCSzHash::Entry& missing : hash.entries) {
    if (last.count(&missing) == 0) {
      if (!changed.empty() && changed.back() != '\n') {
        changed += '\n';
      }
      changed += FormatPair(format, missing);
    }
  }
  return changed;
}

}  // namespace

bool ParsePairs(const char* path, std::string_view content, ZELBCSzHash& hash) {
  std::string key;
  std::string value;
  for (size_t number = 1; !content.empty(); ++number) {
    const Line line = ReadLine(TakeLine(content));
    if (const char* expected = FindFault(line, key.empty())) {
      syslog(LOG_ERR, "%s:%zu: expected %s", path, number, expected);
      return false;
    }
    if (line.kind == LineKind::kPair) {
      if (!key.empty()) {
        hash.Set(key, value);
      }
      key = line.key;
      value = line.value;
    } else if (line.kind == LineKind::kContinuation) {
      value += value.empty() ? "" : " ";
      value += line.value;
    }
  }
  if (!key.empty()) {
    hash.Set(key, value);
  }
  return true;
}

int ZELBCFileExist(const char* path) {
  struct stat status = {};
  return lstat(path, &status) == 0 || (errno != ENOENT && errno != ENOTDIR) ? 1 : 0;
}

int ZELBCFileGetPair(const char* path, ZELBCSzHash** hash) {
  std::string content;
  return ReadExisting(path, content) && ParsePairs(path, content, **hash) ? 0 : -1;
}

int ZELBCFileSetKeys(const char* path, ZELBCSzHash* hash, int /*flags*/, const char* format) {
  std::string content;
  if (!ReadExisting(path, content)) return -1;
  struct stat status = {};
  if (stat(path, &status) != 0) {
    syslog(LOG_ERR, "%s: expected a readable mode: %s", path, std::strerror(errno));
    return -1;
  }
  return ReplaceFile(path, SetKeys(content, *hash, format), status.st_mode & 07777);
}

int ZELBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int /*flags*/) {
  CopyToBuffer({}, value, size);
  std::string content;
  ZELBCSzHash hash;
  if (ReadFile(path, content) != ReadResult::kOk || !ParsePairs(path, content, hash)) return -1;
  const ZELBCSzHash::Entry* entry = hash.Find(key);
  if (entry == nullptr) return -1;
  const int length = CopyToBuffer(entry->value, value, size);
  if (length < 0) {
    syslog(LOG_ERR, "%s: %s: expected a text of less than %d bytes", path, key, size);
  }
  return length;
}
