/// What the daemons' own checkers say of the new files.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "preview/program.h"

/// One check, and how it went.
struct Verdict {
  enum Word { kGood, kRefused, kNotInstalled };
  std::string by;  ///< a command line, or what was tried
  Word word;
  std::vector<std::string> said;  ///< may hold warnings even when the word is good
};

/// The checkers of the files that the given command words generate.
class Checkers {
 public:
  /// Starts the checker that takes long.
  explicit Checkers(const std::vector<std::string>& words);

  /// The verdicts of all others. The checkers of a milter run only when main.cf names the milter.
  std::vector<Verdict> Ask() const;

  /// The verdict of the checker that takes long. Call it once.
  std::vector<Verdict> AskLast();

 private:
  bool Checks(const char* word) const;

  std::vector<std::string> words_;
  std::optional<Program> lint_;
};

/// Makes a file ten seconds old: Postfix's programs would wait until it is two seconds old.
void Age(const std::string& path);

/// The value of a parameter in the new main.cf. The file is read once.
std::string MainParameter(const std::string& name);

/// True when the new main.cf names a milter on this port of the machine.
bool UsesMilter(const std::string& port);
