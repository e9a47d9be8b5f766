#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "trace/perfetto.h"
#include "trace_decoder.h"

namespace trace_test {

// Each test records into a directory of its own and leaves no session running.
class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = std::filesystem::temp_directory_path() / "emberline-trace-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    emberline::trace::stop_session();
    std::filesystem::remove_all(dir_);
  }
  std::string path(const std::string& name = "run") const { return dir_ + "/" + name; }

  std::string dir_;
};

// The packets (for their timestamps and sequences) of the events on one track.
inline std::vector<Message> events_on(const std::vector<Message>& packets, std::uint64_t uuid) {
  std::vector<Message> found;
  for (const Message& packet : packets) {
    auto event = packet.message(kTrackEvent);
    if (event && event->varint(kTrackUuid) == uuid) found.push_back(packet);
  }
  return found;
}

// Checks what the Perfetto UI needs to show a trace as meant, and returns its track descriptors.
// The trace opens with a clock snapshot that makes the monotonic clock the trace clock; every
// packet is on a sequence; every track is described once, after its parent and before its first
// event; one track, if any, is the process's.
inline std::vector<Message> check_trace(const std::vector<Message>& packets) {
  std::vector<Message> tracks;
  auto snapshot = packets.empty() ? std::nullopt : packets[0].message(kClockSnapshot);
  EXPECT_TRUE(snapshot && snapshot->varint(kPrimaryTraceClock) == 3u);
  std::set<std::uint64_t> clocks, described;
  for (const Message& clock : snapshot.value_or(Message("")).messages(kClocks)) {
    clocks.insert(clock.varint(1).value_or(0));
  }
  EXPECT_EQ(clocks, (std::set<std::uint64_t>{3, 6}));
  int processes = 0;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    EXPECT_NE(packets[i].varint(kSequenceId).value_or(0), 0u) << "packet " << i;
    if (auto track = packets[i].message(kTrackDescriptor)) {
      EXPECT_TRUE(described.insert(track->varint(kUuid).value_or(0)).second) << "again at " << i;
      auto parent = track->varint(kParent);
      EXPECT_TRUE(!parent || described.count(*parent)) << "parent after child at " << i;
      processes += track->message(kProcess).has_value();
      tracks.push_back(*track);
    }
    if (auto event = packets[i].message(kTrackEvent)) {
      EXPECT_TRUE(described.count(event->varint(kTrackUuid).value_or(0))) << "packet " << i;
      EXPECT_TRUE(packets[i].varint(kTimestamp) && packets[i].varint(kClockId)) << "packet " << i;
    }
  }
  EXPECT_FALSE(described.count(0));
  EXPECT_EQ(processes, described.empty() ? 0 : 1);
  return tracks;
}

}  // namespace trace_test
