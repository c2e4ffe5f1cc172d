/// Postfix's configuration: main.cf, postconf(5), and master.cf, master(5). Nothing else reads these two
/// files, or runs postconf(1).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "mail/paths.h"

/// Values by the names of the parameters.
using Parameters = std::map<std::string, std::string>;

/// A service of master.cf.
struct PostfixService {
  std::string name;      ///< for "inet" a port, or HOST:PORT; else a name below the queue
  std::string type;      ///< "inet", "unix", "fifo", "pass", ...
  std::string command;   ///< the name of the program
  bool isPrivate;        ///< its socket is in the queue's directory "private", not in "public"
  Parameters options{};  ///< of its own, with -o, which come before those of main.cf
  std::string host{};    ///< for "inet": without brackets, and empty when inet_interfaces says where
  std::string port{};    ///< for "inet": numeric, unless nobody knows the name
};

/// The parameters of main.cf, and the services of master.cf in their order.
struct PostfixConfig {
  Parameters parameters;
  std::vector<PostfixService> services;

  /// The value in main.cf; empty when there is none.
  std::string Value(const std::string& name) const;

  /// The value for a service.
  std::string Value(const PostfixService& service, const std::string& name) const;

  /// The parameters, and the services' own options by "SERVICE/TYPE/NAME" (postconf(1), -P).
  Parameters AllValues() const;
};

/// The parameters of a text like main.cf, or like what postconf(1) prints. A line that begins with a blank
/// continues the one before.
Parameters ParseParameters(const std::string& text);

/// The services of a text like master.cf, or like what `postconf -M` prints.
std::vector<PostfixService> ParseServices(const std::string& text);

/// All parameters of the main.cf in a directory, with the values of $name in them. Throws Fault when Postfix
/// cannot read the file.
Parameters PostfixParameters(const std::string& directory);

/// The same with the services. Throws Fault when Postfix cannot read the directory's main.cf or master.cf.
PostfixConfig ReadPostfix(const std::string& directory);

/// How a service of smtpd(8) or postscreen(8) uses TLS: not at all; when the client wants (STARTTLS); for all
/// mail; or from the first byte.
enum class TlsUse { kNever, kOffered, kRequired, kImplicit };
TlsUse TlsOf(const PostfixConfig& config, const PostfixService& service);

/// The number of a TCP port: services(5) knows names. What is no name is returned as it is.
std::string PortNumber(const std::string& port);

/// The domains in mydestination, myhostname first where it is one of them. At least one.
std::vector<std::string> LocalDomains(const Parameters& mainCf);

/// A program that a value names: "inet:HOST:PORT", "smtp:[HOST]:PORT", "unix:PATH", "local:PATH", ...
struct Peer {
  std::string via;   ///< the words before: "inet", "lmtp:unix"
  std::string host;  ///< without brackets
  std::string port;  ///< empty when there is none
  std::string path;  ///< of a UNIX socket; may be relative to the queue
};

/// The peer that one word names; without a port and without a path, the word is a host.
Peer ParsePeer(const std::string& word);

/// The words of a value, without blanks, commas and braces.
std::vector<std::string> ListWords(const std::string& value);

/// The peers among its words: those that have a numeric port or a path.
std::vector<Peer> PeersIn(const std::string& value);

/// True when one of the peers has this port.
bool HasPeer(const std::string& value, const std::string& port);

/// Changes a parameter of target/etc/main.cf.
void SetParameter(const std::string& name, const std::string& value);

/// The command that names what is wrong in target/etc/main.cf, and the one that prints Postfix's version.
std::vector<std::string> MainCfCheck();
std::vector<std::string> PostfixVersionCommand();

/// Makes a file of Postfix ten seconds old: Postfix's programs would wait until it is two seconds old, since
/// they cannot know that it is whole.
void SkipSettleTime(const std::string& path);
