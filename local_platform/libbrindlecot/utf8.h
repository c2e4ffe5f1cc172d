/// Text in settings files: what is allowed, and which names are equal to Postfix.
#pragma once

#include <string>
#include <string_view>

/// True when `text` is valid UTF-8 (RFC 3629: no overlong form, surrogate or value above U+10FFFF) without
/// control characters (below 0x20, or 0x7f).
bool IsText(std::string_view text);

/// `text`, which is valid UTF-8, without the difference of upper and lower case. Two names with the same
/// result are one lookup key to postalias(1) and postmap(1). These also turn about a hundred characters into
/// several letters each, as Unicode says; of those only the sharp s is treated so here.
std::u32string FoldCase(std::string_view text);
