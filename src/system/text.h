/// Takes texts apart.
#pragma once

#include <string>
#include <vector>

/// The lines of a text, without their ends.
std::vector<std::string> Lines(const std::string& text);

/// The words of a text, between blanks, tabs, newlines and commas.
std::vector<std::string> Words(const std::string& text);

/// The text without blanks, tabs and newlines at its ends.
std::string Trim(const std::string& text);

/// True when the text begins with the prefix.
bool StartsWith(const std::string& text, const std::string& prefix);

/// True when the text ends with the suffix.
bool EndsWith(const std::string& text, const std::string& suffix);

/// True when the part stands anywhere in the text.
bool Contains(const std::string& text, const std::string& part);

/// True when the word is one of the words.
bool Contains(const std::vector<std::string>& words, const std::string& word);
