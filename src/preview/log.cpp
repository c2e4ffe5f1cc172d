#include "preview/log.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "mail/postfix_log.h"

namespace {

constexpr const char* kKept = "/tmp/preview/log";  // the messages, each closed by a NUL
constexpr sockaddr_un kAddress = {AF_UNIX, "/dev/log"};

int marks = -1;  // a byte comes for each empty message, once all that was sent before it is kept
std::streamoff taken = 0;

const sockaddr* Address() { return reinterpret_cast<const sockaddr*>(&kAddress); }

[[noreturn]] void Keep(int log, int kept, int mark) {
  for (;;) {
    char message[65536];
    const ssize_t size = std::max<ssize_t>(recv(log, message, sizeof message - 1, 0), 0);
    message[size] = '\0';
    if (write(size > 0 ? kept : mark, message, static_cast<size_t>(size + 1)) < 0) _exit(1);
  }
}

}  // namespace

void KeepLog() {
  const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int kept = open(kKept, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  int ends[2];
  pid_t keeper = -1;
  if (bind(log, Address(), sizeof kAddress) == 0 && chmod(kAddress.sun_path, 0666) == 0 && kept >= 0 &&
      pipe2(ends, O_CLOEXEC) == 0) {
    keeper = fork();
  }
  if (keeper < 0) throw std::runtime_error("cannot keep what is sent to /dev/log");
  if (keeper == 0) Keep(log, kept, ends[1]);
  for (const int file : {log, kept, ends[1]}) close(file);
  marks = ends[0];
}

std::vector<LogLine> TakeLog() {
  const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  char byte;
  const bool asked = sendto(sender, "", 0, 0, Address(), sizeof kAddress) == 0 && read(marks, &byte, 1) == 1;
  close(sender);
  if (!asked) throw std::runtime_error("cannot read what was sent to /dev/log");
  std::ifstream file(kKept, std::ios::binary);
  file.seekg(taken);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line, '\0');) {
    taken += static_cast<std::streamoff>(line.size() + 1);
    lines.push_back(line);
  }
  return LogLines(lines);
}

std::vector<LogLine> LogLines(const std::vector<std::string>& lines) {
  std::vector<LogLine> parts;
  for (const std::string& line : lines) {
    if (const auto read = ParsePostfixLogLine(line)) parts.push_back({read->program, read->text});
  }
  return parts;
}

std::vector<std::string> SaidBy(const std::string& program, const std::vector<LogLine>& lines) {
  std::vector<std::string> said;
  for (const LogLine& line : lines) {
    if (program.empty() || line.program == program) said.push_back(line.text);
  }
  return said;
}
