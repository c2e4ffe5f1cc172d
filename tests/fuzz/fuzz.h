/// What the fuzz targets share. They write at the program's own paths: they are for a private machine.
#pragma once

#undef NDEBUG
#include <cassert>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "recorded_syslog.h"

/// Asserts what holds for every input.
void Try(const std::string& input);

extern "C" [[gnu::used]] inline int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  RecordedLog().clear();
  Try({reinterpret_cast<const char*>(data), size});
  return 0;
}

inline void Put(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline std::string Slurp(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The parts of `text` between the separators: one at least.
inline std::vector<std::string> Split(std::string_view text, std::string_view separator) {
  std::vector<std::string> parts;
  for (std::size_t end = 0; end != std::string_view::npos;) {
    end = text.find(separator);
    parts.emplace_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? 0 : end + separator.size());
  }
  return parts;
}
