/// What the daemons' own checkers say of the new files.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "mail/postfix_config.h"
#include "system/program.h"

/// One check, and how it went.
struct Verdict {
  enum Word { kGood, kRefused, kNotInstalled, kWarning, kNotAsked };
  std::string by;  ///< a command line, or what was tried
  Word word;
  std::vector<std::string> said;  ///< may hold warnings even when the word is good
  std::string consequence{};      ///< one sentence: who cannot do what, or who can; may be empty
};

/// The verdict "good" or "refused"; a line that is said twice stands in it once.
Verdict Judge(const std::string& by, bool good, const std::vector<std::string>& said);

/// A checker that runs.
struct Checker {
  explicit Checker(const std::vector<std::string>& line) : command(line), program(line) {}

  std::vector<std::string> command;
  Program program;
};

/// Starts the checkers of the files that a command word generates. The checkers of a milter run only when
/// main.cf names the milter.
void StartCheckers(std::list<Checker>& checkers, const std::string& word);

/// Waits for their ends.
std::vector<Verdict> Verdicts(std::list<Checker>& checkers);

/// The new main.cf and master.cf; nothing when they cannot be read. They are read once.
const PostfixConfig& NewPostfix();

/// The parameters of the new main.cf.
inline const Parameters& MainCf() { return NewPostfix().parameters; }

/// The value of a parameter in the new main.cf; empty when there is none.
std::string MainParameter(const std::string& name);
