// FilePlugin on files of a temporary directory.

#include "plugins/file_plugin.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

namespace emberline {
namespace {

class FilePluginTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/emberline-files.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(dir); }

  std::string write(const std::string& name, const std::string& text) {
    std::ofstream(dir + "/" + name, std::ios::trunc) << text;
    return dir + "/" + name;
  }

  std::string dir;
};

TEST_F(FilePluginTest, InitAcceptsPathsInOrderAndStopsAtTheFirstItCannotOpen) {
  const std::string a = write("a", "1"), b = dir + "/missing", c = write("c", "3");
  FilePlugin plugin({a, b, c});
  testing::internal::CaptureStderr();
  EXPECT_FALSE(plugin.init());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Adding file: " + a + "\nERROR: Couldn't open file: " + b + "\n");
  plugin.on_output();
  EXPECT_EQ(plugin.to_str(), a + ": 1");
}

TEST_F(FilePluginTest, ShowsWholeContentWithoutTrailingWhiteSpaceAndKeepsItWhenUnreadable) {
  const std::string a = write("a", ""), b = write("b", "");
  FilePlugin plugin({a, b, a});
  testing::internal::CaptureStderr();
  ASSERT_TRUE(plugin.init());
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(plugin.to_str(), a + ": null | " + b + ": null");
  struct Step {
    std::optional<std::string> a, b;  // nullopt: the file is gone
    std::string report;
  } steps[] = {
      {"42\n", " \t\r\n", a + ": 42 | " + b + ": "},
      {"two\n lines \t\r\n", "", a + ": two\n lines | " + b + ": "},
      {std::nullopt, "x y", a + ": two\n lines | " + b + ": x y"},
      {"\tback", std::nullopt, a + ": \tback | " + b + ": x y"},
  };
  for (const auto& s : steps) {
    for (const auto& [path, text] : {std::pair{a, s.a}, std::pair{b, s.b}}) {
      if (text) {
        std::ofstream(path, std::ios::trunc) << *text;
      } else {
        std::filesystem::remove(path);
      }
    }
    ASSERT_TRUE(plugin.on_output());
    EXPECT_EQ(plugin.to_str(), s.report);
  }
}

}  // namespace
}  // namespace emberline
