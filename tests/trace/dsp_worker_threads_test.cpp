// The DSP trace worker running against the measurement thread, with a session recording: run under
// ThreadSanitizer too.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "plugins/dsp_trace_plugin.h"
#include "trace_fixture.h"

namespace {

using emberline::DspTracePlugin;

using DspWorker = trace_test::TraceTest;
constexpr int kBlocks = 200;
constexpr std::size_t kPerBlock = 20;  // the rest of each block is zero
constexpr std::size_t kPiece = 1000;   // not a multiple of a record

// Blocks arrive in pieces that end inside records; every record must still count exactly once,
// while on_output harvests concurrently and the worker writes slices.
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
        DspTracePlugin::DspLogEntry block[DspTracePlugin::kEntriesPerBlock] = {};
        for (std::size_t i = 0; i < kPerBlock; ++i) {
          std::strcpy(block[i].name, i % 2 ? "odd" : "even");
          block[i].id = i % 2;
          block[i].start_us = 1000u * (b * kPerBlock + i);
          block[i].end_us = block[i].start_us + (i % 2 ? 3000 : 1000);
          block[i].thread_id = 1 + i % 3;
        }
        const char* bytes = reinterpret_cast<const char*>(block);
        for (std::size_t done = 0; done < sizeof block; done += kPiece) {
          const std::size_t size = std::min(kPiece, sizeof block - done);
          ASSERT_EQ(::write(writer, bytes + done, size), static_cast<ssize_t>(size));
          std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
      }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (counted < kBlocks * kPerBlock && std::chrono::steady_clock::now() < deadline) {
      ASSERT_TRUE(plugin.on_output());
      counted += std::stoul(plugin.slices()->to_str());
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

}  // namespace
