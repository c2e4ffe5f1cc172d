#include "preview/network.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <stdexcept>

#include "checks/strangers.h"
#include "mail/listeners.h"
#include "preview/sandbox.h"
#include "system/files.h"
#include "system/program.h"
#include "system/text.h"

namespace {

// A socket of the endpoint, as `use` makes it: bind(2) or connect(2). Negative when that is impossible.
template <typename Use>
int Open(const Endpoint& endpoint, int type, Use use) {
  addrinfo wanted = {};
  wanted.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  wanted.ai_socktype = type;
  addrinfo* found = nullptr;
  if (getaddrinfo(endpoint.address.c_str(), endpoint.port.c_str(), &wanted, &found) != 0) return -1;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  const int file = socket(found->ai_family, type | SOCK_CLOEXEC, 0);
  const int yes = 1;
  // The second time for a program that listens on both 0.0.0.0 and ::.
  if (use(file, found->ai_addr, found->ai_addrlen) == 0 ||
      (setsockopt(file, IPPROTO_IPV6, IPV6_V6ONLY, &yes, sizeof yes) == 0 &&
       use(file, found->ai_addr, found->ai_addrlen) == 0))
    return file;
  close(file);
  return -1;
}

// Answers every question of the DNS with "server failure" (RFC 1035, section 4.1.1). If nobody did, checks
// of a sender would wait some twenty seconds.
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

// Passes bytes on, both ways, until one side ends.
[[noreturn]] void PassOn(int one, int other) {
  pollfd ends[] = {{one, POLLIN, 0}, {other, POLLIN, 0}};
  for (;;) {
    if (poll(ends, 2, -1) < 0) _exit(1);
    for (const int from : {0, 1}) {
      char part[65536];
      if (ends[from].revents == 0) continue;
      const ssize_t size = read(ends[from].fd, part, sizeof part);
      if (size <= 0 || write(ends[1 - from].fd, part, static_cast<size_t>(size)) != size) _exit(0);
    }
  }
}

// Takes the connections of one listener, and connects each with the endpoint on the machine's network.
[[noreturn]] void Forward(int listener, int machine, const Endpoint& endpoint) {
  if (setns(machine, CLONE_NEWNET) != 0) _exit(1);
  signal(SIGCHLD, SIG_IGN);
  for (;;) {
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0 && fork() == 0) {
      const int server = Open(endpoint, SOCK_STREAM, connect);
      if (server < 0) _exit(1);
      PassOn(client, server);
    }
    close(client);
  }
}

}  // namespace

std::vector<Endpoint> OccupiedEndpoints() {
  std::vector<Endpoint> endpoints;
  for (const TcpListener& listener : TcpListeners()) {
    if (std::none_of(Daemons().begin(), Daemons().end(), [&](const Daemon& daemon) {
          // Others may run the same program as another milter.
          return (daemon.milterPort.empty() || daemon.milterPort == listener.port) &&
                 Belongs(listener, daemon);
        }))
      endpoints.push_back({listener.address, listener.port});
  }
  return endpoints;
}

void LeaveNetwork(const std::vector<Endpoint>& occupied, const std::vector<Service>& services) {
  std::string changes = "link set lo up\n";
  const auto address = [&](const std::string& one) {
    // Without a route to its network, whose hosts would be this machine then.
    changes += "addr add " + one + " dev lo noprefixroute\n";
  };
  for (const std::string& line :
       Lines(RunProgram({"ip", "-o", "addr", "show", "up", "scope", "global"}).output)) {
    const std::vector<std::string> words = Words(line);  // number, interface, family, ADDRESS/BITS, ...
    if (words.size() > 3) address(words[3]);
  }
  address("192.0.2.10/32");  // for a machine that has none: examples' (RFC 5737, RFC 3849)
  address("2001:db8::10/128");
  // Strangers have names, so that no restriction of nameless clients decides.
  std::string hosts = ReadFile("/etc/hosts");
  int number = 0;
  for (const std::string& stranger : OutsideAddresses::All()) {
    changes += "route add local " + stranger + " dev lo\n";
    hosts += stranger + " stranger" + std::to_string(++number) + ".example\n";
  }
  changes += "route add local " + OutsideAddresses::Users() + " dev lo\n";
  for (const Service& service : services) {
    if (!service.local) changes += "route add local " + service.endpoint.address + " dev lo\n";
    if (service.host != service.endpoint.address)
      hosts += service.endpoint.address + " " + service.host + "\n";
  }
  const int machine = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) throw std::runtime_error("cannot make a network namespace");
  if (RunProgram({"ip", "-force", "-batch", "-"}, changes).status == kNotRun) {
    throw std::runtime_error("ip(8) is missing: the rehearsal takes iproute2");
  }
  for (const Service& service : services) {
    const int listener = Open(service.endpoint, SOCK_STREAM, bind);
    if (listener >= 0 && listen(listener, SOMAXCONN) == 0 && fork() == 0)
      Forward(listener, machine, service.endpoint);
  }
  // A connection is refused there, and nobody else can listen. (Linux lets two sockets share an endpoint when
  // both were made with SO_REUSEADDR and neither listens.)
  for (const Endpoint& endpoint : occupied) Open(endpoint, SOCK_STREAM, bind);  // until the process ends
  ReplaceByText("/etc/hosts", hosts);
  ReplaceByText("/etc/resolv.conf", "nameserver 127.0.0.1\noptions attempts:1\n");
  const int names = Open({"127.0.0.1", "53"}, SOCK_DGRAM, bind);
  if (names >= 0 && fork() == 0) AnswerNames(names);
}
