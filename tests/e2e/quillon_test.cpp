// The charging attributes and the powercap rails of a Quillon headset, through the real binary.

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <map>

#include "harness.h"
#include "plugins/charge_plugin.h"
#include "plugins/quillon_power_rails_plugin.h"

namespace {

using e2e::section;

// --all on a Quillon headset: every charging attribute in its own unit, and the USB input measured
// by current_now. (What --all registers is the golden schema's.)
TEST(Quillon, AllShowsEveryChargeAttributeInItsUnit) {
  struct Row {
    const char* file;
    const char* content;
    const char* shown;
  } rows[] = {
      {"usb/voltage_now", "5100000\n", "USB Voltage Now: 5.100V"},
      {"usb/typec_power_role", "source [sink]\n", "USB TypeC Power Role: source [sink]"},
      // A node that holds no line shows null rather than another row's text.
      {"usb/scope", "", "USB scope: null"},
      {"usb/output_current_limit", "1500000\n", "USB output_current_limit: 1.500A"},
      {"usb/current_max", "3000000\n", "USB Current Max: 3.000A"},
      {"usb/online", "1\n", "USB Supply Online: 1"},
      {"usb/type", "USB_PD\n", "USB Charge Type: USB_PD"},
      {"usb/usb_type", "Unknown [SDP] CDP\n", "USB Type: Unknown [SDP] CDP"},
      {"usb/current_now", "250000\n", "USB Current Now: 0.250A"},
      {"usb/temp", "287\n", "USB Temperature: 28.70C"},
      {"battery/time_to_empty_avg", "36000\n", "Bat Time To Empty Avg: 3600.000S"},
      {"usb/input_current_limit", "2000000\n", "USB input_current_limit: 2.000A"},
      {"battery/temp", "312\n", "Bat Temp: 31.20C"},
      {"battery/time_to_full_now", "1200\n", "Bat Time To Full: 120.000S"},
      {"battery/time_to_full_avg", "1300\n", "Bat Time To Full Avg: 130.000S"},
      {"battery/model_name", "FNK_5060mAh\n", "Model Name: FNK_5060mAh"},
      {"battery/voltage_now", "4100000\n", "Bat Voltage Now: 4.100V"},
      {"battery/charge_full_design", "5060000\n", "Bat Charge Full Design: 5.060V"},
      {"battery/charge_full", "5000000\n", "Bat Charge Full: 5.000V"},
      {"battery/status", "Charging\n", "Bat Status: Charging"},
      {"battery/cycle_count", "87\n", "Bat Cycle Count: 87"},
      {"battery/present", "1\n", "Bat Present: 1"},
      {"battery/charge_counter", "1234\n", "Bat Charge Counter: 1234"},
      {"battery/health", "Good\r\n", "Bat Health: Good"},
      {"battery/charge_control_limit_max", "12\n", "Bat Charge Control Limit Max: 12"},
      {"battery/power_now", "25000000\n", "Bat Power Now: 2.500W"},
      {"battery/power_avg", "-12345678\n", "Bat Power Avg: -1.235W"},
      {"battery/technology", "Li-ion\n", "Bat Technology: Li-ion"},
      {"battery/charge_control_limit", "0\n", "Bat Charge Control Limit: 0"},
      {"battery/current_now", "-500000\n", "Bat Current Now: -0.500A"},
      // A number is read as far as it goes, and a text that holds none is zero.
      {"battery/voltage_max", "4400000 uV\n", "Bat Voltage Max: 4.400V"},
      {"battery/voltage_ocv", "unknown\n", "Bat Open Circuit Voltage: 0.000V"},
      {"battery/charge_type", "Fast\n", "Bat Charge Type: Fast"},
      {"usb/voltage_max", "9000000\n", "USB Voltage Max: 9.000V"},
      {"battery/capacity", "85\n", "Bat Capacity: 85.000%"},
      {"battery/type", "Battery\n", "Bat Supply Type: Battery"},
  };
  std::string expected = "[Charge] ";
  for (const auto& row : rows) {
    e2e::write_file(std::string("/sys/class/power_supply/") + row.file, row.content);
    expected += std::string(expected.size() > 9 ? " | " : "") + row.shown;
  }
  auto result = e2e::run({"-c", "--all", "-t", "1"});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(section(result.out, "[Charge] "), expected);
  EXPECT_TRUE(section(result.out, "[Power (USB)] ")
                  .starts_with("[Power (USB)] raw: 1.275W | current: 0.250A | voltage: 5.100V"))
      << result.out;

  std::remove("/sys/class/power_supply/usb/typec_power_role");
  result = e2e::run({"--no-power", "--charge-data", "-t", "1"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err,
            "ERROR: Failed to find node file '/sys/class/power_supply/usb/typec_power_role'.\n"
            "ERROR: Failed to initialize plugin 'charge'\n");
}

// The nodes stay open for the run: each output must read what they hold now, not what the first
// read left in a stream's buffer.
TEST(Quillon, ChargeAttributesAreReadAfreshAtEveryOutput) {
  const std::string usb = "/sys/class/power_supply/usb/";
  auto charge = std::make_shared<emberline::ChargePlugin>();
  ASSERT_TRUE(charge->init());
  // The node's new text, and what the report shows of it.
  const char* steps[][4] = {
      {"3000000\n", "Max=3.000A,", "[source] sink", "Role=[source] sink,"},
      {"500000\n", "Max=0.500A,", "sink\n", "Role=sink,"},
      {"12500000\n", "Max=12.500A,", "source [sink]\n", "Role=source [sink],"}};
  for (auto [max, shown_max, role, shown_role] : steps) {
    e2e::write_file(usb + "current_max", max);
    e2e::write_file(usb + "typec_power_role", role);
    ASSERT_TRUE(charge->on_output());
    const std::string shown = charge->to_inline_str();
    EXPECT_NE(shown.find(shown_max), std::string::npos) << shown;
    EXPECT_NE(shown.find(shown_role), std::string::npos) << shown;
  }
}

namespace fs = std::filesystem;
const std::string kPowercap = "/sys/class/powercap/";

// The headset's own rails go first, so that a test's are all there are.
void clear_rails() {
  for (const auto& entry : fs::directory_iterator(kPowercap)) fs::remove_all(entry.path());
}

void rail(const std::string& dir, const std::string& name, const std::string& power) {
  fs::create_directories(kPowercap + dir);
  e2e::write_file(kPowercap + dir + "/name", name);
  e2e::write_file(kPowercap + dir + "/power_uw", power);
}

// A directory named "epm:" and a hexadecimal ending is a rail, an upper-case ending too, and a
// garbled reading leaves it without a number; rails beyond the file table are left out.
TEST(QuillonRails, OneFieldPerHexadecimalRailDirectory) {
  auto shown = [] {
    emberline::QuillonPowerRailsPlugin plugin;
    return plugin.init() ? plugin.to_str() : "failed";
  };
  clear_rails();
  rail("epm:a", "gfx\n", "1500000\n");
  rail("epm:1B", "ddr\n", "n/a\n");
  fs::create_directories(kPowercap + "epm:");
  fs::create_directories(kPowercap + "intel-rapl");
  e2e::write_file(kPowercap + "epm:c", "a file, not a rail\n");
  const std::string line = shown();
  EXPECT_TRUE(line == "gfx_rail_0: 1.500W | ddr_rail_1: null" ||
              line == "ddr_rail_0: null | gfx_rail_1: 1.500W")
      << line;

  // A directory of another prefix is looked for under "epm:" by what follows its last colon, and
  // is not found there: the run goes on without the section.
  rail("other:x:2", "cam\n", "1\n");
  auto result = e2e::run({"-c", "--no-power", "--quillon-rails", "-t", "1"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err.find("ERROR: Failed to find name file for rail directory 'epm:2'.\n"), 0u)
      << result.err;
  EXPECT_EQ(section(result.out, "[Quillon Rails]"), "");
  EXPECT_NE(section(result.out, "sequence: 1 "), "");

  clear_rails();
  for (int i = 0; i < 50; ++i) rail("epm:" + std::to_string(100 + i), "r\n", "1000\n");
  EXPECT_NE(shown().find("r_rail_47: 0.001W"), std::string::npos);
  EXPECT_EQ(shown().find("r_rail_48"), std::string::npos);
}

// At start-up each line of a rail's power node makes its value: a node without a line gives the
// rail no field, and of two lines the report keeps the first value for the run. Later readings
// follow the node of a one-line rail at every output.
TEST(QuillonRails, AtStartEachLineMakesTheRailsValue) {
  clear_rails();
  const std::map<std::string, std::pair<std::string, std::string>> rails{
      {"epm:a", {"two", "1500000\n2500000\n"}},
      {"epm:b", {"empty", ""}},
      {"epm:c", {"one", "750000\n"}}};
  for (const auto& [dir, r] : rails) rail(dir, r.first + "\n", r.second);
  // A rail's key holds its place in the listing, which nothing sorts.
  std::map<std::string, std::string> key;
  int position = 0;
  for (const auto& entry : fs::directory_iterator(kPowercap)) {
    const std::string dir = entry.path().filename();
    key[dir] = rails.at(dir).first + "_rail_" + std::to_string(position++);
  }
  auto plugin = std::make_shared<emberline::QuillonPowerRailsPlugin>();
  ASSERT_TRUE(plugin->init());
  auto shown = [&](const std::string& two, const std::string& one) {
    std::map<std::string, std::string> fields{{key["epm:a"], two}, {key["epm:c"], one}};
    std::string text;
    for (const auto& entry : fs::directory_iterator(kPowercap)) {
      const std::string dir = entry.path().filename();
      if (fields.count(key[dir])) {
        text += (text.empty() ? "" : " | ") + key[dir] + ": " + fields[key[dir]];
      }
    }
    return text;
  };
  EXPECT_EQ(plugin->to_str(), shown("1.500W", "0.750W"));
  EXPECT_EQ(plugin->get_description(emberline::OutputFormat::CSV).find(key["epm:b"]),
            std::string::npos);
  for (auto [two, one, watts] :
       std::vector<std::array<const char*, 3>>{{"4000000\n", "1250000\n", "1.250W"},
                                               {"5000000\n", "20\n", "0.000W"},
                                               {"", "3333333\n", "3.333W"},
                                               {"6000000\n", "", "3.333W"}}) {
    e2e::write_file(kPowercap + "epm:a/power_uw", two);
    e2e::write_file(kPowercap + "epm:c/power_uw", one);
    e2e::write_file(kPowercap + "epm:b/power_uw", "9000000\n");
    ASSERT_TRUE(plugin->on_output());
    EXPECT_EQ(plugin->to_str(), shown("1.500W", watts)) << one;
  }
}

}  // namespace
