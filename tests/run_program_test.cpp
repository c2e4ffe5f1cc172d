#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <regex>

#include "platform/nubocore.h"
#include "recorded_syslog.h"

namespace {

// A program's status is easily lost where signals interrupt the wait or SIGCHLD is ignored.
TEST(RunProgramTest, Results) {
  struct sigaction tick = {};
  tick.sa_handler = [](int) {};
  sigaction(SIGALRM, &tick, nullptr);
  std::signal(SIGCHLD, SIG_IGN);
  ualarm(1000, 1000);
  // Under an emulator vfork(2) is a fork, and the child can only exit to say that it found no program.
  const bool emulated = std::getenv("EMULATOR") != nullptr;
  const struct {
    const char* program;
    const char* script;
    std::vector<std::string> log;
  } rows[] = {
      {"/bin/sh", "sleep 0.05; test \"$0|$1|$#\" = 'a b||1'", {}},
      {"/bin/sh", "exit 3", {"/bin/sh: exit status 3"}},
      {"/bin/sh", "kill -9 $$", {"/bin/sh: killed by signal 9"}},
      {"/bin/none",
       "",
       {emulated ? "/bin/none: exit status 127" : "/bin/none: could not be run: No such file or directory"}},
  };
  for (const auto& row : rows) {
    RecordedLog().clear();
    EXPECT_EQ(ZELBCExec(row.program, "-c", row.script, "a b", ""), row.log.empty() ? 0 : -1);
    EXPECT_EQ(RecordedLog(), row.log);
    EXPECT_EQ(ZELBCExecl(row.program, 187, "-c", row.script, "a b", "", nullptr) == 0, row.log.empty());
  }
  ualarm(0, 0);
  EXPECT_EQ(std::signal(SIGCHLD, SIG_DFL), SIG_IGN);
}

// Closes the descriptors whose bits are set, then tells whether a program is given the right ones.
bool DescriptorsAreRight(unsigned closed) {
  std::string error = std::filesystem::read_symlink("/proc/self/fd/2");
  dup2(1, 9);  // passed on to no program
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

TEST(RunProgramTest, EndlessOutput) {
  RecordedLog().clear();
  EXPECT_EQ(ZELBCPopen("/bin/sh", "r", "-c", "yes; true", nullptr), nullptr);
  EXPECT_EQ(RecordedLog(), std::vector<std::string>{"/bin/sh: killed after 8 MB of output"});
}

}  // namespace
