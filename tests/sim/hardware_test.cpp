// The simulated bandwidth-monitor driver: its settings as the tool writes them, and the samples it
// keeps.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "model.h"
#include "profile.h"
#include "state_dir.h"
#include "write_recorder.h"

namespace emberline::sim {
namespace {

const std::string kBwProf = "/sys/devices/system/cpu/bw_prof/";

std::string render(const Profile& profile, const std::string& path, const DeviceState& s) {
  for (const Node& n : profile.nodes) {
    if (n.path == path) return n.render ? n.render(s) : n.content;
  }
  return "<absent>";
}

int lines(const std::string& text) {
  return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

TEST(BandwidthMonitor, SamplesAtItsPeriodOnlyWhileEnabled) {
  const Profile& profile = *find_profile("fennick");
  DeviceModel model(profile.model, 1);
  auto list = [&](int m) {
    return render(profile, kBwProf + "bwmon" + std::to_string(m) + "/last_sample", model.state());
  };
  auto step = [&](int steps) {
    for (int i = 0; i < steps; ++i) model.step();
  };
  step(50);
  EXPECT_EQ(list(0), "");

  model.node_written(kBwProf + "sample_ms", "30");
  model.node_written(kBwProf + "bwmon2/mon_enabled", "1");
  step(9);  // 90 ms: three samples at a 30 ms period
  EXPECT_EQ(lines(list(2)), 3);
  EXPECT_EQ(list(0), "");
  model.node_written(kBwProf + "sample_ms", "0");  // refused: the period stays 30 ms
  step(3);
  EXPECT_EQ(lines(list(2)), 4);
  model.node_written(kBwProf + "sample_ms", "1\n");
  step(10);  // the list keeps only the most recent samples
  EXPECT_EQ(lines(list(2)), BwMonState::kKeep);
  std::istringstream first(list(2));
  unsigned sequence = 0, used = 0, available = 0, ddr = 0;
  first >> std::hex >> sequence >> used >> available >> ddr;
  EXPECT_EQ(sequence, 104u - BwMonState::kKeep + 1);
  EXPECT_GT(used, 0u);
  EXPECT_EQ(available, ddr * 16);

  model.node_written(kBwProf + "bwmon2/mon_enabled", "0");
  EXPECT_EQ(list(2), "");
}

}  // namespace
}  // namespace emberline::sim
