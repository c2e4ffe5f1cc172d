/// Who listens on the TCP ports of this machine.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "mail/daemons.h"

/// A process.
struct Owner {
  pid_t pid;
  uid_t uid;            ///< it runs as
  std::string program;  ///< path of its executable
};

/// A TCP socket that listens.
struct TcpListener {
  std::string address;  ///< numeric, such as "0.0.0.0" or "::1"
  std::string port;     ///< numeric
  uid_t uid;            ///< of the process that made the socket: nobody can pass as another user here
  ino_t inode;          ///< number of the socket
};

/// Those in a text like /proc/net/tcp or /proc/net/tcp6: proc_pid_net(5).
std::vector<TcpListener> ParseTcpListeners(const std::string& text);

/// All that listen in this network namespace.
std::vector<TcpListener> TcpListeners();

/// The paths of the UNIX sockets that listen, in a text like /proc/net/unix.
std::vector<std::string> ParseUnixListeners(const std::string& text);

/// The processes that have the listener's socket open. Only root sees those of other users.
std::vector<Owner> OwnersOf(const TcpListener& listener);

/// True when root, or the account that the daemon runs as, has made the socket, and a process of the daemon's
/// program has it open. The names of processes are not looked at, since any user chooses them.
bool Belongs(const TcpListener& listener, const Daemon& daemon);

/// Those who listen on the port and are neither root's nor this account's.
std::vector<TcpListener> ForeignListeners(const std::string& port, const std::string& account);

/// True when somebody listens on the port in this network namespace.
bool IsListening(const std::string& port);
