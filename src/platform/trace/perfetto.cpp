#include "platform/trace/perfetto.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iostream>
#include <mutex>
#include <new>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

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
constexpr std::uint32_t kInternedData = 12;
constexpr std::uint32_t kSequenceFlags = 13;
constexpr std::uint32_t kTimestampClockId = 58;
constexpr std::uint32_t kTrackDescriptor = 60;
constexpr std::uint64_t kIncrementalStateCleared = 1;
constexpr std::uint64_t kNeedsIncrementalState = 2;
}  // namespace trace_packet
namespace interned_data {
constexpr std::uint32_t kEventNames = 2;
constexpr std::uint32_t kDebugAnnotationNames = 3;
constexpr std::uint32_t kIid = 1;  // EventName and DebugAnnotationName alike
constexpr std::uint32_t kName = 2;
}  // namespace interned_data
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
constexpr std::uint32_t kNameIid = 10;
constexpr std::uint32_t kTrackUuid = 11;
constexpr std::uint32_t kCounterValue = 30;
constexpr std::uint32_t kDoubleCounterValue = 44;
constexpr std::uint64_t kTypeSliceBegin = 1;
constexpr std::uint64_t kTypeSliceEnd = 2;
constexpr std::uint64_t kTypeCounter = 4;
}  // namespace track_event
namespace debug_annotation {
constexpr std::uint32_t kNameIid = 1;
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
  // The uuid as every event on the track writes it, encoded once.
  char uuid_varint[ProtoWriter::kMaxVarint] = {};
  std::uint8_t uuid_size = 0;
};

