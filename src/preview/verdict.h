/// What the daemons' own checkers say of the new files.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "preview/program.h"

/// What was asked or tried, and how that went.
struct Verdict {
  enum Word { kGood, kRefused, kNotInstalled };
  std::string by;  ///< a command line, or what was tried
  Word word;
  std::vector<std::string> said;  ///< may hold warnings where the word is good
};

/// The checkers of the files that the given command words generate.
class Checkers {
 public:
  /// Starts the one that takes long.
  explicit Checkers(const std::vector<std::string>& words);

  /// What all the others say. Those of the milters are asked when main.cf names the milter.
  std::vector<Verdict> Ask() const;

  /// What the one that takes long says. To be called once.
  std::vector<Verdict> AskLast();

 private:
  bool Checks(const char* word) const;

  std::vector<std::string> words_;
  std::optional<Program> lint_;
};

/// The value of a parameter of the new main.cf, which is read once.
std::string MainParameter(const std::string& name);

/// Whether the new main.cf lets Postfix ask the milter that listens on this port of the machine.
bool UsesMilter(const std::string& port);
