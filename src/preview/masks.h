/// Hides the secrets that generated files hold: the relay's login and the passwords for a directory.
#pragma once

#include <set>
#include <string>

/// What stands where a secret stood.
inline constexpr const char* kMask = "********";

/// Knows the secrets that it has seen in files, to hide them wherever a program may repeat them.
class Masks {
 public:
  /// Whether the generated file of this name may hold secrets.
  static bool HoldsSecrets(const std::string& name);

  /// Remembers the secrets in the text of the generated file of this name.
  void Learn(const std::string& name, const std::string& text);

  /// The text of the generated file of this name without its secrets: in sasl_passwd and its table, what
  /// stands behind the first blank or tab of a line; in a directory's table, what bind_pw is. Other files
  /// hold none.
  static std::string File(const std::string& name, const std::string& text);

  /// What a program said, in one line: without the secrets that were learned, and without what postmap(1)
  /// quotes of sasl_passwd. A learned secret of up to five bytes is left to the latter: it might be a part of
  /// any word, and the masks would tell it.
  std::string Said(std::string line) const;

 private:
  std::set<std::string> secrets_;
};
