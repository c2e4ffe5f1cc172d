/// Text that the libraries of the local platform read from files and hand out in buffers.
#pragma once

#include <string_view>

/// `text` without the blanks, tabs and line ends (LF, CRLF, CR) at its two ends.
std::string_view Trim(std::string_view text);

/// Takes the first line off `text`, which is not empty, and returns it with its line end, if it has one.
std::string_view TakeLine(std::string_view& text);

/// Copies `value` into `buffer` of `size` bytes, NUL-terminated, and returns its length. A value that does
/// not fit or holds a NUL byte is never cut: -1, and an empty string in the buffer.
int CopyToBuffer(std::string_view value, char* buffer, int size);
