// The DSP trace worker running against the measurement thread, with a session recording: run under
// ThreadSanitizer too.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "plugins/dsp_trace_plugin.h"
#include "trace_fixture.h"

namespace {

using emberline::DspTracePlugin;
using Entry = DspTracePlugin::DspLogEntry;

using DspWorker = trace_test::TraceTest;
constexpr int kBlocks = 200;
constexpr std::size_t kPerBlock = 20;  // the rest of each block is zero

// Harvests reports until `expected` records were counted or a generous deadline passed, then
// once more, so that a record counted twice shows as well as one missing. A read is handled
// under one lock, so its records come in one report: the map is that report's.
struct Harvest {
  unsigned long count = 0;
  std::string map = "null";
};
Harvest harvest(DspTracePlugin& plugin, unsigned long expected) {
  Harvest got;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (got.count < expected && std::chrono::steady_clock::now() < deadline) {
    EXPECT_TRUE(plugin.on_output());
    if (plugin.slices()->value > 0) got.map = plugin.slice_map()->to_json();
    got.count += plugin.slices()->value;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_TRUE(plugin.on_output());
  got.count += plugin.slices()->value;
  return got;
}

// Whole blocks as the agent writes them, while on_output harvests concurrently and the worker
// writes slices: every record counts exactly once.
TEST_F(DspWorker, WorkerAndOutputShareTheCountsSafely) {
  ASSERT_TRUE(emberline::trace::start_session(path(), true));
  const std::string fifo = path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const int writer = ::open(fifo.c_str(), O_RDWR);
  ASSERT_GE(writer, 0);

  unsigned long counted = 0;
  {
    DspTracePlugin plugin;
    plugin.start_worker(::open(fifo.c_str(), O_RDWR));
    std::thread agent([writer] {
      for (int b = 0; b < kBlocks; ++b) {
        Entry block[DspTracePlugin::kEntriesPerBlock] = {};
        for (std::size_t i = 0; i < kPerBlock; ++i) {
          std::strcpy(block[i].name, i % 2 ? "odd" : "even");
          block[i].id = i % 2;
          block[i].start_us = 1000u * (b * kPerBlock + i);
          block[i].end_us = block[i].start_us + (i % 2 ? 3000 : 1000);
          block[i].thread_id = 1 + i % 3;
        }
        ASSERT_EQ(::write(writer, block, sizeof block), static_cast<ssize_t>(sizeof block));
      }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (counted < kBlocks * kPerBlock && std::chrono::steady_clock::now() < deadline) {
      ASSERT_TRUE(plugin.on_output());
      counted += plugin.slices()->value;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      const std::string map = plugin.slice_map()->to_json();
      EXPECT_TRUE(map == "null" || map == R"({"even":1,"odd":3})") << map;
    }
    agent.join();
  }  // the stop sequence joins a worker that is waiting in read
  ::close(writer);
  EXPECT_EQ(counted, kBlocks * kPerBlock);
  emberline::trace::stop_session();
  EXPECT_EQ(trace_test::check_trace(trace_test::read_trace(path())).size(), 4u);
}

// Each write of the agent is one read of the worker, handled at once. A lone short write is
// reported without waiting for a next one, and the blocks behind it lose no record.
TEST(DspWorkerReads, EachReadIsHandledOnItsOwn) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  DspTracePlugin plugin;
  plugin.start_worker(fds[0]);
  auto record = [](std::uint32_t thread, std::uint64_t id, std::uint64_t ms) {
    Entry e{"task", id, 0, 1000 * ms, 0, 0, {}, {}, thread, 0};
    return e;
  };
  // Writes, each as many records as it holds (a whole block is zero behind them), and the
  // records and the average duration the report then shows.
  struct Write {
    std::vector<Entry> records;
    bool whole_block;
    unsigned long reported;
    const char* map;
  } writes[] = {
      {{record(4, 1, 2)}, false, 1, R"({"task":2})"},
      {{record(4, 1, 4)}, true, 1, R"({"task":4})"},
      {{record(5, 1, 6), record(6, 1, 8)}, true, 2, R"({"task":7})"},
      {{record(4, 1, 10), record(4, 1, 20), record(4, 1, 30)}, false, 3, R"({"task":20})"},
      {{record(7, 1, 1)}, true, 1, R"({"task":1})"},
  };
  for (const Write& w : writes) {
    std::vector<Entry> bytes = w.records;
    if (w.whole_block) bytes.resize(DspTracePlugin::kEntriesPerBlock);
    const ssize_t size = static_cast<ssize_t>(bytes.size() * sizeof(Entry));
    ASSERT_EQ(::write(fds[1], bytes.data(), static_cast<std::size_t>(size)), size);
    const Harvest got = harvest(plugin, w.reported);
    EXPECT_EQ(got.count, w.reported) << w.records.size() << " records, whole: " << w.whole_block;
    EXPECT_EQ(got.map, w.map) << w.records.size() << " records, whole: " << w.whole_block;
  }
  ::close(fds[1]);
}

}  // namespace
