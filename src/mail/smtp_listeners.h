/// The listeners of master.cf that speak SMTP.
#pragma once

#include <string>
#include <vector>

#include "mail/postfix_config.h"

struct SmtpListener {
  std::string name;                  ///< as in master.cf: a port, or HOST:PORT
  std::string port;                  ///< numeric
  std::string reachableAt;           ///< an address at which this machine reaches it
  std::vector<std::string> outside;  ///< addresses at which other machines reach it: an IPv4 one, an IPv6 one
  bool implicitTls;                  ///< TLS from the first byte
  bool startTls;                     ///< STARTTLS has to be offered
  bool requiresTls;                  ///< nothing goes without TLS
  bool closed;  ///< by options of its own, it takes mail from some alone, such as those who have logged in
  bool offersLogin;

  /// The beginning of a URL with an address of the listener, up to the name for EHLO.
  std::string Url(const std::string& address) const;
};

/// All of them.
std::vector<SmtpListener> SmtpListeners(const PostfixConfig& config);

/// True when a host and a port are those of one of the listeners.
bool IsOwn(const std::vector<SmtpListener>& listeners, const std::string& host, const std::string& port);
