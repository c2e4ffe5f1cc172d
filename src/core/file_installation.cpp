#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/config_generator.h"
#include "core/guards.h"
#include "platform/nubocore.h"

namespace {

constexpr size_t kCopyBufferSize = 1024;

// The index at which a stream stores the errno of its first failed write (iword).
const int kWriteErrno = std::ios_base::xalloc();

// For a file that was not written whole, and so must not be used.
int LogAndRemove(const char* path) {
  (void)LogWriteError(path);
  (void)unlink(path);
  return -1;
}

int LogCopyError(int line) {
  syslog(LOG_ERR, "%s:%d copy file error: %s", kLogSource, line, std::strerror(errno));
  return -1;
}

// A read error makes the copy fail, or counts as the end of the source.
enum class ReadError { kFails, kEndsSource };

int Copy(const char* source, const char* destination, int flags, ReadError readError, int line) {
  // The run must not wait for a pipe. O_NONBLOCK opens one without waiting, and lseek fails on it.
  const OwnedDescriptor from(open(source, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (from.number < 0 || lseek(from.number, 0, SEEK_CUR) < 0) return LogCopyError(line);
  OwnedDescriptor to(open(destination, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644));
  if (to.number < 0) return LogCopyError(line);
  char buffer[kCopyBufferSize] = {};
  ssize_t count = 0;
  bool begun = false;
  while ((count = read(from.number, buffer, sizeof buffer)) > 0) {
    errno = ENOSPC;  // a short write sets no reason; a full disk is the usual one
    if (write(to.number, buffer, static_cast<size_t>(count)) != count) {
      (void)LogWriteError(destination);
      return kPartialCopy;
    }
    begun = true;
  }
  if (count < 0 && readError == ReadError::kFails) {
    (void)LogCopyError(line);
    return begun ? kPartialCopy : -1;
  }
  if (to.Close() == 0) return 0;
  (void)LogWriteError(destination);
  return kPartialCopy;
}

}  // namespace

int MakeTempFile(char* path) {
  const int file = mkstemp(path);
  return file < 0 ? -1 : close(file);
}

int CopyFile(const char* source, const char* destination) {
  return Copy(source, destination, O_TRUNC, ReadError::kFails, 110);
}

int AppendFile(const char* source, const char* destination) {
  return Copy(source, destination, O_APPEND, ReadError::kEndsSource, 140);
}

int MakeTempFileOrLog(char* path) { return MakeTempFile(path) < 0 ? LogWriteError(path) : 0; }

void OpenFromTemplate(std::ofstream& stream, char* temp, const char* templatePath) {
  (void)MakeTempFile(temp);
  if (CopyFile(templatePath, temp) == kPartialCopy) {
    (void)unlink(temp);
    stream.setstate(std::ios::badbit);
  } else {
    stream.open(temp, std::ios::out | std::ios::app);
  }
}

void OpenEmpty(std::ofstream& stream, char* temp) {
  (void)MakeTempFile(temp);
  stream.open(temp, std::ios::out);
}

int OpenOrLog(std::ofstream& stream, const char* path) {
  stream.open(path);
  return stream.is_open() ? 0 : LogWriteError(path);
}

std::ostream& EndLine(std::ostream& stream) {
  stream << std::endl;
  if (stream.bad() && stream.iword(kWriteErrno) == 0) stream.iword(kWriteErrno) = errno;
  return stream;
}

void CloseStream(std::ofstream& stream) {
  if (stream.is_open()) stream.close();
}

int CloseOrRemove(std::ofstream& stream, const char* path) {
  if (!stream.is_open()) return stream.bad() ? -1 : 0;
  CloseStream(stream);
  if (stream.good()) return 0;
  if (stream.iword(kWriteErrno) != 0)
    errno = static_cast<int>(stream.iword(kWriteErrno));  // else that of close()
  return LogAndRemove(path);
}

int LogWriteError(const char* path) {
  syslog(LOG_ERR, "%s:%d write %s fail, %s", kLogSource, 329, path, std::strerror(errno));
  return -1;
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

int SyncOrRemove(const char* temp) {
  const OwnedDescriptor file(open(temp, O_RDONLY | O_CLOEXEC));
  if (file.number < 0 && access(temp, F_OK) != 0) return 0;  // never created; the rename logs why
  if (file.number >= 0 && fsync(file.number) == 0) return 0;
  return LogAndRemove(temp);
}

int InstallFile(const char* temp, const char* target) {
  if (chmod(temp, 0644) < 0) {
    syslog(LOG_ERR, "%s:%d chmod %s fail, %s", kLogSource, 319, temp, std::strerror(errno));
    return -1;
  }
  if (SyncOrRemove(temp) < 0) return -1;
  if (std::rename(temp, target) < 0) {
    syslog(LOG_ERR, "%s:%d rename %s fail, %s", kLogSource, 324, temp, std::strerror(errno));
    return -1;
  }
  return 0;
}

int CompileMap(const char* program, const char* path) {
  return ZELBCExec(program, path, nullptr, nullptr, nullptr);
}
