#include "common/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void LogFailure(const char* path, const char* failure) {
  syslog(LOG_ERR, "%s: %s: %s", Printable(path).c_str(), failure, std::strerror(errno));
}

bool CheckIsPrivate(int file, const char* path) {
  struct stat status = {};
  if (fstat(file, &status) != 0) {
    LogFailure(path, "expected a readable mode");
    return false;
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    syslog(LOG_ERR, "%s: expected a mode without rights for group or others", Printable(path).c_str());
    return false;
  }
  return true;
}

ReadResult Read(const char* path, std::string& content, bool secret) {
  content.clear();
  // O_NONBLOCK: the run must not wait for a pipe in the file's place.
  const int file = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) {
    if (errno == ENOENT) return ReadResult::kMissing;
    LogFailure(path, "expected a readable file");
    return ReadResult::kFailed;
  }
  if (secret && !CheckIsPrivate(file, path)) {
    close(file);
    return ReadResult::kFailed;
  }
  char block[8192];
  ssize_t got = 0;
  while ((got = read(file, block, sizeof block)) > 0 || (got < 0 && errno == EINTR)) {
    content.append(block, got > 0 ? static_cast<size_t>(got) : 0);
    if (content.size() > kMaxBytes) {
      errno = EFBIG;
      got = -1;
      break;
    }
  }
  if (got < 0) {
    LogFailure(path, "expected a readable file");
    content.clear();
  }
  close(file);
  return got < 0 ? ReadResult::kFailed : ReadResult::kOk;
}

}  // namespace

ReadResult ReadFile(const char* path, std::string& content) { return Read(path, content, false); }

ReadResult ReadSecretFile(const char* path, std::string& content) { return Read(path, content, true); }

bool WriteAll(int file, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = write(file, content.data(), content.size());
    if (written > 0) {
      content.remove_prefix(static_cast<size_t>(written));
    } else if (written == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

int WriteFile(const char* path, std::string_view content) {
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  const bool written = file >= 0 && WriteAll(file, content);
  const int reason = errno;
  const bool closed = file >= 0 && close(file) == 0;
  if (written && closed) return 0;
  errno = written ? errno : reason;
  LogFailure(path, "cannot be written");
  return -1;
}

int ReplaceFile(const char* path, std::string_view content, mode_t mode) {
  std::string temp = std::string(path) + "XXXXXX";
  const int file = mkostemp(temp.data(), O_CLOEXEC);
  if (file < 0) {
    LogFailure(path, "cannot create a file beside it");
    return -1;
  }
  // Synced before the rename. Otherwise a power cut could leave an empty file.
  const bool written = WriteAll(file, content) && fchmod(file, mode) == 0 && fsync(file) == 0;
  const int reason = errno;
  const bool closed = close(file) == 0;
  if (written && closed && rename(temp.c_str(), path) == 0) return 0;
  errno = written ? errno : reason;
  LogFailure(path, "cannot be replaced");
  (void)unlink(temp.c_str());  // only the first failure is logged
  return -1;
}

std::string Printable(std::string_view text) {
  std::string printable(text);
  for (char& c : printable) {
    const auto byte = static_cast<unsigned char>(c);
    c = byte < 0x20 || byte == 0x7f ? '?' : c;
  }
  return printable;
}
