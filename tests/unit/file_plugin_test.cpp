// FilePlugin on files of a temporary directory.

#include "plugins/file_plugin.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

namespace emberline {
namespace {

TEST(FilePlugin, ShowsFilesWithoutTrailingWhiteSpaceAndKeepsTheLastContent) {
  char dir[] = "/tmp/emberline-files.XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string a = std::string(dir) + "/a", b = std::string(dir) + "/b";
  auto put = [](const std::string& path, const std::optional<std::string>& text) {
    if (!text) std::filesystem::remove(path);  // unreadable from now on
    if (text) std::ofstream(path, std::ios::trunc) << *text;
  };
  put(a, "");
  put(b, "");
  testing::internal::CaptureStderr();
  FilePlugin missing({a, std::string(dir) + "/none", b});
  EXPECT_FALSE(missing.init());
  FilePlugin plugin({a, b, a});  // the second a shows only once
  EXPECT_TRUE(plugin.init());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Adding file: " + a + "\nERROR: Couldn't open file: " + dir +
                "/none\nAdding file: " + a + "\nAdding file: " + b + "\nAdding file: " + a + "\n");
  EXPECT_EQ(plugin.to_str(), a + ": null | " + b + ": null");
  struct Step {
    std::optional<std::string> a, b;
    std::string report;
  } steps[] = {
      {"42\n", " \t\r\n", a + ": 42 | " + b + ": "},
      {"two\n lines \t\r\n", "", a + ": two\n lines | " + b + ": "},
      {std::nullopt, "x y", a + ": two\n lines | " + b + ": x y"},
      {"\tback", std::nullopt, a + ": \tback | " + b + ": x y"},
  };
  for (const auto& s : steps) {
    put(a, s.a);
    put(b, s.b);
    ASSERT_TRUE(plugin.on_output());
    EXPECT_EQ(plugin.to_str(), s.report);
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace emberline
