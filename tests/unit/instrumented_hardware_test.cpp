// Conversions and statistics of the charge, rail and DRAM plugins, on text in-process.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "crash_restore.h"
#include "plugins/charge_plugin.h"
#include "plugins/power_rails_plugin.h"
#include "plugins/quillon_dram_bandwidth_plugin.h"
#include "plugins/quillon_power_rails_plugin.h"

namespace emberline {
namespace {

TEST(ChargeReadings, EachTypeScalesByItsOwnDivisor) {
  struct Case {
    const char* text;
    SysfsNodeType type;
    float expected;
  } cases[] = {
      {"85", SysfsNodeType::PERCENTAGE, 0.85f},   {"312", SysfsNodeType::TEMPERATURE, 31.2f},
      {"4100000", SysfsNodeType::VOLTAGE, 4.1f},  {"-500000", SysfsNodeType::CURRENT, -0.5f},
      {"25000000", SysfsNodeType::POWER, 2.5f},   {"1200", SysfsNodeType::TIME, 120.0f},
      {"12x", SysfsNodeType::VOLTAGE, 0.000012f}, {"garbage", SysfsNodeType::CURRENT, 0.0f},
      {"", SysfsNodeType::TEMPERATURE, 0.0f},
  };
  for (const auto& c : cases) {
    EXPECT_FLOAT_EQ(sysfs_reading(c.text, c.type), c.expected) << c.text;
  }
}

TEST(RailReadings, FactorsAndMicrowattsBecomeWatts) {
  EXPECT_FLOAT_EQ(rail_watts(3800000, 500000), 1.9f);
  EXPECT_FLOAT_EQ(rail_watts(1000000, 2000000), 2.0f);
  EXPECT_FLOAT_EQ(rail_watts(-1000000, 250000), -0.25f);

  struct Case {
    std::string line;
    std::optional<float> watts;
  } cases[] = {
      {"1500000", 1.5f},  {"250", 0.00025f},     {"12e5", 1.2f},
      {"", std::nullopt}, {"n/a", std::nullopt}, {"1e99", std::nullopt},
  };
  for (const auto& c : cases) {
    auto watts = microwatts_to_watts(c.line);
    ASSERT_EQ(watts.has_value(), c.watts.has_value()) << c.line;
    if (watts) {
      EXPECT_FLOAT_EQ(*watts, *c.watts) << c.line;
    }
  }
}

TEST(RailReadings, OnlyHexadecimalEndingsNameARail) {
  struct Case {
    std::string entry, ending;
  } cases[] = {
      {"/sys/class/powercap/epm:0", "0"},     {"/sys/class/powercap/epm:1A", "1A"},
      {"/sys/class/powercap/other:ff", "ff"}, {"/sys/class/powercap/a:b:c0", "c0"},
      {"/sys/class/powercap/epm:", ""},       {"/sys/class/powercap/epm:1g", ""},
      {"/sys/class/powercap/intel-rapl", ""}, {"abc", "abc"},
  };
  for (const auto& c : cases) EXPECT_EQ(rail_ending(c.entry), c.ending) << c.entry;
}

TEST(DramSamples, MalformedLinesAreSkipped) {
  struct Case {
    std::string text;
    std::vector<dram::Sample> expected;
  } cases[] = {
      {"1\t100\t200\t30\n", {{1, 0x100, 0x200, 0x30}}},
      {"a\tB\tc\tD", {{0xa, 0xb, 0xc, 0xd}}},
      // Runs of tabs are one separator, a fifth column is ignored, a CR ends a number.
      {"1\t\t2\t3\t4\t5\r\n", {{1, 2, 3, 4}}},
      {"0x10\t 20\t30\t40\n", {{0x10, 0x20, 0x30, 0x40}}},
      {"1\t2\t3\n\n\n4\t5\t6\t7\n", {{4, 5, 6, 7}}},
      {"zz\t1\t2\t3\n1\t2\t3\t4\n", {{1, 2, 3, 4}}},
      {"1 2 3 4\n", {}},
      {"", {}},
      {"ffffffffffffffffff\t1\t2\t3\n", {}},
  };
  for (const auto& c : cases) {
    std::vector<dram::Sample> samples;
    dram::parse_samples(c.text, samples);
    EXPECT_EQ(samples, c.expected) << c.text;
  }
}

dram::Sample used(unsigned long used, unsigned long available = 100, unsigned long ddr = 0) {
  return {0, used, available, ddr};
}

TEST(DramStatistics, WorkedSamples) {
  struct Case {
    const char* name;
    std::vector<dram::Sample> samples;
    std::uint32_t mean, minimum, maximum, available;
    double stddev;
    float utilisation;
  } cases[] = {
      {"one sample", {used(0x100, 0x200)}, 256, 256, 256, 512, 0.0, 0.5f},
      {"10 and 20", {used(10), used(20)}, 15, 10, 20, 100, 5.0, 0.15f},
      {"mean truncates", {used(10), used(11)}, 10, 10, 11, 100, std::sqrt(0.5), 0.10f},
      {"population form",
       {used(2), used(4), used(4), used(4), used(5), used(5), used(7), used(9)},
       5,
       2,
       9,
       100,
       2.0,
       0.05f},
      {"low 32 bits only", {used(0x100000005, 0x100000064)}, 5, 5, 5, 100, 0.0, 0.05f},
      {"sums and squares wrap", {used(0xffffffff), used(3)}, 1, 3, 0xffffffff, 100, 2.0, 0.01f},
  };
  for (const auto& c : cases) {
    for (auto stats : {dram::client_stats(c.samples), dram::total_stats(c.samples)}) {
      EXPECT_EQ(stats.samples, c.samples.size()) << c.name;
      EXPECT_EQ(stats.mean, c.mean) << c.name;
      EXPECT_EQ(stats.minimum, c.minimum) << c.name;
      EXPECT_EQ(stats.maximum, c.maximum) << c.name;
      EXPECT_EQ(stats.available, c.available) << c.name;
      EXPECT_DOUBLE_EQ(stats.stddev, c.stddev) << c.name;
      EXPECT_FLOAT_EQ(stats.utilisation, c.utilisation) << c.name;
    }
  }
}

TEST(DramStatistics, ClientsDivideSignedTheTotalUnsigned) {
  std::vector<dram::Sample> samples = {used(0x90000000, 0x90000000), used(0, 0)};
  auto client = dram::client_stats(samples);
  auto total = dram::total_stats(samples);
  EXPECT_EQ(client.mean, 0xC8000000u);
  EXPECT_EQ(total.mean, 0x48000000u);
  EXPECT_EQ(client.available, 0xC8000000u);
  EXPECT_EQ(total.available, 0x48000000u);
  EXPECT_FLOAT_EQ(client.utilisation, 1.0f);
  EXPECT_FLOAT_EQ(total.utilisation, 1.0f);
}

TEST(DramStatistics, TotalTracksDdrFrequencyAndEmptyListsGiveNothing) {
  auto total = dram::total_stats(
      std::vector<dram::Sample>{used(1, 2, 1555), used(1, 2, 547), used(1, 2, 3196)});
  EXPECT_EQ(total.ddr_mean, 1766u);
  EXPECT_EQ(total.ddr_minimum, 547u);
  EXPECT_EQ(total.ddr_maximum, 3196u);
  EXPECT_TRUE(std::isinf(dram::client_stats(std::vector{used(5, 0)}).utilisation));
  EXPECT_TRUE(std::isnan(dram::total_stats(std::vector{used(0, 0)}).utilisation));
  EXPECT_EQ(dram::client_stats({}).samples, 0u);
}

std::string contents(int fd) {
  char buffer[64] = {};
  ssize_t got = pread(fd, buffer, sizeof buffer - 1, 0);
  return std::string(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
}

TEST(CrashRestore, ArmedEntriesAreRewrittenFromAFatalSignalHandler) {
  char a_path[] = "/tmp/emberline-restore-XXXXXX";
  char b_path[] = "/tmp/emberline-restore-XXXXXX";
  int a = mkstemp(a_path), b = mkstemp(b_path);
  ASSERT_GE(a, 0);
  ASSERT_GE(b, 0);
  pid_t child = fork();
  if (child == 0) {
    int slot_a = crash_restore::remember(a, "100\n");
    int slot_b = crash_restore::remember(b, "0");
    crash_restore::forget(slot_b);
    if (slot_a < 0 || slot_b < 0 || crash_restore::remember(a, std::string(65, 'x')) != -1)
      _exit(3);
    std::signal(SIGSEGV, [](int sig) {
      crash_restore::write_back_all();
      std::signal(sig, SIG_DFL);
      std::raise(sig);
    });
    [[maybe_unused]] ssize_t w = pwrite(a, "7", 1, 0);
    w = pwrite(b, "1", 1, 0);
    std::raise(SIGSEGV);
    _exit(4);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
  EXPECT_EQ(contents(a), "100\n");
  EXPECT_EQ(contents(b), "1");
  close(a);
  close(b);
  unlink(a_path);
  unlink(b_path);
}

}  // namespace
}  // namespace emberline
