#include <gtest/gtest.h>

#include "system/address.h"
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
  EXPECT_EQ(RunProgram({"cat"}, "text").output, "text");
  const ProgramResult missing = RunProgram({"/no-such"});
  EXPECT_EQ(missing.status, kNotRun);
  EXPECT_EQ(missing.errors, "/no-such: No such file or directory\n");
}

TEST(Network, IsRead) {
  const std::pair<const char*, const char*> kCases[] = {
      {"192.0.2.0/24", "192.0.2.0/24"},
      {"10.1.2.3/20", "10.1.0.0/20 host bits"},
      {"[2001:db8::1]/29", "[2001:db8::]/29 host bits"},
      {"192.0.2.7", "192.0.2.7/32"},
      {"10.0.0.0/33", ""},
      {"10.0.0.0/", ""},
      {"10.0.0.0/8x", ""},
      {"hash:/etc/8", ""},
  };
  for (const auto& [text, read] : kCases) {
    const auto network = Network::Parse(text);
    EXPECT_EQ(network ? network->Text() + (network->HasHostBits() ? " host bits" : "") : "", read) << text;
  }
}

TEST(Network, CoversOthers) {
  const std::string all =
      "172.31.255.255 172.16.0.0/12 yes, 172.32.0.0 172.16.0.0/12 no, 10.0.0.0/8 10.0.0.0/8 yes, "
      "10.0.0.0/7 10.0.0.0/8 no, 192.0.2.3 0.0.0.0/0 yes, 192.0.2.3 ::/0 no, fdff::1 [fc00::]/7 yes, "
      "fe00:: [fc00::]/7 no, 192.0.2.3 192.0.2.2 no, localhost 0.0.0.0/0 no";
  const std::vector<std::string> words = Words(all);
  for (size_t i = 0; i < words.size(); i += 3) {
    EXPECT_EQ(IsIn(words[i], words[i + 1]) ? "yes" : "no", words[i + 2]) << words[i];
  }
}