// One lock orders the whole file: packets never interleave, a descriptor is written before any
// event that needs it, and stop cannot close the file under a writer.
struct State {
  std::mutex mutex;
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

// --- The file and the batch ----------------------------------------------------------------------

// What the exit guard needs to cut the file back after this process is gone. It lives in memory
// shared with the guard, which is forked after the session has started.
struct FileRecord {
  std::atomic<int> fd{-1};
  std::atomic<std::uint32_t> session{0};
  std::atomic<std::uint64_t> flushed{0};  // bytes of whole packets in the file
};
static_assert(std::atomic<int>::is_always_lock_free &&
                  std::atomic<std::uint64_t>::is_always_lock_free,
              "shared with another process and read in signal handlers");

// Set once, by the first session; null until then.
std::atomic<FileRecord*> file_record{nullptr};

FileRecord& make_file_record() {
  if (FileRecord* record = file_record.load(std::memory_order_acquire)) return *record;
  void* page = ::mmap(nullptr, sizeof(FileRecord), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  // Without shared memory a SIGKILL may leave a torn last packet; everything else still works.
  FileRecord* record = page == MAP_FAILED ? new FileRecord : new (page) FileRecord;
  file_record.store(record, std::memory_order_release);
  return *record;
}

// Packets waiting for the file, in two batches: one gathers while a thread of its own writes the
// other, so that a thread making packets fast (the DSP worker) does not also wait for the file.
// Besides the lock's holder, a fatal signal's handler may take the batches, so they are taken by
// an atomic flag of their own, and live in static storage: a handler needs no lock, no allocation
// and no pointer that could move. Each batch knows where in the file it goes. The order of the
// stores below is what lets a handler that interrupted any thread anywhere write the batches all
// the same: `size` covers only bytes already in place, and a write the handler repeats puts the
// same bytes in the same place of the file.
struct Batch {
  std::atomic<std::uint64_t> at{0};  // where in the file its first byte goes
  std::atomic<std::size_t> size{0};  // bytes of whole packets gathered
  char bytes[emberline::trace::kBatchBytes];
};
struct Batches {
  std::atomic<bool> taken{false};
  std::atomic<int> gathering{0};           // the batch that packets go into
  std::atomic<int> writing{-1};            // the batch the writer thread has, or -1
  std::atomic<bool> writer_failed{false};  // a write of the writer thread stopped short
  pid_t writer_process = 0;                // the process whose writer thread runs; by the holder
  Batch batch[2];
};
Batches batches;
// Whether this thread has the batches, for a handler that interrupted its own thread.
thread_local bool this_thread_has_batch = false;

// Takes the batches for the holder of the lock. Only a fatal signal's handler can have them
// already, and keeps them while the process ends: the packet is then dropped.
class BatchHold {
 public:
  BatchHold() : held_(!batches.taken.exchange(true, std::memory_order_acquire)) {
    this_thread_has_batch = held_;
  }
  ~BatchHold() {
    if (!held_) return;
    this_thread_has_batch = false;
    batches.taken.store(false, std::memory_order_release);
  }
  BatchHold(const BatchHold&) = delete;
  BatchHold& operator=(const BatchHold&) = delete;
  explicit operator bool() const { return held_; }

 private:
  const bool held_;
};

// From here to append(), code runs with the batches taken, also in a fatal signal's handler, and
// so makes async-signal-safe calls only. The writer thread runs write_at() alone.

int open_fd() {
  FileRecord* record = file_record.load(std::memory_order_acquire);
  return record != nullptr ? record->fd.load(std::memory_order_relaxed) : -1;
}

void end_recording() {
  category().store(0, std::memory_order_relaxed);
  FileRecord* record = file_record.load(std::memory_order_acquire);
  if (record == nullptr) return;
  const int fd = record->fd.exchange(-1, std::memory_order_acq_rel);
  if (fd >= 0) ::close(fd);
}

// Bytes of the whole packets at the start of `data`: each is field 1 of a Trace, a one-byte tag
// and a varint length.
std::size_t whole_packets(const char* data, std::size_t size) {
  std::size_t whole = 0;
  for (std::size_t pos = 1; pos < size; pos = whole + 1) {
    std::uint64_t length = 0;
    for (int shift = 0;; shift += 7) {
      if (pos == size || shift > 63) return whole;
      const auto byte = static_cast<unsigned char>(data[pos++]);
      length |= std::uint64_t{byte & 0x7fu} << shift;
      if ((byte & 0x80) == 0) break;
    }
    if (length > size - pos) return whole;
    whole = pos + length;
  }
  return whole;
}

// Puts whole packets at `at` in the file, and returns whether all of them got there. A write
// that stops short (a full disk) cuts the file back to the last packet that reached it whole, so
// that the file stays a readable trace; the caller then ends recording. The record of the file's
// whole packets only grows: a handler may write a batch again beside the writer thread.
bool write_at(const char* data, std::size_t size, std::uint64_t at) {
  const int fd = open_fd();
  if (fd < 0) return false;
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = ::pwrite(fd, data + done, size - done, static_cast<off_t>(at + done));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  const std::uint64_t whole = at + (done == size ? size : whole_packets(data, done));
  std::atomic<std::uint64_t>& flushed = file_record.load(std::memory_order_acquire)->flushed;
  std::uint64_t known = flushed.load(std::memory_order_relaxed);
  while (known < whole && !flushed.compare_exchange_weak(known, whole, std::memory_order_release,
                                                         std::memory_order_relaxed)) {
  }
  if (done == size) return true;
  if (::ftruncate(fd, static_cast<off_t>(whole)) != 0) {
    // Nothing more can be done: the reader will see a torn last packet.
  }
  return false;
}

Batch& gathering() {
  return batches.batch[batches.gathering.load(std::memory_order_acquire)];
}

// Writes `size` bytes at the batch's place and moves the place behind them. The batch is emptied
// before its place moves, so that a handler in between writes nothing rather than write its
// bytes where they do not go.
bool write_and_advance(Batch& batch, const char* data, std::size_t size) {
  const std::uint64_t at = batch.at.load(std::memory_order_relaxed);
  const bool whole = write_at(data, size, at);
  batch.size.store(0, std::memory_order_release);
  batch.at.store(at + size, std::memory_order_release);
  if (!whole) end_recording();
  return whole;
}

// Writes the gathered packets where they go, and empties the batch.
bool write_gathered() {
  Batch& batch = gathering();
  const std::size_t size = batch.size.load(std::memory_order_acquire);
  if (size == 0) return open_fd() >= 0;
  return write_and_advance(batch, batch.bytes, size);
}

// Writes a batch handed to the writer thread, which stays where it is until it is handed back.
bool write_handed(int writing) {
  const Batch& batch = batches.batch[writing];
  return write_at(batch.bytes, batch.size.load(std::memory_order_acquire),
                  batch.at.load(std::memory_order_acquire));
}

// Waits until the writer thread has no batch. A write of its that stopped short ends recording
// here, in the holder, which alone may close the file.
bool await_writer() {
  for (int writing = batches.writing.load(std::memory_order_acquire); writing >= 0;
       writing = batches.writing.load(std::memory_order_acquire)) {
    batches.writing.wait(writing, std::memory_order_acquire);
  }
  if (!batches.writer_failed.load(std::memory_order_acquire)) return true;
  end_recording();
  return false;
}

// Writes everything gathered, and returns once it is in the file.
bool flush_batch() {
  return await_writer() && write_gathered();
}

// Hands the full batch to the writer thread and gathers into the other one, once the writer
// thread is done with it.
bool hand_off() {
  if (batches.writer_process != ::getpid()) return flush_batch();
  if (!await_writer()) return false;
  const int full = batches.gathering.load(std::memory_order_relaxed);
  Batch& batch = batches.batch[full];
  Batch& next = batches.batch[1 - full];
  next.size.store(0, std::memory_order_release);
  next.at.store(
      batch.at.load(std::memory_order_relaxed) + batch.size.load(std::memory_order_relaxed),
      std::memory_order_release);
  batches.writing.store(full, std::memory_order_release);
  batches.writing.notify_one();
  batches.gathering.store(1 - full, std::memory_order_release);
  return open_fd() >= 0;
}

void write_handed_batches() {
  ::pthread_setname_np(::pthread_self(), "TraceWriter");
  for (;;) {
    batches.writing.wait(-1, std::memory_order_acquire);
    if (!write_handed(batches.writing.load(std::memory_order_acquire))) {
      category().store(0, std::memory_order_relaxed);
      batches.writer_failed.store(true, std::memory_order_release);
    }
    batches.writing.store(-1, std::memory_order_release);
    batches.writing.notify_all();
  }
}

// The writer thread lives for the rest of the process, waiting while no batch is handed to it.
// Without it, every full batch is written by the thread that filled it. A child forked by a
// tracing process has no writer thread, nor any batch being written.
void start_writer() {
  if (batches.writer_process == ::getpid()) return;
  batches.writing.store(-1, std::memory_order_release);
  try {
    std::thread(write_handed_batches).detach();
    batches.writer_process = ::getpid();
  } catch (const std::system_error&) {
  }
}

// What a fatal signal's handler writes: the writer thread's batch, again or before that thread gets
// to it, then the gathered one. It never waits for the writer thread, which may be the one that
// crashed.
void write_for_handler() {
  if (batches.writer_failed.load(std::memory_order_acquire)) return;
  const int writing = batches.writing.load(std::memory_order_acquire);
  if (writing >= 0 && !write_handed(writing)) {
    end_recording();
    return;
  }
  write_gathered();
}

// A packet joins the batch, which goes out first if the packet does not fit behind it.
void append(const std::string& packet) {
  if (open_fd() < 0) return;
  if (packet.size() > emberline::trace::kBatchBytes - gathering().size.load()) {
    if (packet.size() > emberline::trace::kBatchBytes) {
      // Written on its own, behind everything gathered.
      if (flush_batch()) write_and_advance(gathering(), packet.data(), packet.size());
      return;
    }
    if (!hand_off()) return;
  }
  Batch& batch = gathering();
  const std::size_t at = batch.size.load(std::memory_order_relaxed);
  std::memcpy(batch.bytes + at, packet.data(), packet.size());
  batch.size.store(at + packet.size(), std::memory_order_release);
}

// Encodes a packet into `bytes`, made `bound` long for the writer and then cut to what it wrote.
template <typename Encode>
void encode_into(std::string& bytes, std::size_t bound, Encode encode) {
  bytes.resize(bound);
  ProtoWriter w(bytes.data());
  encode(w);
  bytes.resize(w.size());
}

void put_descriptor(ProtoWriter& w, std::uint64_t uuid, const TrackInfo& info) {
  w.add_varint<track_descriptor::kUuid>(uuid);
  if (info.parent_uuid != 0) w.add_varint<track_descriptor::kParentUuid>(info.parent_uuid);
  if (!info.name.empty()) {
    w.add_string<track_descriptor::kName>(info.name);
  } else if (info.counter_name != nullptr) {
    w.add_string<track_descriptor::kName>(info.counter_name);
  }
  switch (info.kind) {
    case TrackInfo::Kind::kProcess: {
      std::size_t process = w.begin_nested<track_descriptor::kProcess>();
      w.add_varint<process_descriptor::kPid>(static_cast<std::uint64_t>(::getpid()));
      w.add_string<process_descriptor::kProcessName>(emberline::os::program_name());
      w.end_nested(process);
      break;
    }
    case TrackInfo::Kind::kCounter:
      // Unit, multiplier and incremental encoding all keep their defaults.
      w.end_nested(w.begin_nested<track_descriptor::kCounter>());
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
  // Once per track and session, so allocating here is fine.
  std::string bytes;
  const std::size_t names = info.name.size() + ::strlen(emberline::os::program_name()) +
                            (info.counter_name != nullptr ? ::strlen(info.counter_name) : 0);
  encode_into(bytes, 16 * ProtoWriter::kMaxField + names, [&](ProtoWriter& w) {
    std::size_t packet = w.begin_nested<trace_proto::kPacket>();
    w.add_varint<trace_packet::kTimestamp>(internal::TrackEventInternal::GetTraceTime());
    w.add_varint<trace_packet::kTimestampClockId>(kTraceClock);
    w.add_varint<trace_packet::kTrustedPacketSequenceId>(thread_sequence());
    std::size_t descriptor = w.begin_nested<trace_packet::kTrackDescriptor>();
    put_descriptor(w, uuid, info);
    w.end_nested(descriptor);
    w.end_nested(packet);
  });
  append(bytes);
}

TrackInfo& add_track(State& s, std::uint64_t uuid, TrackInfo&& made) {
  TrackInfo& info = s.tracks.emplace(uuid, std::move(made)).first->second;
  info.uuid_size = static_cast<std::uint8_t>(ProtoWriter::encode_varint(uuid, info.uuid_varint));
  return info;
}

TrackInfo& find_or_add(State& s, const Track& track, TrackInfo::Kind kind,
                       const char* counter_name) {
  auto found = s.tracks.find(track.uuid);
  if (found != s.tracks.end()) return found->second;
  return add_track(s, track.uuid, {kind, track.parent_uuid, counter_name, {}, 0});
}

void add_process_track(State& s) {
  if (s.tracks.count(Track::process_uuid()) == 0) {
    add_track(s, Track::process_uuid(), {TrackInfo::Kind::kProcess, 0, nullptr, {}, 0});
  }
}

// --- Interned names ------------------------------------------------------------------------------

// Names interned by address, as the client library interns static names: a text goes into the
// trace once per sequence and session, and events refer to it by number. That keeps a DSP
// record's two packets to about half their size with names written out, and the file's bytes are
// most of the worker's cost. As with the client library, a name must be static: its address
// holds the same text for the whole process.
class Interner {
 public:
  void clear() {
    std::fill(slots_.begin(), slots_.end(), Slot{});
    used_ = 0;
  }

  // The number of `name`, and whether it is fresh: a fresh name's text must go out with the
  // packet that first refers to it.
  std::uint64_t find(const char* name, bool& fresh) {
    if (!slots_.empty()) {
      const Slot& slot = slots_[slot_of(name)];
      fresh = slot.name != name;
      if (!fresh) return slot.iid;
    }
    return find_further(name, fresh);
  }

 private:
  struct Slot {
    const char* name = nullptr;
    std::uint64_t iid = 0;
  };
  static constexpr std::size_t kFirstSlots = 32;  // a power of two

  std::size_t slot_of(const char* name) const {
    const auto address = reinterpret_cast<std::uintptr_t>(name);
    return static_cast<std::size_t>((address * 0x9e3779b97f4a7c15ull) >> 40) & (slots_.size() - 1);
  }

  // The table is made on the first name, so that a thread that writes counters alone never
  // allocates one.
  [[gnu::noinline]] std::uint64_t find_further(const char* name, bool& fresh) {
    if (slots_.empty()) slots_.resize(kFirstSlots);
    std::size_t i = slot_of(name);
    for (; slots_[i].name != nullptr; i = (i + 1) & (slots_.size() - 1)) {
      if (slots_[i].name == name) {
        fresh = false;
        return slots_[i].iid;
      }
    }
    fresh = true;
    slots_[i] = {name, ++used_};
    if (2 * used_ > slots_.size()) grow();
    return used_;
  }

  void grow() {
    std::vector<Slot> old(2 * slots_.size());
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.name == nullptr) continue;
      std::size_t i = slot_of(slot.name);
      while (slots_[i].name != nullptr) i = (i + 1) & (slots_.size() - 1);
      slots_[i] = slot;
    }
  }

  std::vector<Slot> slots_;
  std::uint64_t used_ = 0;  // numbers go from 1
};

// A thread's packet sequence and what it has interned in the current session.
struct Sequence {
  std::uint32_t session = 0;
  bool cleared = false;  // whether a packet of this session has cleared the sequence's state
  Interner event_names;
  Interner annotation_names;
  // The tracks this thread wrote to last, by the low bits of their uuids: entries of the track
  // table never move or go away.
  struct Recent {
    std::uint64_t uuid = 0;
    TrackInfo* info = nullptr;
  };
  Recent recent_tracks[8];
};
// Used under the lock only.
thread_local Sequence sequence;

// --- Events --------------------------------------------------------------------------------------

// One event, as the writers below describe it.
struct Event {
  std::uint64_t type;
  const Track& track;
  std::uint32_t clock_id;
  std::uint64_t timestamp;
  const std::optional<double> real = std::nullopt;
  const std::optional<std::int64_t> integer = std::nullopt;
  const char* name = nullptr;
  const DebugAnnotation* annotations = nullptr;
  std::size_t annotation_count = 0;
};

// An event's names as its packet refers to them, and the texts that go out with it. Filled in
// as far as the event needs it, and no further.
struct Names {
  static constexpr std::size_t kInterned = 8;  // any further annotations carry their names inline
  struct Fresh {
    bool event_name;  // else an annotation's
    std::uint64_t iid;
    const char* text;
    std::size_t length;
  };
  std::uint64_t flags;
  std::uint64_t event;  // 0: no name
  std::uint64_t annotations[kInterned];
  Fresh fresh[1 + kInterned];
  std::size_t fresh_count;
};

// A name new to the sequence: its text goes out with this packet.
void add_fresh(Names& names, std::size_t& most, bool event_name, std::uint64_t iid,
               const char* name) {
  const std::size_t length = ::strlen(name);
  names.fresh[names.fresh_count++] = {event_name, iid, name, length};
  most += ProtoWriter::kMaxNesting + ProtoWriter::kMaxField + ProtoWriter::max_string(length);
}

// Finds the event's names in this thread's sequence, and returns the most bytes its packet can
// take. A name is counted as sent from here on: if the packet does not reach the file, recording
// has ended, and the next session starts the sequence afresh.
std::size_t intern(const State& s, const Event& e, Names& names) {
  names.flags = 0;
  names.event = 0;
  names.fresh_count = 0;
  // The packet and the event, each with six fields at most, and the interned data.
  std::size_t most = 3 * ProtoWriter::kMaxNesting + 12 * ProtoWriter::kMaxField;
  if (e.name == nullptr && e.annotation_count == 0) return most;
  Sequence& own = sequence;
  if (own.session != s.session) {
    own.session = s.session;
    own.cleared = false;
    own.event_names.clear();
    own.annotation_names.clear();
  }
  bool fresh = false;
  if (e.name != nullptr) {
    names.event = own.event_names.find(e.name, fresh);
    if (fresh) add_fresh(names, most, true, names.event, e.name);
  }
  for (std::size_t i = 0; i < e.annotation_count; ++i) {
    most += ProtoWriter::kMaxNesting + 2 * ProtoWriter::kMaxField;
    const char* name = e.annotations[i].name;
    if (i >= Names::kInterned) {
      if (name != nullptr) most += ProtoWriter::max_string(::strlen(name));
      continue;
    }
    names.annotations[i] = 0;
    if (name == nullptr) continue;
    names.annotations[i] = own.annotation_names.find(name, fresh);
    if (fresh) add_fresh(names, most, false, names.annotations[i], name);
  }
  names.flags = trace_packet::kNeedsIncrementalState |
                (own.cleared ? 0 : trace_packet::kIncrementalStateCleared);
  own.cleared = true;
  return most;
}

// Returns the size of the packet encoded at `out`. The writer is local to this function, so that
// its position stays in a register rather than being reloaded after every byte stored.
std::size_t encode(char* out, const Event& e, const TrackInfo& track, const Names& names) {
  ProtoWriter w(out);
  const std::size_t packet = w.begin_nested<trace_proto::kPacket>();
  w.add_varint<trace_packet::kTimestamp>(e.timestamp);
  w.add_varint<trace_packet::kTimestampClockId>(e.clock_id);
  w.add_varint<trace_packet::kTrustedPacketSequenceId>(thread_sequence());
  if (names.flags != 0) w.add_varint<trace_packet::kSequenceFlags>(names.flags);
  if (names.fresh_count != 0) {
    const std::size_t interned = w.begin_nested<trace_packet::kInternedData>();
    for (std::size_t i = 0; i < names.fresh_count; ++i) {
      const Names::Fresh& fresh = names.fresh[i];
      const std::size_t entry = fresh.event_name
                                    ? w.begin_nested<interned_data::kEventNames>()
                                    : w.begin_nested<interned_data::kDebugAnnotationNames>();
      w.add_varint<interned_data::kIid>(fresh.iid);
      w.add_string<interned_data::kName>({fresh.text, fresh.length});
      w.end_nested(entry);
    }
    w.end_nested(interned);
  }
  const std::size_t event = w.begin_nested<trace_packet::kTrackEvent>();
  w.add_varint<track_event::kType>(e.type);
  w.add_encoded_varint<track_event::kTrackUuid>(track.uuid_varint, track.uuid_size);
  if (e.real) w.add_double<track_event::kDoubleCounterValue>(*e.real);
  if (e.integer) w.add_int64<track_event::kCounterValue>(*e.integer);
  if (names.event != 0) w.add_varint<track_event::kNameIid>(names.event);
  for (std::size_t i = 0; i < e.annotation_count; ++i) {
    const std::int64_t value = e.annotations[i].value;
    if (i < Names::kInterned && names.annotations[i] != 0) {
      w.add_varint_pair<track_event::kDebugAnnotations, debug_annotation::kNameIid,
                        debug_annotation::kIntValue>(names.annotations[i],
                                                     static_cast<std::uint64_t>(value));
      continue;
    }
    const std::size_t annotation = w.begin_nested<track_event::kDebugAnnotations>();
    if (i >= Names::kInterned && e.annotations[i].name != nullptr) {
      w.add_string<debug_annotation::kName>(e.annotations[i].name);
    }
    w.add_int64<debug_annotation::kIntValue>(value);
    w.end_nested(annotation);
  }
  w.end_nested(event);
  w.end_nested(packet);
  return w.size();
}

// Writes the event behind the descriptors its track still needs in this session. It is encoded
// straight into the batch; only a packet that might not fit an empty batch takes a buffer of its
// own.
void write_event(const Event& e, TrackInfo::Kind kind, const char* counter_name = nullptr) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  BatchHold hold;
  if (!hold || open_fd() < 0) return;
  Sequence::Recent& recent =
      sequence.recent_tracks[e.track.uuid % std::size(sequence.recent_tracks)];
  if (recent.info == nullptr || recent.uuid != e.track.uuid) {
    recent = {e.track.uuid, &find_or_add(s, e.track, kind, counter_name)};
  }
  const TrackInfo& track = *recent.info;
  describe(s, e.track.uuid, *recent.info);
  Names names;
  const std::size_t most = intern(s, e, names);
  if (most > emberline::trace::kBatchBytes) {
    std::string bytes;
    bytes.resize(most);
    bytes.resize(encode(bytes.data(), e, track, names));
    append(bytes);
    return;
  }
  if (most > emberline::trace::kBatchBytes - gathering().size.load(std::memory_order_relaxed) &&
      !hand_off()) {
    return;
  }
  Batch& batch = gathering();
  const std::size_t at = batch.size.load(std::memory_order_relaxed);
  batch.size.store(at + encode(batch.bytes + at, e, track, names), std::memory_order_release);
}

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
  encode_into(bytes, 16 * ProtoWriter::kMaxField, [&](ProtoWriter& w) {
    std::size_t packet = w.begin_nested<trace_proto::kPacket>();
    w.add_varint<trace_packet::kTrustedPacketSequenceId>(kSessionSequence);
    std::size_t snapshot = w.begin_nested<trace_packet::kClockSnapshot>();
    const std::pair<std::uint32_t, std::uint64_t> clocks[] = {
        {protos::pbzero::BUILTIN_CLOCK_BOOTTIME, nanoseconds(boot)},
        {protos::pbzero::BUILTIN_CLOCK_MONOTONIC, nanoseconds(mono)},
    };
    for (const auto& [id, value] : clocks) {
      std::size_t clock = w.begin_nested<clock_snapshot::kClocks>();
      w.add_varint<clock_snapshot::kClockId>(id);
      w.add_varint<clock_snapshot::kTimestamp>(value);
      w.end_nested(clock);
    }
    // Events are stamped with the monotonic clock; making it the trace's clock keeps their times as
    // written, while the boot-time reading still lets a reader map them onto a system trace.
    w.add_varint<clock_snapshot::kPrimaryTraceClock>(kTraceClock);
    w.end_nested(snapshot);
    w.end_nested(packet);
  });
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
  write_event({track_event::kTypeCounter, track, kTraceClock, timestamp, value},
              TrackInfo::Kind::kCounter, track.name);
}

