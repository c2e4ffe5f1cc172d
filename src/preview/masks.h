/// Hides the secrets that generated files hold: the relay's login and the passwords for a directory, also
/// where a customisation names them.
#pragma once

#include <set>
#include <string>

/// What is shown in place of a secret.
inline constexpr const char* kMask = "********";

/// Learns the secrets in files, and masks them in the output of programs.
class Masks {
 public:
  /// True when the generated file of this name may hold secrets.
  static bool MayHaveSecrets(const std::string& name);

  /// Learns the secrets in the text of the generated file of this name.
  void Learn(const std::string& name, const std::string& text);

  /// The text of the generated file of this name without its secrets. In sasl_passwd and its table, a secret
  /// is what follows the first blank or tab of a line. In other files it is what follows `bind_pw =` or
  /// `password =` with whatever stands before that word, `static:` before USER:PASSWORD, and `static:` or
  /// `inline:` in a parameter of password maps; to the end of the parameter, with the lines that continue it.
  static std::string MaskFile(const std::string& name, const std::string& text);

  /// One line that a program printed, without the learned secrets, without what MaskFile would hide in it and
  /// without what postmap(1) quotes of sasl_passwd. Learned secrets of up to five bytes are not searched for:
  /// they may be parts of other words, and hiding those would give the secret away.
  std::string MaskLine(std::string line) const;

 private:
  std::set<std::string> secrets_;
};
