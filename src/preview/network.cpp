#include "preview/network.h"

#include <netdb.h>
#include <sched.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <stdexcept>

#include "mail_check/mail_questions.h"
#include "preview/sandbox.h"
#include "system/program.h"
#include "system/text.h"

namespace {

/// A socket bound to a place; negative when that is impossible.
int Bound(const std::string& host, const char* port, int type) {
  addrinfo wanted = {};
  wanted.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
  wanted.ai_family = host == "*" ? AF_INET6 : AF_UNSPEC;
  wanted.ai_socktype = type;
  addrinfo* found = nullptr;
  if (getaddrinfo(host == "*" ? nullptr : host.c_str(), port, &wanted, &found) != 0) return -1;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  const int file = socket(found->ai_family, type | SOCK_CLOEXEC, 0);
  const int yes = 1;
  setsockopt(file, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (bind(file, found->ai_addr, found->ai_addrlen) == 0) return file;
  close(file);
  return -1;
}

/// Answers every question of the DNS with "server failure" (RFC 1035, section 4.1.1). If nobody did, checks
/// of a sender would wait some twenty seconds.
[[noreturn]] void AnswerNames(int names) {
  for (;;) {
    unsigned char message[512];
    sockaddr_storage from = {};
    socklen_t length = sizeof from;
    const ssize_t size =
        recvfrom(names, message, sizeof message, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (size < 12) continue;
    message[2] |= 0x80;  // a response
    message[3] = 2;
    sendto(names, message, static_cast<size_t>(size), 0, reinterpret_cast<const sockaddr*>(&from), length);
  }
}

}  // namespace

std::vector<std::string> TakenPlaces() {
  const std::regex mail(R"re("(master|smtpd|dovecot|imap-login|pop3-login|opendkim|opendmarc)")re");
  std::vector<std::string> places;
  for (const std::string& line : Lines(RunProgram({"ss", "-Hltnp"}).output)) {
    const std::vector<std::string> words = Words(line);  // state, two queues, the place, the other end, who
    if (words.size() > 3 && !std::regex_search(line, mail)) places.push_back(words[3]);
  }
  return places;
}

void LeaveNetwork(const std::vector<std::string>& taken) {
  std::string changes = "link set lo up\n";
  for (const std::string& address : OwnAddresses()) changes += "addr add " + address + " dev lo\n";
  changes += "addr add 192.0.2.10 dev lo\n";  // for a machine that has none: an example's (RFC 5737)
  if (unshare(CLONE_NEWNET) != 0) throw std::runtime_error("cannot make a network namespace");
  if (RunProgram({"ip", "-force", "-batch", "-"}, changes).status == kNotRun) {
    throw std::runtime_error("ip(8) is missing: the rehearsal takes iproute2");
  }
  for (const std::string& place : taken) {
    const std::regex form(
        R"(\[?([^%\]]*)(?:%.*)?\]?:(\d+))");  // [ADDRESS%INTERFACE]:PORT, or without any of it
    std::smatch match;
    if (!std::regex_match(place, match, form)) continue;
    const int listener = Bound(match[1], match[2].str().c_str(), SOCK_STREAM);
    if (listener >= 0) listen(listener, 1);  // until the process ends
  }
  ReplaceByText("/etc/resolv.conf", "nameserver 127.0.0.1\noptions attempts:1\n");
  const int names = Bound("127.0.0.1", "53", SOCK_DGRAM);
  if (names >= 0 && fork() == 0) AnswerNames(names);
}
