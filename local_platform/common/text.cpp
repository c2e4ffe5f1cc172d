#include "common/text.h"

#include <cstddef>

std::string_view Trim(std::string_view text) {
  constexpr const char* kSpace = " \t\r\n";
  const size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::string_view TakeLine(std::string_view& text) {
  const size_t end = text.find('\n');
  const std::string_view line = text.substr(0, end == std::string_view::npos ? end : end + 1);
  text.remove_prefix(line.size());
  return line;
}

int CopyToBuffer(std::string_view value, char* buffer, int size) {
  if (size <= 0) return -1;
  buffer[0] = '\0';
  if (value.size() >= static_cast<size_t>(size) || value.find('\0') != std::string_view::npos) return -1;
  buffer[value.copy(buffer, value.size())] = '\0';
  return static_cast<int>(value.size());
}
