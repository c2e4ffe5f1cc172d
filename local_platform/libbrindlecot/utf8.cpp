#include "libbrindlecot/utf8.h"

#include <locale.h>
#include <wctype.h>

#include <cstddef>

namespace {

constexpr char32_t kInvalid = 0xffffffff;

/// Removes the first character from `text` and returns it, or kInvalid.
char32_t TakeCharacter(std::string_view& text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  const std::size_t length = lead < 0x80 ? 1 : lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  if (length == 0 || text.size() < length) {
    return kInvalid;
  }
  char32_t character = length == 1 ? lead : lead & (0x7fU >> length);
  for (const char c : text.substr(1, length - 1)) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xc0) != 0x80) {
      return kInvalid;
    }
    character = character << 6 | (byte & 0x3f);
  }
  const bool overlong = (length == 3 && character < 0x800) || (length == 4 && character < 0x10000);
  const bool surrogate = character >= 0xd800 && character < 0xe000;
  if (overlong || surrogate || lead > 0xf4 || character > 0x10ffff) {
    return kInvalid;
  }
  text.remove_prefix(length);
  return character;
}

/// `character` in the one case that it is compared in.
char32_t Folded(char32_t character) {
  if (character < 0x80) {
    return character >= U'A' && character <= U'Z' ? character - U'A' + U'a' : character;
  }
  static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  // The dotted and the dotless i have counterparts in Turkish alone: to Postfix each is its own letter.
  if (unicode == nullptr || character == U'\u0130' || character == U'\u0131') {
    return character;
  }
  const wint_t upper = towupper_l(static_cast<wint_t>(character), unicode);
  return static_cast<char32_t>(towlower_l(upper, unicode));
}

}  // namespace

bool IsText(std::string_view text) {
  while (!text.empty()) {
    const char32_t character = TakeCharacter(text);
    if (character == kInvalid || character < 0x20 || character == 0x7f) {
      return false;
    }
  }
  return true;
}

std::u32string FoldCase(std::string_view text) {
  std::u32string folded;
  while (!text.empty()) {
    const char32_t character = TakeCharacter(text);
    if (character == U'\u00df' || character == U'\u1e9e') {  // sharp s
      folded += U"ss";
    } else {
      folded += Folded(character);
    }
  }
  return folded;
}
