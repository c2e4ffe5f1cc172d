#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "core/config_generator.h"
#include "recorded_syslog.h"

namespace {

// A directory of the test's own, left empty of everything when it ends.
class CopyTest : public testing::Test {
 protected:
  CopyTest() : folder_(testing::TempDir() + "copy.XXXXXX") {
    EXPECT_NE(mkdtemp(folder_.data()), nullptr);
    RecordedLog().clear();
  }
  ~CopyTest() override { std::filesystem::remove_all(folder_); }

  std::string Path(const std::string& name) const { return name[0] == '/' ? name : folder_ + "/" + name; }

 private:
  std::string folder_;
};

TEST_F(CopyTest, AnySize) {
  for (const size_t size : {0U, 1U, 1023U, 1024U, 1025U, 4096U}) {
    std::string content;
    while (content.size() < size) content += static_cast<char>(content.size() % 251);
    std::ofstream(Path("from")) << content;
    std::ofstream(Path("to")) << std::string(5000, 'x');
    chmod(Path("to").c_str(), 0600);
    EXPECT_EQ(CopyFile(Path("from").c_str(), Path("to").c_str()), 0);
    EXPECT_EQ(AppendFile(Path("from").c_str(), Path("to").c_str()), 0);
    std::ifstream copied(Path("to"), std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(copied), {}), content + content);
  }
  struct stat copied = {};
  ASSERT_EQ(stat(Path("to").c_str(), &copied), 0);
  EXPECT_EQ(copied.st_mode & 07777U, 0600U);
}

TEST_F(CopyTest, Failures) {
  const struct {
    int (*copy)(const char* source, const char* destination);
    const char* source;
    const char* destination;
    int result;
    std::vector<std::string> log;
  } rows[] = {
      {CopyFile, "none", "to", -1, {"config_generator:110 copy file error: No such file or directory"}},
      {CopyFile, "from", "no/to", -1, {"config_generator:110 copy file error: No such file or directory"}},
      {CopyFile, "/tmp", "to", -1, {"config_generator:110 copy file error: Is a directory"}},
      {CopyFile,
       "from",
       "/dev/full",
       kNotWhole,
       {"config_generator:329 write /dev/full fail, No space left on device"}},
      {AppendFile, "none", "to", -1, {"config_generator:140 copy file error: No such file or directory"}},
      {AppendFile, "from", "no/to", -1, {"config_generator:140 copy file error: No such file or directory"}},
      {AppendFile, "/tmp", "to", 0, {}},
  };
  std::ofstream(Path("from")) << "text";
  for (const auto& row : rows) {
    RecordedLog().clear();
    EXPECT_EQ(row.copy(Path(row.source).c_str(), Path(row.destination).c_str()), row.result);
    EXPECT_EQ(RecordedLog(), row.log) << row.source << " to " << row.destination;
  }
}

}  // namespace