void TrackEvent::Counter(const CounterTrack& track, std::uint64_t timestamp, std::int64_t value) {
  if (!recording()) return;
  write_event({track_event::kTypeCounter, track, kTraceClock, timestamp, std::nullopt, value},
              TrackInfo::Kind::kCounter, track.name);
}

void TrackEvent::SliceBegin(const Track& track, TraceTimestamp timestamp, const char* name,
                            const DebugAnnotation* annotations, std::size_t annotation_count) {
  if (!recording()) return;
  write_event({track_event::kTypeSliceBegin, track, timestamp.clock_id, timestamp.value,
               std::nullopt, std::nullopt, name, annotations, annotation_count},
              TrackInfo::Kind::kCustom);
}

void TrackEvent::SliceEnd(const Track& track, TraceTimestamp timestamp,
                          const DebugAnnotation* annotations, std::size_t annotation_count) {
  if (!recording()) return;
  write_event({track_event::kTypeSliceEnd, track, timestamp.clock_id, timestamp.value, std::nullopt,
               std::nullopt, nullptr, annotations, annotation_count},
              TrackInfo::Kind::kCustom);
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
  BatchHold hold;
  if (hold && open_fd() >= 0) describe(s, track.uuid, info);
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
    perfetto::BatchHold hold;
    if (!hold) {
      ::close(fd);
      return fail();
    }
    perfetto::start_writer();
    // A session started by another thread meanwhile.
    perfetto::flush_batch();
    perfetto::end_recording();
    perfetto::batches.writer_failed.store(false, std::memory_order_relaxed);
    for (perfetto::Batch& batch : perfetto::batches.batch) {
      batch.size.store(0, std::memory_order_relaxed);
      batch.at.store(0, std::memory_order_relaxed);
    }
    // Session 0 stands for "never described", so the count skips it when it wraps.
    if (++s.session == 0) ++s.session;
    perfetto::FileRecord& record = perfetto::make_file_record();
    record.flushed.store(0, std::memory_order_relaxed);
    record.session.store(s.session, std::memory_order_relaxed);
    record.fd.store(fd, std::memory_order_release);
    perfetto::add_process_track(s);
    // A file that takes no bytes (a full disk, /dev/full) is as useless as one that won't open.
    perfetto::append(perfetto::clock_snapshot_packet());
    if (!perfetto::flush_batch()) return fail();
  }
  if (!quiet) std::cerr << "Trace will be saved to '" << path << "'\n" << std::flush;
  perfetto::category().store(1, std::memory_order_release);
  return true;
}

