/// Cases of the local platform that no run of the program can be made to show.
#include <gtest/gtest.h>
#include <pwd.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <regex>

#include "core/config_generator.h"
#include "platform/nubocore.h"

namespace {

// A user database that ends after some of its users.
struct {
  std::vector<std::string> users;
  int errorAtEnd;
  bool isGone;
  int listed;  ///< -1 for a failure
} databases[] = {
    {{"root", "D\\a", "other", "d\\b"}, 0, false, 2},
    {{"root", "D\\a"}, ENOENT, false, 1},  // as the last source may set it
    {{"root", "D\\a"}, EIO, false, -1},
    {{}, ECONNREFUSED, false, -1},
    {{"root", "D\\a"}, 0, true, -1},
};
auto* database = std::begin(databases);
std::size_t next;
passwd entry;

}  // namespace

extern "C" void setpwent() { next = 0; }

extern "C" passwd* getpwent() {
  if (next == database->users.size()) return errno = database->errorAtEnd, nullptr;
  entry.pw_name = database->users[next++].data();
  return &entry;
}

extern "C" passwd* getpwnam(const char* name) {
  const bool gone = database != std::end(databases) && database->isGone;
  return gone || name == std::string("no-such") ? nullptr : &entry;
}

namespace {

// With an incomplete list users would lose mail, so the old table stays.
TEST(UserEnumTest, EndsEarly) {
  for (; database != std::end(databases); ++database) {
    ZELBCSzList* list = ZELBCSzListAlloc(1);
    EXPECT_EQ(ZELBUserEnum(&list, 2, "D") < 0 ? -1 : list->count, database->listed);
    ZELBCSzListFree(list);
  }
}

TEST(ReadTest, Mistyped) {
  openlog("", LOG_PERROR, LOG_USER);
  testing::internal::CaptureStderr();
  Postfix smtp;
  EXPECT_THROW(GetBool(smtp, "b"), boost::bad_any_cast);
  EXPECT_THROW(GetInt(smtp, "i"), boost::bad_any_cast);
  EXPECT_THROW(GetString(smtp, "s"), boost::bad_any_cast);
  const std::string line = ": config_generator:71 setting [bis]: expected a value of type ";
  const std::string logged = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(std::regex_match(logged, std::regex(line + "bool\n" + line + "int\n" + line + "string\n")))
      << logged;
}

// Closes the descriptors whose bits are set. True when a program then gets the right ones.
bool DescriptorsAreRight(unsigned closed) {
  std::string error = std::filesystem::read_symlink("/proc/self/fd/2");
  dup2(1, 9);  // no program may get it
  for (int fd = 0; fd < 3; ++fd) {
    if ((closed >> fd & 1U) != 0) close(fd);
  }
  error = (closed & 4U) != 0 ? "/dev/null" : error;
  FILE* links = ZELBCPopen("/bin/readlink", "r", "/proc/self/fd/0", "/proc/self/fd/1", "/proc/self/fd/2",
                           "/proc/self/fd/9", nullptr);
  std::string seen(1000, '\0');
  seen.resize(fread(seen.data(), 1, seen.size(), links));
  return ZELBCPclose(links) == 0 && std::regex_match(seen, std::regex("/dev/null\npipe:.*\n" + error + "\n"));
}

TEST(RunProgramTest, Descriptors) {
  for (unsigned closed = 0; closed < 8; ++closed) {
    EXPECT_EXIT(_exit(DescriptorsAreRight(closed) ? 0 : 1), testing::ExitedWithCode(0), "") << closed;
  }
}

}  // namespace
