// -p in a frozen headset: no reports, and a trace file with the power counters at the sample rate.

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "harness.h"
#include "unit/trace_fixture.h"

namespace {

std::string only_trace_file() {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/data/local/tmp")) {
    if (entry.path().extension() == ".perfetto-trace") found.push_back(entry.path());
  }
  return found.size() == 1 ? found[0] : "";
}

TEST(Perfetto, PowerCountersReachTheTraceAtTheSampleRate) {
  struct Case {
    std::vector<std::string> args;
    std::size_t supplies;  // each sample emits once per registered supply
  } cases[] = {
      {{"-p", "-t", "1", "-s", "100"}, 1},
      {{"-p", "-t", "1", "-s", "100", "-c", "-e", "0.5"}, 2},
  };
  for (const auto& c : cases) {
    for (const auto& entry : std::filesystem::directory_iterator("/data/local/tmp")) {
      std::filesystem::remove(entry.path());
    }
    e2e::write_file("/sys/class/power_supply/battery/current_now", "1500000\n");
    e2e::write_file("/sys/class/power_supply/battery/voltage_now", "4000000\n");
    e2e::write_file("/sys/class/power_supply/usb/input_current_now", "1500000\n");
    e2e::write_file("/sys/class/power_supply/usb/voltage_now", "4000000\n");

    auto result = e2e::run(c.args);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "");
    const std::string path = only_trace_file();
    ASSERT_NE(path, "");
    EXPECT_EQ(e2e::lines(result.err)[0], "Trace will be saved to '" + path + "'");

    using namespace trace_test;
    auto packets = read_trace(path);
    std::map<std::uint64_t, std::string> names;
    std::uint64_t process_uuid = 0;
    for (const Message& track : check_trace(packets)) {
      if (track.message(kProcess)) {
        process_uuid = *track.varint(kUuid);
        continue;
      }
      EXPECT_EQ(track.varint(kParent), process_uuid);
      EXPECT_TRUE(track.message(kCounterInfo));
      names[*track.varint(kUuid)] = track.text(kName).value_or("");
    }
    std::map<std::string, std::vector<double>> values;
    std::uint64_t last_time = 0;
    for (const Message& packet : packets) {
      auto event = packet.message(kTrackEvent);
      if (!event) continue;
      EXPECT_EQ(event->varint(kType), kCounter);
      ASSERT_TRUE(event->fixed_double(kDoubleValue));
      values[names[*event->varint(kTrackUuid)]].push_back(*event->fixed_double(kDoubleValue));
      EXPECT_EQ(packet.varint(kClockId), 3u);
      EXPECT_GE(packet.varint(kTimestamp).value_or(0), last_time);
      last_time = packet.varint(kTimestamp).value_or(0);
    }
    std::map<std::string, double> expected{
        {"Watts", 6.0}, {"Current", 1.5}, {"Voltage", 4.0}, {"Smoothed Power", 6.0}};
    ASSERT_EQ(values.size(), expected.size());
    // Samples at 0, 100, ... 1100 ms; a loaded machine may end the run one cycle earlier.
    const std::size_t events = values["Watts"].size();
    EXPECT_EQ(events % c.supplies, 0u);
    EXPECT_TRUE(events / c.supplies == 12 || events / c.supplies == 11) << events;
    for (const auto& [name, value] : expected) {
      EXPECT_EQ(values[name], std::vector<double>(events, value)) << name;
    }
  }
}

}  // namespace
