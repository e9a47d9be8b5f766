#pragma once

// Reads traces back as protobuf messages, independently of the writer, and checks what the
// Perfetto UI relies on.

#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/trace/perfetto.h"

namespace trace_test {

// Field numbers of Perfetto's trace protos.
enum PacketField {
  kClockSnapshot = 6,
  kTimestamp = 8,
  kSequenceId = 10,
  kInternedData = 12,
  kSequenceFlags = 13,
  kClockId = 58
};
enum SequenceFlag { kStateCleared = 1, kNeedsState = 2 };
enum InternedDataField { kEventNames = 2, kAnnotationNames = 3 };  // each entry: iid 1, name 2
enum PacketDataField { kTrackEvent = 11, kTrackDescriptor = 60 };
enum ClockSnapshotField { kClocks = 1, kPrimaryTraceClock = 2 };
enum TrackDescriptorField { kUuid = 1, kName = 2, kProcess = 3, kParent = 5, kCounterInfo = 8 };
enum EventField { kAnnotations = 4, kType = 9, kNameIid = 10, kTrackUuid = 11, kEventName = 23 };
enum CounterValueField { kIntValue = 30, kDoubleValue = 44 };
enum AnnotationField { kAnnotationNameIid = 1, kAnnotationInt = 4, kAnnotationName = 10 };
enum EventType { kSliceBegin = 1, kSliceEnd = 2, kCounter = 4 };

// Malformed input throws, at construction for this message's own fields and on access for the
// messages nested in it. A field reads as its last occurrence, as in protobuf; a field of
// another wire type reads as absent.
class Message {
 public:
  explicit Message(std::string data) : data_(std::move(data)) { all<std::uint64_t>(0, 0); }

  std::optional<std::uint64_t> varint(int n) const { return get<std::uint64_t>(n, 0); }
  std::optional<std::int64_t> int64(int n) const { return get<std::int64_t>(n, 0); }
  std::optional<double> fixed_double(int n) const { return get<double>(n, 1); }
  std::optional<std::string> text(int n) const { return get<std::string>(n, 2); }
  std::optional<Message> message(int n) const { return get<Message>(n, 2); }
  std::vector<Message> messages(int n) const { return all<Message>(n, 2); }
  const std::string& bytes() const { return data_; }

 private:
  // Every occurrence of field n with that wire type, as T.
  template <typename T>
  std::vector<T> all(int n, int wire) const {
    std::vector<T> found;
    for (std::size_t pos = 0; pos < data_.size();) {
      const std::uint64_t tag = varint_at(pos);
      // The trace holds varints, doubles and length-delimited fields only.
      const std::uint64_t size = tag % 8 == 1 ? 8 : tag % 8 == 2 ? varint_at(pos) : 0;
      if (tag % 8 > 2 || size > data_.size() - pos) throw std::runtime_error("malformed message");
      std::uint64_t value = tag % 8 == 0 ? varint_at(pos) : 0;
      for (int b = 7; b >= 0 && tag % 8 == 1; --b)
        value = value << 8 | std::uint8_t(data_[pos + b]);
      if (tag == (static_cast<std::uint64_t>(n) << 3 | wire)) {
        if constexpr (std::is_arithmetic_v<T>) found.push_back(std::bit_cast<T>(value));
        if constexpr (!std::is_arithmetic_v<T>) found.emplace_back(data_.substr(pos, size));
      }
      pos += size;
    }
    return found;
  }

  template <typename T>
  std::optional<T> get(int n, int wire) const {
    auto found = all<T>(n, wire);
    return found.empty() ? std::nullopt : std::optional(found.back());
  }

  std::uint64_t varint_at(std::size_t& pos) const {
    std::uint64_t value = 0;
    for (int shift = 0; shift < 64 && pos < data_.size(); shift += 7) {
      value |= std::uint64_t{data_[pos] & 0x7fu} << shift;
      if ((data_[pos++] & 0x80) == 0) return value;
    }
    throw std::runtime_error("malformed varint");
  }

