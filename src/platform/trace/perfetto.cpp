#include "trace/perfetto.h"

#include <ctime>

#include "emberline.h"

// Minimal placeholder until the encoder lands: the category stays disabled.
namespace perfetto {
namespace internal {
const TrackEventCategoryRegistry kCategoryRegistry;
std::uint64_t TrackEventInternal::GetTraceTime() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000000ull + now.tv_nsec;
}
}  // namespace internal
std::uint64_t Track::process_uuid() { return 1; }
CounterTrack::CounterTrack(const char* name) : Track(0, process_uuid()), name(name) {}
void TrackEvent::Counter(const CounterTrack&, std::uint64_t, double) {}
void TrackEvent::Counter(const CounterTrack&, std::uint64_t, std::int64_t) {}
void TrackEvent::SliceBegin(const Track&, std::uint64_t, const char*, const DebugAnnotation*,
                            std::size_t) {}
void TrackEvent::SliceEnd(const Track&, std::uint64_t) {}
void TrackEvent::SetTrackDescriptor(const Track&, const protos::gen::TrackDescriptor&) {}
}  // namespace perfetto

namespace emberline::trace {
bool start_session(const std::string&, bool) { return false; }
void stop_session() {}
std::string default_trace_path() {
  return std::string(kDefaultOutputDirectory) + kFileStem + local_time_stamp() + ".perfetto-trace";
}
}  // namespace emberline::trace
