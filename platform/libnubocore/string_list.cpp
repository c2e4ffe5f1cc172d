#include "libnubocore/string_list.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

/// Grows `list` to `capacity` items.
bool Grow(ZELBCSzList& list, int capacity) {
  auto* items = static_cast<char**>(
      reallocarray(static_cast<void*>(list.items), static_cast<std::size_t>(capacity), sizeof(char*)));
  if (items == nullptr) {
    return false;
  }
  list.items = items;
  list.capacity = capacity;
  return true;
}

}  // namespace

ZELBCSzList* ZELBCSzListAlloc(int capacity) {
  auto* list = static_cast<ZELBCSzList*>(std::calloc(1, sizeof(ZELBCSzList)));
  if (list != nullptr && !Grow(*list, std::max(capacity, 1))) {
    std::free(list);
    return nullptr;
  }
  return list;
}

bool AppendToList(ZELBCSzList& list, const char* text) {
  if (list.count == list.capacity && (list.capacity > INT_MAX / 2 || !Grow(list, list.capacity * 2))) {
    return false;
  }
  char* copy = strdup(text);
  if (copy == nullptr) {
    return false;
  }
  list.items[list.count++] = copy;
  return true;
}

void ZELBCSzListFree(ZELBCSzList* list) {
  if (list == nullptr) {
    return;
  }
  for (int i = 0; i < list->count; ++i) {
    std::free(list->items[i]);
  }
  std::free(static_cast<void*>(list->items));
  std::free(list);
}
