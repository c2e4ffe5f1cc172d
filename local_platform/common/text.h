/// Text, for the libraries of the local platform: lines of files, and callers' buffers.
#pragma once

#include <string_view>

/// `text` without the blanks, tabs and line ends (LF, CRLF, CR) at its two ends.
std::string_view Trim(std::string_view text);

/// Removes the first line from `text` and returns it with its line end, if it has one. Empty when `text` is.
std::string_view TakeLine(std::string_view& text);

/// Copies `value` into `buffer` of `size` bytes, NUL-terminated, and returns its length. When it does not fit
/// or holds a NUL byte: -1, and an empty string in the buffer. A value is never cut.
int CopyToBuffer(std::string_view value, char* buffer, int size);
