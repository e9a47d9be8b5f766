#include "platform/trace/perfetto.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <iostream>
#include <mutex>
#include <unordered_map>

#include "platform/os/os.h"
#include "platform/trace/proto_writer.h"

namespace perfetto {
namespace internal {

const TrackEventCategoryRegistry kCategoryRegistry;

std::uint64_t TrackEventInternal::GetTraceTime() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000000ull +
         static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace internal

namespace {

using internal::ProtoWriter;

// Field numbers of Perfetto's trace protos, by message.
namespace trace_proto {
constexpr std::uint32_t kPacket = 1;
}
namespace trace_packet {
constexpr std::uint32_t kClockSnapshot = 6;
constexpr std::uint32_t kTimestamp = 8;
constexpr std::uint32_t kTrustedPacketSequenceId = 10;
constexpr std::uint32_t kTrackEvent = 11;
constexpr std::uint32_t kTimestampClockId = 58;
constexpr std::uint32_t kTrackDescriptor = 60;
}  // namespace trace_packet
namespace clock_snapshot {
constexpr std::uint32_t kClocks = 1;
constexpr std::uint32_t kPrimaryTraceClock = 2;
constexpr std::uint32_t kClockId = 1;  // ClockSnapshot.Clock
constexpr std::uint32_t kTimestamp = 2;
}  // namespace clock_snapshot
namespace track_descriptor {
constexpr std::uint32_t kUuid = 1;
constexpr std::uint32_t kName = 2;
constexpr std::uint32_t kProcess = 3;
constexpr std::uint32_t kParentUuid = 5;
constexpr std::uint32_t kCounter = 8;
}  // namespace track_descriptor
namespace process_descriptor {
constexpr std::uint32_t kPid = 1;
constexpr std::uint32_t kProcessName = 6;
}  // namespace process_descriptor
namespace track_event {
constexpr std::uint32_t kDebugAnnotations = 4;
constexpr std::uint32_t kType = 9;
constexpr std::uint32_t kTrackUuid = 11;
constexpr std::uint32_t kName = 23;
constexpr std::uint32_t kCounterValue = 30;
constexpr std::uint32_t kDoubleCounterValue = 44;
constexpr std::uint64_t kTypeSliceBegin = 1;
constexpr std::uint64_t kTypeSliceEnd = 2;
constexpr std::uint64_t kTypeCounter = 4;
}  // namespace track_event
namespace debug_annotation {
constexpr std::uint32_t kIntValue = 4;
constexpr std::uint32_t kName = 10;
}  // namespace debug_annotation

constexpr std::uint32_t kTraceClock = protos::pbzero::BUILTIN_CLOCK_MONOTONIC;

// --- Track identity ------------------------------------------------------------------------------

std::uint64_t mix(std::uint64_t x) {
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ull;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebull;
  x ^= x >> 31;
  return x;
}

std::uint64_t name_hash(const char* name) {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (; *name != '\0'; ++name) {
    hash ^= static_cast<unsigned char>(*name);
    hash *= 0x100000001b3ull;
  }
  return hash;
}

// Counter names and caller ids are keyed apart, so that an id that happens to equal a name's
// hash still names another track.
constexpr std::uint64_t kCounterKey = 0x436f756e74657273ull;
constexpr std::uint64_t kIdKey = 0x437573746f6d4964ull;

// Uuid 0 is the trace-global track, so no derived uuid may be 0.
std::uint64_t child_uuid(std::uint64_t parent, std::uint64_t key) {
  std::uint64_t uuid = mix(parent ^ mix(key));
  return uuid != 0 ? uuid : 1;
}

// --- Session state -------------------------------------------------------------------------------

struct TrackInfo {
  enum class Kind : std::uint8_t { kProcess, kCounter, kCustom };
  Kind kind;
  std::uint64_t parent_uuid;
  const char* counter_name;        // static, for counter tracks
  std::string name;                // set by SetTrackDescriptor; overrides counter_name
  std::uint32_t described_in = 0;  // the session whose trace holds this track's descriptor
};

// One lock orders the whole file: packets never interleave, a descriptor is written before any
// event that needs it, and stop cannot close the file under a writer. Writes are one system call
// per packet anyway, which costs far more than the uncontended lock.
struct State {
  std::mutex mutex;
  int fd = -1;
  off_t written = 0;  // bytes of whole packets in the file
  std::uint32_t session = 0;
  // Every track seen in this process. Entries are made on a track's first use only.
  std::unordered_map<std::uint64_t, TrackInfo> tracks;
};

State& state() {
  // Never destroyed: the worker thread may still emit while static objects go away at exit.
  static State& instance = *new State;
  return instance;
}

std::atomic<std::uint8_t>& category() {
  return *internal::kCategoryRegistry.GetCategoryState(emberline::trace::kCategoryIndex);
}

// Each thread writes its own packet sequence, as the client library's per-thread writers do.
// Sequence 1 carries the session's own packets.
constexpr std::uint32_t kSessionSequence = 1;
std::atomic<std::uint32_t> next_sequence{kSessionSequence + 1};

std::uint32_t thread_sequence() {
  thread_local const std::uint32_t id = next_sequence.fetch_add(1, std::memory_order_relaxed);
  return id;
}

void end_recording(State& s) {
  category().store(0, std::memory_order_relaxed);
  if (s.fd >= 0) ::close(s.fd);
  s.fd = -1;
}

// A packet is in the file whole or not at all: after a failed write the file is cut back to the
// last whole packet and recording ends, so the file stays a readable trace.
bool write_packet(State& s, const std::string& bytes) {
  if (s.fd < 0) return false;
  const char* data = bytes.data();
  std::size_t left = bytes.size();
  while (left > 0) {
    ssize_t count = ::write(s.fd, data, left);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      if (::ftruncate(s.fd, s.written) != 0) {
        // Nothing more can be done: the reader will see a torn last packet.
      }
      end_recording(s);
      return false;
    }
    data += count;
    left -= static_cast<std::size_t>(count);
  }
  s.written += static_cast<off_t>(bytes.size());
  return true;
}

void put_descriptor(ProtoWriter& w, std::uint64_t uuid, const TrackInfo& info) {
  w.add_varint(track_descriptor::kUuid, uuid);
  if (info.parent_uuid != 0) w.add_varint(track_descriptor::kParentUuid, info.parent_uuid);
  if (!info.name.empty()) {
    w.add_string(track_descriptor::kName, info.name);
  } else if (info.counter_name != nullptr) {
    w.add_string(track_descriptor::kName, info.counter_name);
  }
  switch (info.kind) {
    case TrackInfo::Kind::kProcess: {
      std::size_t process = w.begin_nested(track_descriptor::kProcess);
      w.add_varint(process_descriptor::kPid, static_cast<std::uint64_t>(::getpid()));
      w.add_string(process_descriptor::kProcessName, emberline::os::program_name());
      w.end_nested(process);
      break;
    }
    case TrackInfo::Kind::kCounter:
      // Unit, multiplier and incremental encoding all keep their defaults.
      w.end_nested(w.begin_nested(track_descriptor::kCounter));
      break;
    case TrackInfo::Kind::kCustom:
      break;
  }
}

// Writes the descriptors of a track and its known ancestors, outermost first, unless this
// session's trace already has them.
void describe(State& s, std::uint64_t uuid, TrackInfo& info) {
  if (info.described_in == s.session) return;
  // Marked before the parent is visited, so that a track listed as its own ancestor ends the walk.
  info.described_in = s.session;
  if (info.parent_uuid != 0) {
    auto parent = s.tracks.find(info.parent_uuid);
    if (parent != s.tracks.end()) describe(s, parent->first, parent->second);
  }
  std::string bytes;  // once per track and session, so allocating here is fine
  ProtoWriter w(bytes);
  std::size_t packet = w.begin_nested(trace_proto::kPacket);
  w.add_varint(trace_packet::kTimestamp, internal::TrackEventInternal::GetTraceTime());
  w.add_varint(trace_packet::kTimestampClockId, kTraceClock);
  w.add_varint(trace_packet::kTrustedPacketSequenceId, thread_sequence());
  std::size_t descriptor = w.begin_nested(trace_packet::kTrackDescriptor);
  put_descriptor(w, uuid, info);
  w.end_nested(descriptor);
  w.end_nested(packet);
  write_packet(s, bytes);
}

TrackInfo& find_or_add(State& s, const Track& track, TrackInfo::Kind kind,
                       const char* counter_name) {
  auto found = s.tracks.find(track.uuid);
  if (found != s.tracks.end()) return found->second;
  return s.tracks.emplace(track.uuid, TrackInfo{kind, track.parent_uuid, counter_name, {}, 0})
      .first->second;
}

void add_process_track(State& s) {
  s.tracks.try_emplace(Track::process_uuid(),
                       TrackInfo{TrackInfo::Kind::kProcess, 0, nullptr, {}, 0});
}

// --- Events --------------------------------------------------------------------------------------

// Encodes one event packet into this thread's buffer, whose capacity stays for the next event.
class EventPacket {
 public:
  EventPacket(std::uint64_t type, const Track& track, std::uint32_t clock_id,
              std::uint64_t timestamp)
      : bytes_(thread_buffer()), writer_(bytes_) {
    packet_ = writer_.begin_nested(trace_proto::kPacket);
    writer_.add_varint(trace_packet::kTimestamp, timestamp);
    writer_.add_varint(trace_packet::kTimestampClockId, clock_id);
    writer_.add_varint(trace_packet::kTrustedPacketSequenceId, thread_sequence());
    event_ = writer_.begin_nested(trace_packet::kTrackEvent);
    writer_.add_varint(track_event::kType, type);
    writer_.add_varint(track_event::kTrackUuid, track.uuid);
  }

