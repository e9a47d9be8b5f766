// --dsp-trace in a frozen headset, the test standing in for the DSP: it writes crafted blocks into
// the FIFO the tool makes, and reads back the report, the trace and what is left on disk.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <thread>

#include "harness.h"
#include "platform/counter/cntvct.h"
#include "plugins/dsp_trace_plugin.h"
#include "unit/trace_fixture.h"

namespace {

using emberline::DspTracePlugin;
using Entry = DspTracePlugin::DspLogEntry;
constexpr const char* kFifo = "/data/misc/dsp/HexagonTelemetrySharedFIFO";

Entry record(std::uint32_t thread, std::uint64_t id, const char* name, std::uint64_t start_us,
             std::uint64_t end_us, std::int64_t cycles, std::int32_t udma) {
  Entry e{};
  std::strncpy(e.name, name, sizeof e.name - 1);
  e.id = id;
  e.start_us = start_us;
  e.end_us = end_us;
  e.end_cycles = cycles;
  e.end_counters[0] = udma;
  e.thread_id = thread;
  return e;
}

void clear_tmp() {
  for (const auto& entry : std::filesystem::directory_iterator("/data/local/tmp")) {
    std::filesystem::remove(entry.path());
  }
}

std::string only_trace_file() {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/data/local/tmp")) {
    if (entry.path().extension() == ".perfetto-trace") found.push_back(entry.path());
  }
  return found.size() == 1 ? found[0] : "";
}

// Runs the tool while writing `block` into its FIFO as soon as the tool holds it open.
e2e::Result run_with_block(const std::vector<std::string>& args, const std::vector<Entry>& records,
                           const e2e::Options& options = {}) {
  e2e::Result result;
  std::thread tool([&] { result = e2e::run(args, options); });
  if (!records.empty()) {
    Entry block[DspTracePlugin::kEntriesPerBlock] = {};
    std::copy(records.begin(), records.end(), block);
    int fd = -1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (fd < 0 && std::chrono::steady_clock::now() < deadline) {
      // Fails until the FIFO exists and the tool holds it open.
      fd = ::open(kFifo, O_WRONLY | O_NONBLOCK);
      if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_GE(fd, 0);
    EXPECT_EQ(::write(fd, block, sizeof block), static_cast<ssize_t>(sizeof block));
    ::close(fd);
  }
  tool.join();
  return result;
}

// The dsp_trace section of each JSON report.
std::vector<std::string> sections(const std::string& out) {
  static const std::regex section(R"re("dsp_trace":(\{[^{}]*(\{[^{}]*\})?[^{}]*\}))re");
  std::vector<std::string> found;
  for (const std::string& line : e2e::lines(out)) {
    std::smatch m;
    if (std::regex_search(line, m, section)) found.push_back(m[1]);
  }
  return found;
}

TEST(DspTrace, BlocksBecomeReportedSlicesAndTheFifoGoesAway) {
  clear_tmp();
  ASSERT_FALSE(std::filesystem::exists(kFifo));
  const std::uint64_t now = emberline::platform::cntvct_to_us(emberline::platform::read_cntvct());
  const std::vector<Entry> records{
      record(7, 11, "conv", now, now + 2500, 0x1'0000'0040, 30),
      record(12, 22, "dma", now + 100, now + 300, 5, -8),
      record(7, 11, "conv", now + 3000, now + 4500, 7, 0),
  };
  auto result = run_with_block({"--no-power", "--dsp-trace", "--json", "-t", "2"}, records);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_FALSE(std::filesystem::exists(kFifo));
  EXPECT_EQ(result.err.find("Failed to create dsp"), std::string::npos) << result.err;

  // One block, handled at once: all of it in one report, nothing in the others.
  std::vector<std::string> reports = sections(result.out);
  ASSERT_GE(reports.size(), 2u) << result.out;
  const std::string full = R"({"time_slice_map":{"conv":2,"dma":0.2},"num_slices":3})";
  const std::string empty = R"({"time_slice_map":null,"num_slices":0})";
  std::vector<std::string> expected(reports.size(), empty);
  expected[reports[0] == full ? 0 : 1] = full;
  EXPECT_EQ(reports, expected);

  using namespace trace_test;
  const std::string path = only_trace_file();
  ASSERT_NE(path, "");
  auto packets = read_trace(path);
  std::map<std::uint64_t, std::string> tracks;
  for (const Message& track : check_trace(packets))
    tracks[*track.varint(kUuid)] = track.text(kName).value_or("");
  // Per track: name, duration in ns and the first two annotations of each slice.
  std::map<std::string, std::vector<std::string>> slices;
  std::map<std::string, std::uint64_t> begun;
  for (const Message& packet : packets) {
    auto event = packet.message(kTrackEvent);
    if (!event) continue;
    const std::string track = tracks[*event->varint(kTrackUuid)];
    const std::uint64_t time = *packet.varint(kTimestamp);
    if (event->varint(kType) == kSliceBegin) {
      begun[track] = time;
      continue;
    }
    auto annotations = event->messages(kAnnotations);
    ASSERT_EQ(annotations.size(), 5u);
    slices[track].push_back(std::to_string(time - begun[track]) + " " +
                            *annotations[0].text(kAnnotationName) + "=" +
                            std::to_string(*annotations[0].int64(kAnnotationInt)) + " " +
                            *annotations[1].text(kAnnotationName) + "=" +
                            std::to_string(*annotations[1].int64(kAnnotationInt)));
  }
  const std::map<std::string, std::vector<std::string>> expected_slices{
      {"DSP_THREAD 7", {"2500000 dsp_cycle=64 dsp_udma=30", "1500000 dsp_cycle=7 dsp_udma=0"}},
      {"DSP_THREAD 12", {"200000 dsp_cycle=5 dsp_udma=-8"}},
  };
  EXPECT_EQ(slices, expected_slices);
}

TEST(DspTrace, AFifoLeftByAKilledRunIsUsedAndRemoved) {
  clear_tmp();
  ASSERT_EQ(::mkfifo(kFifo, 0666), 0);
  auto result = run_with_block({"--no-power", "--dsp-trace", "--json", "-t", "1"},
                               {record(3, 1, "left", 0, 1000, 0, 0)});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.err.find("Failed to create dsp trace pipe: File exists\n"), std::string::npos)
      << result.err;
  EXPECT_NE(result.out.find(R"("num_slices":1)"), std::string::npos) << result.out;
  EXPECT_FALSE(std::filesystem::exists(kFifo));
}

// A stop by signal runs the destructors; a fatal signal runs none, and the FIFO goes all the same.
TEST(DspTrace, TheFifoGoesOnEveryWayOut) {
  for (int signal : {SIGTERM, SIGSEGV}) {
    clear_tmp();
    e2e::Options options;
    options.signal_after_start = signal;
    run_with_block({"--no-power", "--dsp-trace"}, {}, options);
    EXPECT_FALSE(std::filesystem::exists(kFifo)) << strsignal(signal);
    std::filesystem::remove(kFifo);
  }
}

}  // namespace
