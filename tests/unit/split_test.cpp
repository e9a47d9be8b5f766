#include <gtest/gtest.h>

#include "plugin.h"

namespace emberline {
namespace {

TEST(Split, DropsEmptyPiecesAndKeepsOrder) {
  struct Case {
    std::string text;
    std::vector<std::string> pieces;
  } cases[] = {
      {"a,,b,", {"a", "b"}}, {"", {}}, {",,,", {}}, {"abc", {"abc"}}, {",x,y", {"x", "y"}},
  };
  for (const auto& c : cases) EXPECT_EQ(utils::split(c.text, ','), c.pieces) << c.text;
}

}  // namespace
}  // namespace emberline