  ProtoWriter& writer() { return writer_; }

  void add_annotations(const DebugAnnotation* annotations, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      std::size_t annotation = writer_.begin_nested(track_event::kDebugAnnotations);
      if (annotations[i].name != nullptr) {
        writer_.add_string(debug_annotation::kName, annotations[i].name);
      }
      writer_.add_int64(debug_annotation::kIntValue, annotations[i].value);
      writer_.end_nested(annotation);
    }
  }

  // Writes the packet behind the descriptors its track still needs in this session.
  void write(const Track& track, TrackInfo::Kind kind, const char* counter_name = nullptr) {
    writer_.end_nested(event_);
    writer_.end_nested(packet_);
    State& s = state();
    std::lock_guard lock(s.mutex);
    if (s.fd < 0) return;
    describe(s, track.uuid, find_or_add(s, track, kind, counter_name));
    write_packet(s, bytes_);
  }

 private:
  static std::string& thread_buffer() {
    thread_local std::string buffer;
    buffer.clear();
    return buffer;
  }

  std::string& bytes_;
  ProtoWriter writer_;
  std::size_t packet_ = 0;
  std::size_t event_ = 0;
};

bool recording() {
  return category().load(std::memory_order_relaxed) != 0;
}

std::string clock_snapshot_packet() {
  timespec boot{};
  timespec mono{};
  clock_gettime(CLOCK_BOOTTIME, &boot);
  clock_gettime(CLOCK_MONOTONIC, &mono);
  auto nanoseconds = [](const timespec& t) {
    return static_cast<std::uint64_t>(t.tv_sec) * 1000000000ull +
           static_cast<std::uint64_t>(t.tv_nsec);
  };
  std::string bytes;
  ProtoWriter w(bytes);
  std::size_t packet = w.begin_nested(trace_proto::kPacket);
  w.add_varint(trace_packet::kTrustedPacketSequenceId, kSessionSequence);
  std::size_t snapshot = w.begin_nested(trace_packet::kClockSnapshot);
  const std::pair<std::uint32_t, std::uint64_t> clocks[] = {
      {protos::pbzero::BUILTIN_CLOCK_BOOTTIME, nanoseconds(boot)},
      {protos::pbzero::BUILTIN_CLOCK_MONOTONIC, nanoseconds(mono)},
  };
  for (const auto& [id, value] : clocks) {
    std::size_t clock = w.begin_nested(clock_snapshot::kClocks);
    w.add_varint(clock_snapshot::kClockId, id);
    w.add_varint(clock_snapshot::kTimestamp, value);
    w.end_nested(clock);
  }
  // Events are stamped with the monotonic clock; making it the trace's clock keeps their times as
  // written, while the boot-time reading still lets a reader map them onto a system trace.
  w.add_varint(clock_snapshot::kPrimaryTraceClock, kTraceClock);
  w.end_nested(snapshot);
  w.end_nested(packet);
  return bytes;
}

}  // namespace

