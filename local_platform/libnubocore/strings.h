/// The library's string hashes and lists, for its own sources.
#pragma once

#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/nubocore.h"

struct ZELBCSzHash {
  struct Entry {
    std::string key;
    std::string value;
  };
  std::list<Entry> entries;                            ///< in the order of their first insertion
  std::unordered_map<std::string_view, Entry*> byKey;  ///< keys and addresses of the list's entries

  /// The entry of `key`; null when there is none.
  Entry* Find(std::string_view key) const;

  /// Sets `key` to `value`, in its present place or, when it is new, at the end.
  void Set(std::string_view key, std::string_view value);
};

/// Appends a copy of `text` to `list`. False, with the list as it was, when memory is exhausted.
bool AppendToList(ZELBCSzList& list, const char* text);
