#include <gtest/gtest.h>

#include "system/files.h"
#include "system/program.h"
#include "system/text.h"
#include "system/wait.h"

TEST(Program, EndsWithItsGroupWhenItsTimeIsOver) {
  const auto begin = std::chrono::steady_clock::now();
  Program late({"sh", "-c", "sleep 60 & echo $!; wait"}, "", std::chrono::milliseconds(300));
  const ProgramResult ended = late.Wait();
  EXPECT_EQ(ended.status, kTooLate);
  EXPECT_EQ(ended.errors, "sh did not end within 0 s\n");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
  const auto gone = [&] {
    const std::string sleep = ReadFile("/proc/" + Trim(ended.output) + "/stat");
    return sleep.empty() || Contains(sleep, ") Z ");
  };
  EXPECT_TRUE(WaitFor(gone, std::chrono::seconds(5)));
}

TEST(Program, TellsHowItEnded) {
  EXPECT_EQ(RunProgram({"sh", "-c", "exit 3"}).status, 3);
  EXPECT_EQ(RunProgram({"sh", "-c", "kill -9 $$"}).status, 128 + 9);
  EXPECT_EQ(RunProgram({"cat"}, "text").output, "text");
  const ProgramResult missing = RunProgram({"/no-such"});
  EXPECT_EQ(missing.status, kNotRun);
  EXPECT_EQ(missing.errors, "/no-such: No such file or directory\n");
}