// --- Tracks --------------------------------------------------------------------------------------

std::uint64_t Track::process_uuid() {
  static const std::uint64_t uuid = child_uuid(0, static_cast<std::uint64_t>(::getpid()));
  return uuid;
}

Track::Track(std::uint64_t id, const Track& parent)
    : Track(child_uuid(parent.uuid, id ^ kIdKey), parent.uuid) {}

protos::gen::TrackDescriptor Track::Serialize() const {
  protos::gen::TrackDescriptor descriptor;
  descriptor.set_uuid(uuid);
  descriptor.set_parent_uuid(parent_uuid);
  return descriptor;
}

ProcessTrack::ProcessTrack() : Track(process_uuid(), 0) {}

ProcessTrack ProcessTrack::Current() {
  return ProcessTrack();
}

CounterTrack::CounterTrack(const char* name)
    : Track(child_uuid(process_uuid(), name_hash(name) ^ kCounterKey), process_uuid()),
      name(name) {}

// --- Events --------------------------------------------------------------------------------------

void TrackEvent::Counter(const CounterTrack& track, std::uint64_t timestamp, double value) {
  if (!recording()) return;
  EventPacket packet(track_event::kTypeCounter, track, kTraceClock, timestamp);
  packet.writer().add_double(track_event::kDoubleCounterValue, value);
  packet.write(track, TrackInfo::Kind::kCounter, track.name);
}

