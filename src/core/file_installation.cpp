#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/config_generator.h"
#include "core/owned.h"
#include "platform/nubocore.h"

namespace {

constexpr size_t kCopyBufferSize = 1024;

// The index at which a stream keeps the reason of its first failed write.
const int kReason = std::ios_base::xalloc();

int CopyError(int line) {
  syslog(LOG_ERR, "%s:%d copy file error: %s", kLogSource, line, std::strerror(errno));
  return -1;
}

// For a file that is not whole: it must not be used.
bool LogAndRemove(const char* path) {
  (void)Written(false, path);
  (void)unlink(path);
  return false;
}

int Copy(const char* source, const char* destination, int flags, int line) {
  // The run must not wait for a pipe. O_NONBLOCK opens one without waiting, and lseek fails on it.
  const OwnedDescriptor from(open(source, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (from.number < 0 || lseek(from.number, 0, SEEK_CUR) < 0) return CopyError(line);
  OwnedDescriptor to(open(destination, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644));
  if (to.number < 0) return CopyError(line);
  char buffer[kCopyBufferSize] = {};
  ssize_t count = 0;
  bool begun = false;
  while ((count = read(from.number, buffer, sizeof buffer)) > 0) {
    errno = ENOSPC;  // a short write sets no reason; a full disk is the usual one
    if (!Written(write(to.number, buffer, static_cast<size_t>(count)) == count, destination))
      return kNotWhole;
    begun = true;
  }
  // The two callers differ here: a source that cannot be read is an error to CopyFile, and ends early to
  // AppendFile.
  if (count < 0 && flags == O_TRUNC) {
    (void)CopyError(line);
    return begun ? kNotWhole : -1;
  }
  return Written(to.Close() == 0, destination) ? 0 : kNotWhole;
}

}  // namespace

int MakeTempFile(char* path) {
  const int file = mkstemp(path);
  return file < 0 ? -1 : close(file);
}

int CopyFile(const char* source, const char* destination) { return Copy(source, destination, O_TRUNC, 110); }

int AppendFile(const char* source, const char* destination) {
  return Copy(source, destination, O_APPEND, 140);
}

void OpenFromTemplate(std::ofstream& stream, char* temp, const char* templatePath) {
  (void)MakeTempFile(temp);
  if (CopyFile(templatePath, temp) == kNotWhole) {
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

std::ostream& EndLine(std::ostream& stream) {
  stream << std::endl;
  if (stream.bad() && stream.iword(kReason) == 0) stream.iword(kReason) = errno;
  return stream;
}

void CloseStream(std::ofstream& stream) {
  if (stream.is_open()) stream.close();
}

bool WrittenWhole(std::ofstream& stream, const char* path) {
  if (!stream.is_open()) return !stream.bad();
  CloseStream(stream);
  if (stream.good()) return true;
  if (stream.iword(kReason) != 0) errno = static_cast<int>(stream.iword(kReason));  // else that of close()
  return LogAndRemove(path);
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

bool OnDisk(const char* temp) {
  const OwnedDescriptor file(open(temp, O_RDONLY | O_CLOEXEC));
  if (file.number < 0 && access(temp, F_OK) != 0) return true;  // it was never made; the rename will log why
  if (file.number >= 0 && fsync(file.number) == 0) return true;
  return LogAndRemove(temp);
}

int InstallFile(const char* temp, const char* target) {
  if (chmod(temp, 0644) < 0) {
    syslog(LOG_ERR, "%s:%d chmod %s fail, %s", kLogSource, 319, temp, std::strerror(errno));
    return -1;
  }
  if (!OnDisk(temp)) return -1;
  if (std::rename(temp, target) < 0) {
    syslog(LOG_ERR, "%s:%d rename %s fail, %s", kLogSource, 324, temp, std::strerror(errno));
    return -1;
  }
  return 0;
}

int CompileMap(const char* program, const char* path) {
  return ZELBCExec(program, path, nullptr, nullptr, nullptr);
}