  std::string data_;
};

// A Trace is repeated field 1, one TracePacket each.
inline std::vector<Message> read_trace(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Message({std::istreambuf_iterator<char>(in), {}}).messages(1);
}

// An event's names, written out or interned.
struct EventNames {
  std::optional<std::string> name;
  std::vector<std::string> annotations;
};

// Looks interned names up as a reader does: in the interned data of the packet's own sequence,
// since the last packet that cleared that sequence's state. A packet that refers to interned names
// must say it needs that state, and a name it refers to must have come before.
class Interning {
 public:
  // Takes the packets in trace order.
  EventNames read(const Message& packet) {
    const std::uint64_t sequence = packet.varint(kSequenceId).value_or(0);
    const std::uint64_t flags = packet.varint(kSequenceFlags).value_or(0);
    if (flags & kStateCleared) sequences_[sequence] = {};
    auto known = sequences_.find(sequence);
    if (auto interned = packet.message(kInternedData)) {
      EXPECT_NE(known, sequences_.end()) << "interned data before the state was cleared";
      for (int kind : {kEventNames, kAnnotationNames}) {
        for (const Message& entry : interned->messages(kind))
          sequences_[sequence][kind][*entry.varint(1)] = *entry.text(2);
      }
    }
    EventNames names;
    auto event = packet.message(kTrackEvent);
    if (!event) return names;
    auto look_up = [&](int kind, std::uint64_t iid) {
      EXPECT_TRUE(flags & kNeedsState) << "iid " << iid << " in a packet that needs no state";
      auto found = sequences_.find(sequence);
      if (found == sequences_.end() || !found->second[kind].count(iid)) {
        ADD_FAILURE() << "iid " << iid << " of kind " << kind << " was never interned";
        return std::string("?");
      }
      return found->second[kind][iid];
    };
    names.name = event->text(kEventName);
    if (auto iid = event->varint(kNameIid)) names.name = look_up(kEventNames, *iid);
    for (const Message& a : event->messages(kAnnotations)) {
      auto iid = a.varint(kAnnotationNameIid);
      names.annotations.push_back(iid ? look_up(kAnnotationNames, *iid)
                                      : a.text(kAnnotationName).value_or(""));
    }
    return names;
  }

 private:
  std::map<std::uint64_t, std::map<int, std::map<std::uint64_t, std::string>>> sequences_;
};

// Checks what the UI needs to show a trace as meant, and returns its track descriptors. The trace
// opens with a clock snapshot that makes the monotonic clock the trace clock; every packet is on
// a sequence; the process's track comes first, and every other track is described once, below
// one described before it and before its first event; every interned name is found.
inline std::vector<Message> check_trace(const std::vector<Message>& packets) {
  std::vector<Message> tracks;
  auto snapshot = packets.empty() ? std::nullopt : packets[0].message(kClockSnapshot);
  EXPECT_TRUE(snapshot && snapshot->varint(kPrimaryTraceClock) == 3u);
  std::set<std::uint64_t> clocks, described;
  Interning interning;
  for (const Message& clock : snapshot.value_or(Message("")).messages(kClocks))
    clocks.insert(clock.varint(1).value_or(0));
  EXPECT_EQ(clocks, (std::set<std::uint64_t>{3, 6}));
  for (std::size_t i = 0; i < packets.size(); ++i) {
    // Every packet is on a sequence; the snapshot's is the session's own, no thread's.
    const std::uint64_t sequence = packets[i].varint(kSequenceId).value_or(0);
    EXPECT_TRUE(sequence != 0 && (i == 0 || sequence != packets[0].varint(kSequenceId))) << i;
    if (auto track = packets[i].message(kTrackDescriptor)) {
      EXPECT_EQ(track->message(kProcess).has_value(), tracks.empty()) << "packet " << i;
      EXPECT_TRUE(tracks.empty() || described.count(track->varint(kParent).value_or(0))) << i;
      EXPECT_TRUE(described.insert(track->varint(kUuid).value_or(0)).second) << "again at " << i;
      tracks.push_back(*track);
    }
    interning.read(packets[i]);
    auto event = packets[i].message(kTrackEvent);
    EXPECT_TRUE(!event || (described.count(event->varint(kTrackUuid).value_or(0)) &&
                           packets[i].varint(kTimestamp) && packets[i].varint(kClockId)))
        << "event at " << i;
  }
  EXPECT_FALSE(described.count(0));
  return tracks;
}

// Each test records into a directory of its own and leaves no session running.
class TraceTest : public ::testing::Test {
 protected:
  TraceTest() { std::filesystem::create_directories(dir_); }
  ~TraceTest() override {
    emberline::trace::stop_session();
    std::filesystem::remove_all(dir_);
  }
  std::string path(const std::string& name = "run") const { return dir_ + "/" + name; }

  const std::string dir_ = testing::TempDir() + "emberline-trace-" + std::to_string(getpid());
};

}  // namespace trace_test
