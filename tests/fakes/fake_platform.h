/// A platform for tests, linked in the place of the four libraries: it answers from what a test
/// prepared, records every call in order, and can let any of them fail.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/brindlecot.h"

struct FakePlatform {
  /// By settings object ("smtp", "scanner", "imap_pop3") and key.
  std::map<std::string, std::map<std::string, boost::any>> settings;
  std::list<std::string> domains;
  std::list<std::pair<std::string, std::string>> dnsbl;
  std::vector<std::string> users;
  /// Values of the LDAP client ("uri", "base", "binddn", "secret"), of the package settings file
  /// ("domain_alias_map") and of the domain ("user", "password", "joined").
  std::map<std::string, std::string> values;
  /// What `net ads info` (as key=value lines) and `net ads search` print.
  std::string info;
  std::string search;
  std::set<std::string> failing;  ///< names of calls that fail
  int failAt = 0;                 ///< number of the call that fails, from 1; 0 for none

  std::string trace;  ///< every call and log line, in their order
  int calls = 0;      ///< calls that could have failed so far

  /// The trace, with the lines logged since the last call.
  const std::string& Trace();
  void Record(const std::string& call);
  /// Records a call and says whether it is to fail.
  bool Fails(const std::string& name, const std::string& arguments);
};

extern FakePlatform fake;

/// A fake platform with every setting at its default.
FakePlatform DefaultPlatform();

/// Runs the program, its entry included, with these arguments. Returns its exit status.
int RunProgram(const std::vector<std::string>& arguments);