void TrackEvent::Counter(const CounterTrack& track, std::uint64_t timestamp, std::int64_t value) {
  if (!recording()) return;
  EventPacket packet(track_event::kTypeCounter, track, kTraceClock, timestamp);
  packet.writer().add_int64(track_event::kCounterValue, value);
  packet.write(track, TrackInfo::Kind::kCounter, track.name);
}

void TrackEvent::SliceBegin(const Track& track, TraceTimestamp timestamp, const char* name,
                            const DebugAnnotation* annotations, std::size_t annotation_count) {
  if (!recording()) return;
  EventPacket packet(track_event::kTypeSliceBegin, track, timestamp.clock_id, timestamp.value);
  if (name != nullptr) packet.writer().add_string(track_event::kName, name);
  packet.add_annotations(annotations, annotation_count);
  packet.write(track, TrackInfo::Kind::kCustom);
}

void TrackEvent::SliceEnd(const Track& track, TraceTimestamp timestamp,
                          const DebugAnnotation* annotations, std::size_t annotation_count) {
  if (!recording()) return;
  EventPacket packet(track_event::kTypeSliceEnd, track, timestamp.clock_id, timestamp.value);
  packet.add_annotations(annotations, annotation_count);
  packet.write(track, TrackInfo::Kind::kCustom);
}

void TrackEvent::SetTrackDescriptor(const Track& track,
                                    const protos::gen::TrackDescriptor& descriptor) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  TrackInfo& info = find_or_add(s, track, TrackInfo::Kind::kCustom, nullptr);
  if (info.name != descriptor.name()) {
    info.name = descriptor.name();
    info.described_in = 0;  // a renamed track is described again
  }
  if (s.fd >= 0) describe(s, track.uuid, info);
}

}  // namespace perfetto

namespace emberline::trace {

bool start_session(const std::string& path, bool quiet) {
  stop_session();
  auto fail = [&] {
    if (!quiet) std::cerr << "Failed to open trace file at '" << path << "'\n" << std::flush;
    return false;
  };
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return fail();
  {
    perfetto::State& s = perfetto::state();
    std::lock_guard lock(s.mutex);
    perfetto::end_recording(s);  // a session started by another thread meanwhile
    s.fd = fd;
    s.written = 0;
    // Session 0 stands for "never described", so the count skips it when it wraps.
    if (++s.session == 0) ++s.session;
    perfetto::add_process_track(s);
    // A file that takes no bytes (a full disk, /dev/full) is as useless as one that won't open.
    if (!perfetto::write_packet(s, perfetto::clock_snapshot_packet())) return fail();
  }
  if (!quiet) std::cerr << "Trace will be saved to '" << path << "'\n" << std::flush;
  perfetto::category().store(1, std::memory_order_release);
  return true;
}

void stop_session() {
  perfetto::State& s = perfetto::state();
  std::lock_guard lock(s.mutex);
  perfetto::end_recording(s);
}

}  // namespace emberline::trace