void stop_session() {
  perfetto::State& s = perfetto::state();
  std::lock_guard lock(s.mutex);
  perfetto::BatchHold hold;
  if (!hold) return;
  perfetto::flush_batch();
  perfetto::end_recording();
}

void flush() {
  // Without a session nothing gathers, and a tick costs one load.
  if (perfetto::open_fd() < 0) return;
  perfetto::State& s = perfetto::state();
  std::lock_guard lock(s.mutex);
  perfetto::BatchHold hold;
  if (hold) perfetto::flush_batch();
}

void flush_from_signal_handler() {
  const int saved_errno = errno;
  // Another thread may be writing the batches out: it is given a while to finish. The batches are
  // then kept, so that no write starts that the end of the process could cut short.
  bool have = perfetto::this_thread_has_batch;
  for (int attempt = 0; attempt < 200 && !have; ++attempt) {
    have = !perfetto::batches.taken.exchange(true, std::memory_order_acquire);
    const timespec pause{0, 5'000'000};
    if (!have) ::nanosleep(&pause, nullptr);
  }
  if (have) {
    perfetto::this_thread_has_batch = true;
    perfetto::write_for_handler();
  }
  errno = saved_errno;
}

SessionFile session_file() {
  perfetto::FileRecord* record = perfetto::file_record.load(std::memory_order_acquire);
  if (record == nullptr) return {};
  return {record->fd.load(std::memory_order_acquire),
          record->session.load(std::memory_order_acquire)};
}

void cut_to_flushed_packets(const SessionFile& file) {
  perfetto::FileRecord* record = perfetto::file_record.load(std::memory_order_acquire);
  if (record == nullptr || file.fd < 0) return;
  if (record->fd.load(std::memory_order_acquire) != file.fd ||
      record->session.load(std::memory_order_acquire) != file.session) {
    return;
  }
  if (::ftruncate(file.fd, static_cast<off_t>(record->flushed.load(std::memory_order_acquire))) !=
      0) {
    // The file keeps what the last write left; nothing else can be done from here.
  }
}

}  // namespace emberline::trace
