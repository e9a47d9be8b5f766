#include "write_recorder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "sim_process.h"

namespace emberline::sim {
namespace {

const std::string kQcom = "/sys/class/qcom-battery/input_suspend";
const std::string kBattery = "/sys/class/power_supply/battery/input_suspend";
const std::string kUsb = "/sys/class/power_supply/usb/input_suspend";
const std::string kWireless = "/sys/class/power_supply/wireless/input_suspend";

TEST(WritesLogTest, OneLinePerWriteReadsBack) {
  EXPECT_EQ(format_write({1.004211, kQcom, 0, "1"}),
            "1.004211 /sys/class/qcom-battery/input_suspend 0 31");
  Write odd{3600.5, kUsb, 12, std::string("\0\xff\n", 3)};
  EXPECT_EQ(parse_write(format_write(odd)), odd);
  EXPECT_FALSE(parse_write("1.0 /x 0 3"));
}

class RecorderTest : public testing::Test {
 protected:
  const Profile& profile = *find_profile("generic");
  TemporaryDir dir;

  void SetUp() override { lay_out(profile, dir.path(), DeviceState{}); }

  // One descriptor, one positional write, as the tool does.
  void write_node(const Write& w) {
    int fd = open((dir.path() + w.path).c_str(), O_WRONLY);
    ASSERT_EQ(pwrite(fd, w.bytes.data(), w.bytes.size(), static_cast<off_t>(w.offset)),
              static_cast<ssize_t>(w.bytes.size()));
    close(fd);
  }

  std::vector<Write> logged() {
    std::vector<Write> writes;
    for (const std::string& line :
         sim_test::lines(sim_test::read_file(dir.path() + "/writes.log"))) {
      writes.push_back(parse_write(line).value());
    }
    return writes;
  }
};

struct Case {
  std::string name;
  std::vector<Write> writes;  // each made and then collected, as the sim's loop does; time = order
  bool suspended;
  friend void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }
};

class WriteRecorderTest : public RecorderTest, public testing::WithParamInterface<Case> {};

TEST_P(WriteRecorderTest, LogsEveryWriteAndFollowsTheChargingNodes) {
  WriteRecorder recorder(profile, dir.path());
  for (const Write& w : GetParam().writes) {
    write_node(w);
    recorder.collect(w.time_s);
  }
  EXPECT_EQ(logged(), GetParam().writes);
  EXPECT_EQ(recorder.charging_suspended(), GetParam().suspended);
}

INSTANTIATE_TEST_SUITE_P(
    Writes, WriteRecorderTest,
    testing::Values(
        Case{"suspend", {{1, kQcom, 0, "1"}}, true},
        Case{"resume", {{1, kUsb, 0, "1"}, {2, kUsb, 0, "0"}}, false},
        Case{"any_charging_node_suspends", {{1, kQcom, 0, "0"}, {2, kBattery, 0, "1"}}, true},
        Case{"wireless_input_is_not_the_charger", {{1, kWireless, 0, "1"}}, false},
        Case{"kernel_style_number", {{1, kBattery, 0, "1\n"}}, true},
        Case{"garbage_changes_nothing", {{1, kUsb, 0, "1"}, {2, kUsb, 0, "on"}}, true},
        Case{"offset_from_the_leading_gap", {{1, kUsb, 3, "0"}, {2, kUsb, 0, "1"}}, true},
        Case{"the_tools_run",
             {{1, kQcom, 0, "1"},
              {2, kBattery, 0, "1"},
              {3, kUsb, 0, "1"},
              {4, kWireless, 0, "1"},
              {5, kQcom, 0, "0"},
              {6, kBattery, 0, "0"},
              {7, kUsb, 0, "0"},
              {8, kWireless, 0, "0"}},
             false}),
    [](const auto& info) { return info.param.name; });

TEST_F(RecorderTest, DrainTakesWritesWhoseEventsWereNotRead) {
  WriteRecorder recorder(profile, dir.path());
  write_node({0, kQcom, 0, "1"});
  write_node({0, kUsb, 0, "1"});
  EXPECT_EQ(recorder.drain(5).size(), 2u);
  EXPECT_EQ(logged().size(), 2u);
  EXPECT_TRUE(recorder.drain(6).empty()) << "a write is taken once";
}

}  // namespace
}  // namespace emberline::sim
