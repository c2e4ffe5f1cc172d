#include "libbrindlecot/utf8.h"

#include <locale.h>
#include <wctype.h>

#include <boost/locale/utf.hpp>

namespace {

using Utf8 = boost::locale::utf::utf_traits<char>;

// Both cases of a letter give the same result.
char32_t FoldCharacter(char32_t character) {
  if (character < 0x80) return character >= U'A' && character <= U'Z' ? character - U'A' + U'a' : character;
  static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  // The dotted and the dotless i are the same letter in Turkish only; Postfix keeps them apart.
  if (unicode == nullptr || character == U'\u0130' || character == U'\u0131') return character;
  const wint_t upper = towupper_l(static_cast<wint_t>(character), unicode);
  return static_cast<char32_t>(towlower_l(upper, unicode));
}

}  // namespace

bool IsText(std::string_view text) {
  for (auto next = text.begin(); next != text.end();) {
    const auto character = Utf8::decode(next, text.end());
    if (!boost::locale::utf::is_valid_codepoint(character) || character < 0x20 || character == 0x7f) {
      return false;
    }
  }
  return true;
}

std::u32string FoldCase(std::string_view text) {
  std::u32string folded;
  for (auto next = text.begin(); next != text.end();) {
    const char32_t character = Utf8::decode_valid(next);
    if (character == U'\u00df' || character == U'\u1e9e') {  // sharp s
      folded += U"ss";
    } else {
      folded += FoldCharacter(character);
    }
  }
  return folded;
}
