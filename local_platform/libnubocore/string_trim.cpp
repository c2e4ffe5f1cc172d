#include <cctype>
#include <cstddef>
#include <cstring>

#include "platform/nubocore.h"

char* ZELBCStrTrimSpace(char* text, int /*flags*/) {
  const auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  const char* first = text;
  while (isSpace(*first)) {
    ++first;
  }
  std::size_t length = std::strlen(first);
  while (length > 0 && isSpace(first[length - 1])) {
    --length;
  }
  std::memmove(text, first, length);
  text[length] = '\0';
  return text;
}
