#pragma once

// A trace's slices as text, one line per event, with timestamps counted from the first event's:
// "B DSP_THREAD 7 +0 conv dsp_cycle=32 ..." for a begin, "E ..." with no name for an end.

#include <map>
#include <string>
#include <vector>

#include "trace_fixture.h"

namespace trace_test {

inline std::vector<std::string> slice_events(const std::vector<Message>& packets) {
  std::map<std::uint64_t, std::string> tracks;
  for (const Message& t : check_trace(packets))
    tracks[*t.varint(kUuid)] = t.text(kName).value_or("");
  std::vector<std::string> lines;
  std::optional<std::uint64_t> first;
  Interning interning;
  for (const Message& packet : packets) {
    const EventNames names = interning.read(packet);
    auto event = packet.message(kTrackEvent);
    if (!event) continue;
    EXPECT_EQ(packet.varint(kClockId), 3u);
    if (!first) first = packet.varint(kTimestamp);
    std::string line = (event->varint(kType) == kSliceBegin ? "B " : "E ") +
                       tracks[*event->varint(kTrackUuid)] + " +" +
                       std::to_string(*packet.varint(kTimestamp) - *first);
    if (names.name) line += " " + *names.name;
    const auto annotations = event->messages(kAnnotations);
    for (std::size_t a = 0; a < annotations.size(); ++a) {
      line += " " + names.annotations[a] + "=" +
              std::to_string(annotations[a].int64(kAnnotationInt).value_or(0));
    }
    lines.push_back(line);
  }
  return lines;
}

}  // namespace trace_test
