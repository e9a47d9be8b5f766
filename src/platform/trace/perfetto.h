#pragma once

// Stand-in for the parts of the Perfetto client library and the device's tracing support library
// that the tool calls. Events are encoded as Perfetto's public protobuf trace format.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace perfetto {

class Track {
 public:
  // The track of this process; every counter track hangs below it.
  static std::uint64_t process_uuid();

  constexpr Track(std::uint64_t uuid, std::uint64_t parent_uuid)
      : uuid(uuid), parent_uuid(parent_uuid) {}

  std::uint64_t uuid;
  std::uint64_t parent_uuid;
};

// A counter track identified by a static name under the process track.
class CounterTrack : public Track {
 public:
  explicit CounterTrack(const char* name);

  const char* name;
};

namespace protos::gen {
class TrackDescriptor {
 public:
  void set_name(const std::string& value) { name_ = value; }
  const std::string& name() const { return name_; }

 private:
  std::string name_;
};
}  // namespace protos::gen

namespace internal {

class TrackEventCategoryRegistry {
 public:
  static constexpr std::size_t kCategoryCount = 16;

  // The enabled state of one category: one byte, non-zero while a session records it.
  std::atomic<std::uint8_t>* GetCategoryState(std::size_t index) const {
    return &states_[index];
  }

 private:
  mutable std::atomic<std::uint8_t> states_[kCategoryCount] = {};
};

extern const TrackEventCategoryRegistry kCategoryRegistry;

class TrackEventInternal {
 public:
  // Monotonic clock, nanoseconds.
  static std::uint64_t GetTraceTime();
};

}  // namespace internal

struct DebugAnnotation {
  const char* name;
  std::int64_t value;
};

// Writers for the event kinds the tool emits. Each call writes one packet; the first use of a
// track in a session writes its descriptor first. Safe to call from several threads.
class TrackEvent {
 public:
  static void Counter(const CounterTrack& track, std::uint64_t timestamp, double value);
  static void Counter(const CounterTrack& track, std::uint64_t timestamp, std::int64_t value);
  static void SliceBegin(const Track& track, std::uint64_t timestamp, const char* name,
                         const DebugAnnotation* annotations, std::size_t annotation_count);
  static void SliceEnd(const Track& track, std::uint64_t timestamp);
  static void SetTrackDescriptor(const Track& track,
                                 const protos::gen::TrackDescriptor& descriptor);
};

}  // namespace perfetto

namespace emberline::trace {

// Index of the tool's category in the device's category table.
inline constexpr std::size_t kCategoryIndex = 9;

inline bool category_enabled() {
  return perfetto::internal::kCategoryRegistry.GetCategoryState(kCategoryIndex)
             ->load(std::memory_order_relaxed) != 0;
}

// The in-process session that stands in for the device's tracing service. Starting it enables
// the category and opens the trace file; a failure to open leaves the category disabled.
// Returns the path written, announced through `announce` unless quiet.
bool start_session(const std::string& path, bool quiet);
void stop_session();
std::string default_trace_path();

}  // namespace emberline::trace
