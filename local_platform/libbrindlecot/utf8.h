/// Text in settings files: which text is allowed, and which names are the same to Postfix.
#pragma once

#include <string>
#include <string_view>

/// True when `text` is valid UTF-8 (RFC 3629: no overlong form, surrogate or value above U+10FFFF) without
/// control characters (below 0x20, or 0x7f).
bool IsText(std::string_view text);

/// Folds the case of `text`, which is valid UTF-8. Two names with the same result are one lookup key to
/// postalias(1) and postmap(1). These programs fold about a hundred characters to several letters each, as
/// Unicode says; this function does so for the sharp s only.
std::u32string FoldCase(std::string_view text);
