/// What stands behind the library's opaque string hash.
#pragma once

#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

struct ZELBCSzHash {
  struct Entry {
    std::string key;
    std::string value;
  };
  std::list<Entry> entries;  ///< in the order of their first insertion; none ever moves
  std::unordered_map<std::string_view, Entry*> byKey;  ///< views the entries' keys

  /// The entry of `key`; null when there is none.
  Entry* Find(std::string_view key) const;

  /// Gives `key` its value, in the place that it has or at the end.
  void Set(std::string_view key, std::string_view value);
};
