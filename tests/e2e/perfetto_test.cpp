// -p in a frozen headset: no reports, and a trace file with the power counters at the sample rate.

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "harness.h"
#include "unit/trace_decoder.h"

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
    std::size_t events_per_track;  // 12 samples (0 to 1100 ms), once per registered supply
  } cases[] = {
      {{"-p", "-t", "1", "-s", "100"}, 12},
      {{"-p", "-t", "1", "-s", "100", "-c", "-e", "0.5"}, 24},
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

    auto packets = trace_test::read_trace(path);
    std::uint64_t process_uuid = 0;
    std::map<std::uint64_t, std::string> names;
    std::map<std::string, std::vector<double>> values;
    std::uint64_t last_time = 0;
    for (const auto& packet : packets) {
      if (packet.descriptor) {
        const auto& d = *packet.descriptor;
        if (d.pid) {
          process_uuid = d.uuid;
        } else {
          EXPECT_EQ(d.parent_uuid, process_uuid) << "process track must come first";
          EXPECT_TRUE(d.counter);
          names[d.uuid] = d.name.value_or("");
        }
      }
      if (packet.event) {
        ASSERT_EQ(packet.event->type, trace_test::kCounter);
        ASSERT_TRUE(names.count(packet.event->track_uuid)) << "event before its descriptor";
        ASSERT_TRUE(packet.event->double_value);
        values[names[packet.event->track_uuid]].push_back(*packet.event->double_value);
        ASSERT_TRUE(packet.timestamp);
        EXPECT_GE(*packet.timestamp, last_time);
        last_time = *packet.timestamp;
      }
    }
    std::map<std::string, double> expected{
        {"Watts", 6.0}, {"Current", 1.5}, {"Voltage", 4.0}, {"Smoothed Power", 6.0}};
    ASSERT_EQ(values.size(), expected.size());
    for (const auto& [name, value] : expected) {
      EXPECT_EQ(values[name], std::vector<double>(c.events_per_track, value)) << name;
    }
  }
}

}  // namespace
