// On the six-core generation every cluster weighs 0.9345, the little one too.

#include <gtest/gtest.h>

#include "credits_helpers.h"

namespace {

TEST(CreditsReport, SixCoreChipWeighsTheLittleCluster) {
  // One tick at 300 MHz: 2.80 credits over a second here, 0.888 on an eight-core chip.
  e2e::Result result = credits::run_changing_after_first_snapshot(
      {"--no-power", "-c", "--credits", "-t", "1", "--json"},
      [] { credits::add_ticks(2890, 2890, 300000, 1); });
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(e2e::round_seconds(e2e::mask_times(result.out)),
            "{\"sequence\":1,\"timestamp\":1.000,\"device_timestamp\":<epoch>,"
            "\"credits\":{\"CPU\":{\"sh\":2}}}\n");
}

}  // namespace
