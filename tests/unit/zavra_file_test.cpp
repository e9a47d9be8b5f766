// The vendor's whole-file helpers, as the DRAM plugin relies on them.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/zavra_os/zavra_os.h"

namespace {

using Zavra::OS::File::ReadText;
using Zavra::OS::File::WriteText;

class ZavraFile : public testing::Test {
 protected:
  ZavraFile() { std::filesystem::create_directories(dir); }
  ~ZavraFile() override { std::filesystem::remove_all(dir); }
  std::string read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  const std::string dir = testing::TempDir() + "zavra-file-" + std::to_string(getpid());
};

TEST_F(ZavraFile, ReadTextGivesTheWholeTextUpToItsLimit) {
  const std::string path = dir + "/node";
  std::ofstream(path) << "50\n";
  EXPECT_EQ(ReadText(path, 3), "50\n");
  EXPECT_EQ(ReadText(path, 2), std::nullopt);
  EXPECT_EQ(ReadText(dir + "/absent", 100), std::nullopt);
  std::string big(10000, 'x');
  std::ofstream(path) << big;
  EXPECT_EQ(ReadText(path, 0xA00000), big);
}

TEST_F(ZavraFile, WriteTextReplacesOrAppendsButNeverCreates) {
  const std::string path = dir + "/node";
  std::ofstream(path) << "100\n";
  EXPECT_EQ(WriteText(path, "7", false), 0);
  EXPECT_EQ(read(path), "7");
  EXPECT_EQ(WriteText(path, "8", true), 0);
  EXPECT_EQ(read(path), "78");
  EXPECT_EQ(WriteText(dir + "/absent", "1", false), ENOENT);
  EXPECT_FALSE(std::filesystem::exists(dir + "/absent"));
  EXPECT_EQ(WriteText(dir, "1", false), EISDIR);
}

}  // namespace
