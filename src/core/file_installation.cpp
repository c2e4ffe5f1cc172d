#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <tuple>

#include "core/config_generator.h"
#include "core/owned.h"
#include "platform/nubocore.h"

namespace {

constexpr size_t kCopyBufferSize = 1024;

void LogCopyError(int line) {
  syslog(LOG_ERR, "%s:%d copy file error: %s", kLogSource, line, std::strerror(errno));
}

struct OpenFiles {
  int from;
  int to;
};

// Opens the source, and the destination for writing with `flags` more. False, with one log line and neither
// of them open, when one cannot be.
bool OpenBoth(OpenFiles& files, const char* source, const char* destination, int flags, int line) {
  files.from = open(source, O_RDONLY | O_CLOEXEC);
  if (files.from < 0) {
    LogCopyError(line);
    return false;
  }
  files.to = open(destination, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
  if (files.to < 0) {
    LogCopyError(line);
    close(files.from);
    return false;
  }
  return true;
}

void CloseBoth(const OpenFiles& files) {
  close(files.from);
  close(files.to);
}

// To the end of the source, or to the first fault, whose reason is in errno.
int CopyBytes(int source, int destination) {
  char buffer[kCopyBufferSize] = {};
  for (;;) {
    const ssize_t count = read(source, buffer, sizeof buffer);
    if (count == 0) return 0;
    if (count < 0) return -1;
    const ssize_t written = write(destination, buffer, static_cast<size_t>(count));
    if (written < 0) return -1;
    if (written < count) {
      errno = ENOSPC;  // a short write to a file sets no reason; a full disk is the usual one
      return -1;
    }
  }
}

}  // namespace

int MakeTempFile(char* path) {
  const int file = mkstemp(path);
  return file < 0 ? -1 : close(file);
}

int CopyFile(const char* source, const char* destination) {
  OpenFiles files = {};
  if (!OpenBoth(files, source, destination, O_TRUNC, 110)) return -1;
  const int result = CopyBytes(files.from, files.to);
  if (result < 0) LogCopyError(110);
  CloseBoth(files);
  return result;
}

int AppendFile(const char* source, const char* destination) {
  OpenFiles files = {};
  if (!OpenBoth(files, source, destination, O_APPEND, 140)) return -1;
  char buffer[kCopyBufferSize] = {};
  ssize_t count = 0;
  while ((count = read(files.from, buffer, sizeof buffer)) > 0) {
    std::ignore = write(files.to, buffer, static_cast<size_t>(count));
  }
  CloseBoth(files);
  return 0;
}

void OpenFromTemplate(std::ofstream& stream, char* temp, const char* templatePath) {
  std::ignore = MakeTempFile(temp);
  std::ignore = CopyFile(templatePath, temp);
  stream.open(temp, std::ios::out | std::ios::app);
}

void OpenEmpty(std::ofstream& stream, char* temp) {
  std::ignore = MakeTempFile(temp);
  stream.open(temp, std::ios::out);
}

void CloseStream(std::ofstream& stream) {
  if (stream.is_open()) stream.close();
}

bool Written(bool done, const char* path) {
  if (!done) syslog(LOG_ERR, "%s:%d write %s fail, %s", kLogSource, 329, path, std::strerror(errno));
  return done;
}

int ConfigGenerator::ApplyCustomization(const char* generated, const char* customization) {
  if (ZELBCFileExist(customization) == 0) return 0;
  OwnedHash keys;
  keys.handle = ZELBCSzHashAlloc(1024);
  if (keys.handle == nullptr) {
    syslog(LOG_ERR, "%s:%d out of memory", kLogSource, 1083);
    return -1;
  }
  if (ZELBCFileGetPair(customization, &keys.handle) < 0) {
    syslog(LOG_ERR, "%s:%d load %s key pairs fail", kLogSource, 1088, customization);
    return -1;
  }
  return ZELBCFileSetKeys(generated, keys.handle, 0, "%s = %s\n") < 0 ? -1 : 0;
}

int InstallFile(const char* temp, const char* target) {
  if (chmod(temp, 0644) < 0) {
    syslog(LOG_ERR, "%s:%d chmod %s fail, %s", kLogSource, 319, temp, std::strerror(errno));
    return -1;
  }
  if (std::rename(temp, target) < 0) {
    syslog(LOG_ERR, "%s:%d rename %s fail, %s", kLogSource, 324, temp, std::strerror(errno));
    return -1;
  }
  return 0;
}

int CompileMap(const char* program, const char* path) {
  return ZELBCExec(program, path, nullptr, nullptr, nullptr);
}
