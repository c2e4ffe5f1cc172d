/// Text in settings files: what is allowed there, and when two names are the same one to Postfix.
#pragma once

#include <string>
#include <string_view>

/// Whether `text` is valid UTF-8 (RFC 3629: no overlong form, surrogate or value above U+10FFFF) without
/// control characters (below 0x20, or 0x7f).
bool IsText(std::string_view text);

/// `text`, which is valid UTF-8, folded so that two names are equal when postalias(1) and postmap(1)
/// make one lookup key of them. Those fold as Unicode says in full; here, of the characters that fold
/// to several, only the sharp s does.
std::u32string FoldCase(std::string_view text);
