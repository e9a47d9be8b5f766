// Traces as upstream Perfetto reads them: decoded with protoc against upstream's own schema, which
// fails on what does not parse and shows a field it does not define as a bare number.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>

#include "platform/trace/perfetto.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;
using namespace perfetto;

// Why traces cannot be decoded here, or nothing when they can.
std::optional<std::string> decoder_missing() {
  if (!fs::exists(fs::path(UPSTREAM_SCHEMA_DIR) / "perfetto_trace.proto")) {
    return "upstream's schema is not at " UPSTREAM_SCHEMA_DIR;
  }
  if (test_support::run_process({"/bin/sh", "-c", "command -v protoc"}).exit_code != 0) {
    return "protoc is not installed (Debian's protobuf-compiler)";
  }
  return std::nullopt;
}

// The trace as protoc prints it. Fails the test on a decode error and on every field upstream
// does not know.
std::string decode(const std::string& trace) {
  const auto decoded =
      test_support::run_process({"/bin/sh", "-c",
                                 "exec protoc --decode=perfetto.protos.Trace --proto_path=\"$0\" "
                                 "perfetto_trace.proto < \"$1\"",
                                 UPSTREAM_SCHEMA_DIR, trace});
  EXPECT_EQ(decoded.exit_code, 0) << decoded.err;
  EXPECT_EQ(decoded.err, "");
  static const std::regex unknown(R"((^|\n) *[0-9]+(: | \{))");
  std::smatch found;
  EXPECT_FALSE(std::regex_search(decoded.out, found, unknown))
      << "a field upstream does not define, at " << found.position(0) << ":\n"
      << decoded.out.substr(found.position(0), 200);
  return decoded.out;
}

// Every kind of packet the writer makes, with values at the edges of their types.
TEST(UpstreamSchema, ReadsEveryPacketTheWriterMakes) {
  if (auto why = decoder_missing()) GTEST_SKIP() << *why;
  const std::string path = testing::TempDir() + "emberline-upstream-" + std::to_string(getpid());
  const Track dsp(7, ProcessTrack::Current());
  auto named = dsp.Serialize();
  named.set_name("DSP_THREAD 7");
  const DebugAnnotation annotations[] = {{"dsp_cycle", -1}, {"dsp_udma", INT64_MAX}};
  ASSERT_TRUE(emberline::trace::start_session(path, true));
  TrackEvent::SetTrackDescriptor(dsp, named);
  const float watts = 2.5f;
  const unsigned int frequency = 4294967295u;
  emberline::trace::emit_counter(CounterTrack("Watts"), watts);
  emberline::trace::emit_counter(CounterTrack("DDR frequency"), frequency);
  TrackEvent::Counter(CounterTrack("Signed"), 1, INT64_MIN);
  const std::string long_name(300, 'n');
  TrackEvent::SliceBegin(dsp, {3, 1000}, long_name.c_str(), annotations, 2);
  TrackEvent::SliceEnd(dsp, {3, 2000}, annotations, 2);
  emberline::trace::stop_session();

  const std::string text = decode(path);
  fs::remove(path);
  for (const char* field :
       {"clock_snapshot", "primary_trace_clock: BUILTIN_CLOCK_MONOTONIC", "process_name",
        "name: \"DSP_THREAD 7\"", "counter {", "double_counter_value: 2.5",
        "counter_value: 4294967295", "counter_value: -9223372036854775808", "TYPE_SLICE_BEGIN",
        "TYPE_SLICE_END", "int_value: 9223372036854775807", "trusted_packet_sequence_id",
        "sequence_flags: 3", "event_names {", "debug_annotation_names {", "name_iid: 2"}) {
    EXPECT_NE(text.find(field), std::string::npos) << field;
  }
}

// A real run on a live Fennick: every plugin's counters and the DSP agent's slices.
TEST(UpstreamSchema, ReadsARunOfEveryPlugin) {
  if (auto why = decoder_missing()) GTEST_SKIP() << *why;
  if (auto why = test_support::sandbox_unavailable(EMBERLINE_SIM)) GTEST_SKIP() << *why;
  const fs::path state = testing::TempDir() + "emberline-upstream-sim-" + std::to_string(getpid());
  const auto run = test_support::run_process({EMBERLINE_SIM, "run", "--profile", "fennick",
                                              "--seed", "7", "--state", state, "--",
                                              EMBERLINE_BINARY, "--all", "-p", "-c", "-t", "2"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  std::string trace;
  for (const auto& entry : fs::directory_iterator(state / "data/local/tmp")) {
    if (entry.path().extension() == ".perfetto-trace") trace = entry.path();
  }
  ASSERT_NE(trace, "");
  const std::string text = decode(trace);
  fs::remove_all(state);
  for (const char* field : {"name: \"Watts\"", "name: \"DSP Freq\"", "name: \"DDR frequency\"",
                            "name: \"DSP_THREAD ", "TYPE_SLICE_BEGIN", "debug_annotations"}) {
    EXPECT_NE(text.find(field), std::string::npos) << field;
  }
}

}  // namespace
