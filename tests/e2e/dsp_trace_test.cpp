// --dsp-trace in a frozen headset, the test standing in for the DSP: it writes crafted blocks into
// the FIFO the tool makes, and reads back the report, the trace and what is left on disk.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

#include "harness.h"
#include "platform/counter/cntvct.h"
#include "plugins/dsp_trace_plugin.h"

namespace {

using emberline::DspTracePlugin;
using Entry = DspTracePlugin::DspLogEntry;
constexpr const char* kFifo = "/data/misc/dsp/HexagonTelemetrySharedFIFO";

// Runs the tool for one JSON report and, once the run has started, writes `records` into its
// FIFO as one block padded with zeros, as the DSP's agent writes them: the plugin holds the FIFO
// open from its start.
e2e::Result run_with_block(const std::vector<Entry>& records) {
  e2e::Options options;
  options.once_started = [&] {
    if (records.empty()) return;
    const int fd = ::open(kFifo, O_WRONLY | O_NONBLOCK);
    EXPECT_GE(fd, 0);
    std::vector<Entry> block = records;
    block.resize(DspTracePlugin::kEntriesPerBlock);
    const std::size_t size = block.size() * sizeof(Entry);
    EXPECT_EQ(::write(fd, block.data(), size), static_cast<ssize_t>(size));
    ::close(fd);
  };
  return e2e::run({"-c", "--no-power", "--dsp-trace", "--json", "-t", "1"}, options);
}

// Set-up failures are reported and survived, and a FIFO left by a killed run serves; the FIFO
// goes all the same.
TEST(DspTrace, WaysInAndOut) {
  struct Case {
    void (*prepare)();
    std::vector<Entry> records;
    std::string err, out;
  } cases[] = {
      {[] { ::mkfifo(kFifo, 0666); },
       {{"left", 1, 0, 1000, 0, 0, {}, {}, 3, 0}},
       "Failed to create dsp trace pipe: File exists\n",
       R"("num_slices":1)"},
      {[] { std::filesystem::remove_all("/data/misc"); },
       {},
       "Failed to create dsp data directory: No such file or directory\n"
       "Failed to set SELinux context on dsp data directory\n"
       "Failed to create dsp trace pipe: No such file or directory\n",
       R"("dsp_trace":{"time_slice_map":null,"num_slices":0})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.err);
    c.prepare();
    auto result = run_with_block(c.records);
    std::filesystem::create_directories("/data/misc/dsp");
    EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
    EXPECT_NE(result.out.find(c.out), std::string::npos) << result.out;
    EXPECT_FALSE(std::filesystem::exists(kFifo));
    std::filesystem::remove(kFifo);
  }
}

// The counter and slice events of a trace, or nothing while its end is torn.
struct Events {
  std::size_t counters = 0, slices = 0;
};
std::optional<Events> events_in(const std::string& path) {
  using namespace trace_test;
  Events events;
  try {
    for (const Message& packet : read_trace(path)) {
      if (auto event = packet.message(kTrackEvent)) {
        ++(event->varint(kType) == kCounter ? events.counters : events.slices);
      }
    }
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
  return events;
}

// Waits (boundedly) for what another process is about to do.
bool eventually(const std::function<bool()>& condition) {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

// Two blocks of three records each into the FIFO; returns once the worker has read both, so that
// the first has been traced.
void feed_two_blocks() {
  const std::uint64_t now = emberline::platform::cntvct_to_us(emberline::platform::read_cntvct());
  Entry block[DspTracePlugin::kEntriesPerBlock] = {};
  for (std::uint32_t i = 0; i < 3; ++i)
    block[i] = {"task", i, now + i, now + i + 50, 0, 0, {}, {}, 4 + i, 0};
  const int fd = ::open(kFifo, O_WRONLY | O_NONBLOCK);
  ASSERT_GE(fd, 0);
  for (int b = 0; b < 2; ++b) ASSERT_EQ(::write(fd, block, sizeof block), ssize_t{sizeof block});
  EXPECT_TRUE(eventually([fd] {
    int unread = -1;
    return ::ioctl(fd, FIONREAD, &unread) == 0 && unread == 0;
  }));
  ::close(fd);
}

// The trace is whole after every way out, with what was traced up to the end: a stop signal ends
// the run through the same end as the time limit (as the other stop signals and a reader that
// went away do, which the charging runs show); a fatal signal's handler writes what the last tick
// left gathered (no tick comes in ten minutes here); and after SIGKILL the exit guard cuts away a
// write that the kill cut short, so that the file ends at a packet boundary and misses at most
// the last tick's packets.
TEST(DspTrace, TheTraceIsWholeOnEveryWayOut) {
  using Args = std::vector<std::string>;
  const Args reports = {"-c", "--no-power", "--dsp-trace", "--inline", "-s", "100", "-o", "200"};
  const Args ticks_apart = {"-c", "-p", "--dsp-trace", "-s", "600000", "-o", "600000"};
  const Args fast_ticks = {"-c", "-p", "-s", "50"};
  struct Case {
    int signal;
    const Args& args;
    std::size_t counters, slices;  // at least
  } cases[] = {
      {SIGINT, reports, 0, 12},
      {SIGSEGV, ticks_apart, 8, 6},
      {SIGKILL, fast_ticks, 8, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(strsignal(c.signal));
    for (const auto& entry : std::filesystem::directory_iterator("/data/local/tmp")) {
      std::filesystem::remove(entry.path());
    }
    std::size_t seen = 0;  // counters in the file when the tool was stopped
    e2e::Options options;
    options.signal_after_start = c.signal;
    options.once_started_pid = [&](pid_t pid) {
      const std::string path = e2e::only_file(".perfetto-trace");
      auto counters_at_least = [&](std::size_t count) {
        return [&path, count] { return events_in(path).value_or(Events{}).counters >= count; };
      };
      if (c.signal == SIGKILL) {
        // Two ticks in the file, then the tool stopped with a write cut short at its end.
        EXPECT_TRUE(eventually(counters_at_least(16)));
        ::kill(pid, SIGSTOP);
        seen = events_in(path).value_or(Events{}).counters;
        std::ofstream(path, std::ios::app) << "\x0a\x64torn";
        return;
      }
      // The first tick's counters are in the file before the blocks arrive.
      EXPECT_TRUE(eventually(counters_at_least(c.counters)));
      feed_two_blocks();
    };
    auto result = e2e::run(c.args, options);
    const bool killed = c.signal == SIGSEGV || c.signal == SIGKILL;
    EXPECT_EQ(result.signal, killed ? c.signal : 0) << result.err;
    EXPECT_EQ(result.exit_code, killed ? -1 : 0) << result.err;
    const std::string path = e2e::only_file(".perfetto-trace");
    ASSERT_TRUE(eventually([&] { return events_in(path).has_value(); }));
    const Events events = *events_in(path);
    trace_test::check_trace(trace_test::read_trace(path));
    EXPECT_GE(events.counters, std::max(c.counters, seen - std::min<std::size_t>(seen, 8)));
    EXPECT_EQ(events.counters % 8, 0u);
    EXPECT_GE(events.slices, c.slices);
    // The FIFO goes on every way out, a fatal signal's (which runs no destructor) included.
    EXPECT_FALSE(std::filesystem::exists(kFifo));
  }
}

}  // namespace
