#include "preview/log.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "system/program.h"

namespace {

constexpr sockaddr_un kAddress = {AF_UNIX, "/dev/log"};

int messages = -1;                // the socket
std::unique_ptr<Program> keeper;  // prints each message, with a NUL behind it, until an empty one comes

const sockaddr* Address() { return reinterpret_cast<const sockaddr*>(&kAddress); }

void StartKeeper() {
  keeper = std::make_unique<Program>([] {
    char message[65536];
    for (ssize_t size; (size = recv(messages, message, sizeof message, 0)) > 0;) {
      std::cout.write(message, size) << '\0';
    }
    return 0;
  });
}

}  // namespace

void KeepLog() {
  messages = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (bind(messages, Address(), sizeof kAddress) != 0 || chmod(kAddress.sun_path, 0666) != 0)
    throw std::runtime_error("cannot keep what is sent to /dev/log");
  StartKeeper();
}

std::vector<LogLine> TakeLog() {
  const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool asked = sendto(sender, "", 0, 0, Address(), sizeof kAddress) == 0;
  close(sender);
  if (!asked) throw std::runtime_error("cannot read what was sent to /dev/log");
  std::istringstream kept(keeper->Wait().output);
  StartKeeper();
  std::vector<std::string> lines;
  for (std::string line; std::getline(kept, line, '\0');) lines.push_back(line);
  return LogLines(lines);
}

std::vector<LogLine> LogLines(const std::vector<std::string>& lines) {
  std::vector<LogLine> parts;
  for (const std::string& line : lines) {
    if (const auto read = ParsePostfixLogLine(line)) parts.push_back(*read);
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
