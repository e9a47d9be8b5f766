#include "model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "profile.h"

namespace emberline::sim {
namespace {

constexpr int kMinute = 6000;  // steps

class ModelTest : public testing::TestWithParam<std::tuple<std::string, std::uint64_t>> {
 protected:
  const ModelParams& params() const { return find_profile(std::get<0>(GetParam()))->model; }
  DeviceModel model{params(), std::get<1>(GetParam())};
};

TEST_P(ModelTest, SuspendingChargingTurnsTheBatteryCurrentToDischarge) {
  DeviceModel twin(params(), std::get<1>(GetParam()));
  for (bool suspended : {false, true, false}) {
    model.set_charging_suspended(suspended);
    twin.set_charging_suspended(suspended);
    for (int i = 0; i < kMinute; ++i) {
      model.step();
      twin.step();
      const DeviceState& s = model.state();
      ASSERT_EQ(s.battery_a, twin.state().battery_a) << "one seed, one run";
      ASSERT_EQ(s.charging, !suspended) << "step " << model.steps();
      if (suspended) {
        ASSERT_GT(s.battery_a, 0) << "step " << model.steps();
        ASSERT_EQ(s.usb_a, 0) << "step " << model.steps();
      } else {
        ASSERT_LT(s.battery_a, 0) << "step " << model.steps();
        ASSERT_GT(s.usb_a, 0) << "step " << model.steps();
        // What the charger delivers is what the system and the battery take.
        double delivered = s.usb_v * s.usb_a * params().power.charger_efficiency;
        ASSERT_NEAR(delivered, s.battery_v * (s.system_a - s.battery_a), 1e-9);
      }
    }
  }
}

TEST_P(ModelTest, BatteryCurrentAndVoltageFollowTheLoad) {
  for (bool suspended : {false, true}) {
    model.set_charging_suspended(suspended);
    double current[2] = {}, voltage[2] = {};
    int count[2] = {};
    for (int i = 0; i < 2 * kMinute; ++i) {
      model.step();
      const DeviceState& s = model.state();
      if (s.load != 0 && s.load < 0.5) continue;
      int busy = s.load != 0;
      current[busy] += s.battery_a;
      voltage[busy] += s.battery_v;
      ++count[busy];
    }
    ASSERT_GT(count[0], 0);
    ASSERT_GT(count[1], 0);
    EXPECT_GT(current[1] / count[1] - current[0] / count[0], 0.3 * params().power.load_a);
    EXPECT_LT(voltage[1] / count[1], voltage[0] / count[0]);
  }
}

INSTANTIATE_TEST_SUITE_P(Profiles, ModelTest,
                         testing::Combine(testing::Values("generic", "fennick", "brantley"),
                                          testing::Values(1, 7, 12345)),
                         [](const auto& info) {
                           return std::get<0>(info.param) + "_seed" +
                                  std::to_string(std::get<1>(info.param));
                         });

}  // namespace
}  // namespace emberline::sim
