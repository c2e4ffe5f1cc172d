#include "libnubocore/string_hash.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>

#include "platform/nubocore.h"

ZELBCSzHash::Entry* ZELBCSzHash::Find(std::string_view key) const {
  const auto found = byKey.find(key);
  return found == byKey.end() ? nullptr : found->second;
}

void ZELBCSzHash::Set(std::string_view key, std::string_view value) {
  if (Entry* entry = Find(key)) {
    entry->value = value;
    return;
  }
  Entry& entry = entries.emplace_back(Entry{std::string(key), std::string(value)});
  byKey.emplace(entry.key, &entry);
}

ZELBCSzHash* ZELBCSzHashAlloc(int capacity) {
  try {
    auto hash = std::make_unique<ZELBCSzHash>();
    hash->byKey.reserve(static_cast<std::size_t>(std::max(capacity, 0)));
    return hash.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

const char* ZELBCSzHashGetValue(const ZELBCSzHash* hash, const char* key) {
  const ZELBCSzHash::Entry* entry = hash->Find(key);
  return entry == nullptr ? nullptr : entry->value.c_str();
}

int ZELBCSzHashSetValue(ZELBCSzHash** hash, const char* key, const char* value) {
  (*hash)->Set(key, value);
  return 0;
}

void ZELBCSzHashFree(ZELBCSzHash* hash) { delete hash; }
