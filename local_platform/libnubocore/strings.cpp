#include "libnubocore/strings.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <memory_resource>
#include <new>

namespace {

// The list that ZELBCSzListAlloc returns. A domain may have a million users, so their names are stored one
// after the other and freed together.
struct List : ZELBCSzList {
  std::pmr::monotonic_buffer_resource texts;
};

// Grows `list` to `capacity` items.
bool Grow(ZELBCSzList& list, int capacity) {
  auto* items = static_cast<char**>(
      reallocarray(static_cast<void*>(list.items), static_cast<size_t>(capacity), sizeof(char*)));
  if (items == nullptr) return false;
  list.items = items;
  list.capacity = capacity;
  return true;
}

}  // namespace

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
    hash->byKey.reserve(static_cast<size_t>(std::max(capacity, 0)));
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

ZELBCSzList* ZELBCSzListAlloc(int capacity) {
  auto* list = new (std::nothrow) List{};
  if (list != nullptr && !Grow(*list, std::max(capacity, 1))) {
    delete list;
    return nullptr;
  }
  return list;
}

bool AppendToList(ZELBCSzList& list, const char* text) try {
  if (list.count == list.capacity && (list.capacity > INT_MAX / 2 || !Grow(list, list.capacity * 2))) {
    return false;
  }
  const size_t size = std::strlen(text) + 1;
  list.items[list.count] = static_cast<char*>(static_cast<List&>(list).texts.allocate(size, 1));
  std::memcpy(list.items[list.count++], text, size);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void ZELBCSzListFree(ZELBCSzList* list) {
  if (list != nullptr) {
    std::free(static_cast<void*>(list->items));
    delete static_cast<List*>(list);
  }
}

char* ZELBCStrTrimSpace(char* text, int /*flags*/) {
  const auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  const char* first = text;
  while (isSpace(*first)) {
    ++first;
  }
  size_t length = std::strlen(first);
  while (length > 0 && isSpace(first[length - 1])) {
    --length;
  }
  std::memmove(text, first, length);
  text[length] = '\0';
  return text;
}
