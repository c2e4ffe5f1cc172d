#include "libnubocore/string_list.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory_resource>
#include <new>

namespace {

/// The list as the library makes it. A domain may have a million users, so their names stand one behind the
/// other, and are given back at once.
struct List : ZELBCSzList {
  std::pmr::monotonic_buffer_resource texts;
};

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
  const std::size_t size = std::strlen(text) + 1;
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
