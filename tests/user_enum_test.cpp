#include <gtest/gtest.h>
#include <pwd.h>

#include <cerrno>
#include <string>

#include "platform/nubocore.h"
#include "recorded_syslog.h"

namespace {

// A user database that ends after some of its users.
std::vector<std::string> users;
std::size_t next;
int errorAtEnd;
bool isGone;
passwd entry;

}  // namespace

extern "C" void setpwent() { next = 0; }

extern "C" passwd* getpwent() {
  if (next == users.size()) {
    errno = errorAtEnd;
    return nullptr;
  }
  entry.pw_name = users[next++].data();
  return &entry;
}

extern "C" passwd* getpwnam(const char*) { return isGone ? nullptr : &entry; }

namespace {

// A list that is not whole would take users' mail away: better the old table.
TEST(UserEnumTest, EndsEarly) {
  const struct {
    std::vector<std::string> users;
    int errorAtEnd;
    bool isGone;
    std::string listed;  ///< empty for a failure
  } rows[] = {
      {{"root", "D\\a", "other", "d\\b"}, 0, false, "D\\a d\\b "},
      {{"root", "D\\a"}, ENOENT, false, "D\\a "},  // as the last source leaves it
      {{"root", "D\\a"}, EIO, false, ""},
      {{}, ECONNREFUSED, false, ""},
      {{"root", "D\\a"}, 0, true, ""},
  };
  for (const auto& row : rows) {
    users = row.users;
    errorAtEnd = row.errorAtEnd;
    isGone = row.isGone;
    RecordedLog().clear();
    ZELBCSzList* list = ZELBCSzListAlloc(1);
    const int result = ZELBUserEnum(&list, 2, "D");
    std::string listed;
    for (int i = 0; result >= 0 && i < list->count; ++i) listed += std::string(list->items[i]) + " ";
    EXPECT_EQ(listed, row.listed);
    EXPECT_EQ(RecordedLog().size(), row.listed.empty() ? 1 : 0);
    ZELBCSzListFree(list);
  }
}

}  // namespace
