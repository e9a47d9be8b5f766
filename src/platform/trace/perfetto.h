#pragma once

// Stand-in for the parts of the Perfetto client library and the device's tracing support library
// that the tool calls. Events are encoded as Perfetto's public protobuf trace format.

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

namespace perfetto {

namespace protos::pbzero {
// Clock domains a timestamp can be given in; the trace time is the monotonic clock.
enum BuiltinClock : std::uint32_t {
  BUILTIN_CLOCK_MONOTONIC = 3,
  BUILTIN_CLOCK_BOOTTIME = 6,
};
}  // namespace protos::pbzero

namespace protos::gen {
class TrackDescriptor {
 public:
  void set_uuid(std::uint64_t value) { uuid_ = value; }
  std::uint64_t uuid() const { return uuid_; }
  void set_parent_uuid(std::uint64_t value) { parent_uuid_ = value; }
  std::uint64_t parent_uuid() const { return parent_uuid_; }
  void set_name(const std::string& value) { name_ = value; }
  const std::string& name() const { return name_; }

 private:
  std::uint64_t uuid_ = 0;
  std::uint64_t parent_uuid_ = 0;
  std::string name_;
};
}  // namespace protos::gen

class Track {
 public:
  // The track of this process; every counter track hangs below it.
  static std::uint64_t process_uuid();

  constexpr Track(std::uint64_t uuid, std::uint64_t parent_uuid)
      : uuid(uuid), parent_uuid(parent_uuid) {}

  // A track chosen by the caller's own id below `parent`. The same id under the same parent is
  // the same track; ids need only be unique among the parent's children.
  Track(std::uint64_t id, const Track& parent);

  // A descriptor naming nothing yet: the caller sets the name and hands it to
  // TrackEvent::SetTrackDescriptor.
  protos::gen::TrackDescriptor Serialize() const;

  std::uint64_t uuid;
  std::uint64_t parent_uuid;
};

class ProcessTrack : public Track {
 public:
  static ProcessTrack Current();

 private:
  ProcessTrack();
};

// A counter track identified by a static name under the process track. Tracks of equal name are
// one track.
class CounterTrack : public Track {
 public:
  explicit CounterTrack(const char* name);

  const char* name;
};

// A point in time on one of the builtin clocks, in nanoseconds.
struct TraceTimestamp {
  std::uint32_t clock_id;
  std::uint64_t value;
};

namespace internal {

class TrackEventCategoryRegistry {
 public:
  static constexpr std::size_t kCategoryCount = 16;

  // The enabled state of one category: one byte, non-zero while a session records it.
  std::atomic<std::uint8_t>* GetCategoryState(std::size_t index) const { return &states_[index]; }

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
// track in a session writes its descriptor (and its parent's) first. Safe to call from several
// threads. Without a session they write nothing. Counter timestamps are trace time
// (GetTraceTime). Event and annotation names are interned by address, so each must be static, as
// the client library requires: one address keeps one text for the whole process.
class TrackEvent {
 public:
  static void Counter(const CounterTrack& track, std::uint64_t timestamp, double value);
  static void Counter(const CounterTrack& track, std::uint64_t timestamp, std::int64_t value);
  // Integer values of any width go out as integers, not doubles. Unsigned 64-bit values above
  // INT64_MAX wrap.
  template <std::integral T>
  static void Counter(const CounterTrack& track, std::uint64_t timestamp, T value) {
    Counter(track, timestamp, static_cast<std::int64_t>(value));
  }

  static void SliceBegin(const Track& track, TraceTimestamp timestamp, const char* name,
                         const DebugAnnotation* annotations = nullptr,
                         std::size_t annotation_count = 0);
  static void SliceEnd(const Track& track, TraceTimestamp timestamp,
                       const DebugAnnotation* annotations = nullptr,
                       std::size_t annotation_count = 0);

  // Names a custom track. Kept for the whole process: the descriptor goes out now if a session is
  // recording, and on the track's first use in every later session.
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

// One counter event on `track`, stamped with the trace time just before it is written: a float
// goes out widened to a double, an integer as an integer. The value is taken by reference so
// that a disabled category costs the load of its byte and nothing else, neither the load of the
// value nor the reading of the clock.
template <typename T>
requires std::is_arithmetic_v<T>
inline void emit_counter(const perfetto::CounterTrack& track, const T& value) {
  if (!category_enabled()) return;
  const std::uint64_t now = perfetto::internal::TrackEventInternal::GetTraceTime();
  if constexpr (std::is_floating_point_v<T>) {
    perfetto::TrackEvent::Counter(track, now, static_cast<double>(value));
  } else {
    perfetto::TrackEvent::Counter(track, now, value);
  }
}

// The in-process session that stands in for the device's tracing service. Starting it opens
// (truncates) the trace file, announces it on stderr unless quiet, and enables the category; a
// failure to open is reported the same way and leaves the category disabled. Starting while a
// session runs ends that one first. Stopping writes what is gathered, disables the category and
// closes the file; it is safe to call at any time, any number of times.
bool start_session(const std::string& path, bool quiet);
void stop_session();

// Packets gather in a batch of this size. A full batch goes to a writer thread of this layer
// while the next one gathers; flush() and the end of the session write everything gathered and
// return once it is in the file. A packet larger than the batch goes out on its own.
inline constexpr std::size_t kBatchBytes = 128 * 1024;

// Writes the gathered packets. The engine calls it at every tick, so that the file is never more
// than one tick behind. A write that stops short (a full disk) leaves the file cut back to the
// last whole packet, and recording ends.
void flush();

// For the ways out that run no destructor. Async-signal-safe: a fatal signal's handler calls it
// to write the gathered packets. It waits a bounded time for a writer on another thread to finish.
void flush_from_signal_handler();

// A SIGKILL runs no code of this process, and may cut a write short inside a packet. A process
// that outlives this one (the exit guard) takes the session's file at its own start, keeps the
// descriptor open, and once this process has ended, cuts the file back to the packets whose
// write had completed. Both are async-signal-safe; cutting a file whose session has ended, or
// has since been replaced, does nothing.
struct SessionFile {
  int fd = -1;
  std::uint32_t session = 0;
};
SessionFile session_file();
void cut_to_flushed_packets(const SessionFile& file);

}  // namespace emberline::trace
