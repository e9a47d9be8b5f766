// The DSP trace plugin on crafted blocks: what reaches the trace and the report.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "plugins/dsp_trace_plugin.h"
#include "slice_events.h"

namespace {

using emberline::DspTracePlugin;
using Entry = DspTracePlugin::DspLogEntry;
using Counters = std::array<std::int32_t, 4>;

Entry record(std::uint32_t thread, std::uint64_t id, const char* name, std::uint64_t start_us,
             std::uint64_t end_us, std::int64_t start_cycles = 0, std::int64_t end_cycles = 0,
             Counters start = {}, Counters end = {}) {
  Entry e{{}, id, start_us, end_us, start_cycles, end_cycles, {}, {}, thread, 0};
  std::strncpy(e.name, name, sizeof e.name);
  std::copy(start.begin(), start.end(), e.start_counters);
  std::copy(end.begin(), end.end(), e.end_counters);
  return e;
}

TEST(DspTrace, CounterOffsetHalvesInIntegersAndTruncatesTowardZero) {
  struct Case {
    std::int64_t t0, t1;
    std::uint64_t c0, c1;
    std::int64_t offset;
  } cases[] = {
      {1000, 2001, 0, 0, 1500},              // (1000 + 2001) / 2 in integers
      {1000, 2001, 192, 192, 1500 - 10000},  // 192 ticks are 10 us
      {1000, 2001, 1, 0, 1473},              // 1500 - 26.04
      {0, 0, 1, 1, -52},                     // -52.08, toward zero
      // Counter readings 5 s and 5.00001 s against clock readings around 5 s.
      {5'000'000'000, 5'000'000'002, 96'000'000, 96'000'192, -4999},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(DspTracePlugin::counter_offset_ns(c.t0, c.c0, c.c1, c.t1), c.offset)
        << c.t0 << " " << c.c0 << " " << c.c1 << " " << c.t1;
  }
}

using DspTraceSlices = trace_test::TraceTest;

// Each record is one begin and one end on its thread's track, stamped offset + microseconds.
TEST_F(DspTraceSlices, RecordsBecomeSlicesOnTheirThreadsTracks) {
  using namespace trace_test;
  ASSERT_TRUE(emberline::trace::start_session(path(), true));
  constexpr std::int64_t kOffset = 7'000'000'123;
  Entry block[DspTracePlugin::kEntriesPerBlock] = {
      record(7, 1, "conv", 1000, 3500, 0x5'ffff'fff0, 0x6'0000'0010, {10, -5, 2147483647, 0},
             {15, 5, -2147483647 - 1, -3}),
      record(12, 2, "dma", 4000, 4100, 100, 50),
      record(7, 1, "renamed", 5000, 6000),
      {},
      record(9, 3, "after the end", 7000, 8000),
  };
  DspTracePlugin plugin;
  plugin.process_records(block, DspTracePlugin::kEntriesPerBlock, kOffset);
  emberline::trace::stop_session();

  auto packets = read_trace(path());
  EXPECT_EQ(check_trace(packets).size(), 3u);  // the process and two threads
  for (const Message& packet : packets) {
    if (!packet.message(kTrackEvent)) continue;
    EXPECT_EQ(packet.varint(kTimestamp), kOffset + 1'000'000u);
    break;
  }
  const std::string zeros = " dsp_udma=0 dsp_hmx=0 dsp_pkts=0 dsp_hvx_pkt=0";
  const std::string conv =
      " dsp_cycle=32 dsp_udma=5 dsp_hmx=10 dsp_pkts=-4294967295 dsp_hvx_pkt=-3";
  EXPECT_EQ(slice_events(packets), (std::vector<std::string>{
                                       "B DSP_THREAD 7 +0 conv" + conv,
                                       "E DSP_THREAD 7 +2500000" + conv,
                                       "B DSP_THREAD 12 +3000000 dma dsp_cycle=-50" + zeros,
                                       "E DSP_THREAD 12 +3100000 dsp_cycle=-50" + zeros,
                                       "B DSP_THREAD 7 +4000000 conv dsp_cycle=0" + zeros,
                                       "E DSP_THREAD 7 +5000000 dsp_cycle=0" + zeros,
                                   }));

  // The report: the first name of an id, and durations averaged over the output period only.
  ASSERT_TRUE(plugin.on_output());
  EXPECT_EQ(plugin.slices()->to_str(), "3");
  EXPECT_EQ(plugin.slice_map()->to_json(), R"({"conv":1.75,"dma":0.1})");
  ASSERT_TRUE(plugin.on_output());
  EXPECT_EQ(plugin.slices()->to_str(), "0");
  EXPECT_EQ(plugin.slice_map()->to_json(), "null");
}

// With no session recording, the report still counts every record. A block is cleared after
// use, so that a second pass over it adds nothing.
TEST(DspTrace, ReportCountsWithoutASession) {
  std::vector<Entry> full;
  for (std::uint64_t i = 1; i <= DspTracePlugin::kEntriesPerBlock; ++i) {
    full.push_back(record(3, 5, "t", 100 * i, 100 * i + 1000 * i));  // 1 .. 32 ms
  }
  struct Case {
    const char* what;
    std::vector<Entry> records;
    const char* slices;
    const char* json;
  } cases[] = {
      {"first record ends the block", {{}, record(3, 5, "t", 0, 10)}, "0", "null"},
      {"all 32 without an end mark", full, "32", R"({"t":16.5})"},
      {"end before start", {record(3, 5, "t", 3000, 1000)}, "1", R"({"t":1.84467e+16})"},
  };
  for (const Case& c : cases) {
    DspTracePlugin plugin;
    std::vector<Entry> block = c.records;
    block.resize(DspTracePlugin::kEntriesPerBlock);
    plugin.processDspTraces(nullptr);
    plugin.processDspTraces(block.data());
    const Entry zero{};
    for (const Entry& e : block) EXPECT_EQ(std::memcmp(&e, &zero, sizeof e), 0) << c.what;
    plugin.processDspTraces(block.data());
    ASSERT_TRUE(plugin.on_output());
    EXPECT_EQ(plugin.slices()->to_str(), c.slices) << c.what;
    EXPECT_EQ(plugin.slice_map()->to_json(), c.json) << c.what;
  }
}

}  // namespace
