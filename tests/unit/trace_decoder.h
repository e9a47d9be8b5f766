#pragma once

// Reads a trace file back as protobuf messages, independently of the writer. Malformed input
// (a truncated field, an overlong varint, a wire type the trace never uses) throws.

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace trace_test {

// Field numbers of Perfetto's trace protos.
enum TracePacketField { kClockSnapshot = 6, kTimestamp = 8, kSequenceId = 10, kClockId = 58 };
enum PacketDataField { kTrackEvent = 11, kTrackDescriptor = 60 };
enum ClockSnapshotField { kClocks = 1, kPrimaryTraceClock = 2 };
enum TrackDescriptorField { kUuid = 1, kName = 2, kProcess = 3, kParent = 5, kCounterInfo = 8 };
enum TrackEventField { kAnnotations = 4, kType = 9, kTrackUuid = 11, kEventName = 23 };
enum CounterValueField { kIntValue = 30, kDoubleValue = 44 };
enum DebugAnnotationField { kAnnotationInt = 4, kAnnotationName = 10 };
enum EventType { kSliceBegin = 1, kSliceEnd = 2, kCounter = 4 };

class Message {
 public:
  explicit Message(const std::string& data) {
    std::size_t pos = 0;
    auto varint = [&] {
      std::uint64_t value = 0;
      for (int shift = 0; shift < 64; shift += 7) {
        if (pos == data.size()) throw std::runtime_error("truncated varint");
        auto byte = static_cast<unsigned char>(data[pos++]);
        value |= std::uint64_t{byte & 0x7fu} << shift;
        if ((byte & 0x80) == 0) return value;
      }
      throw std::runtime_error("overlong varint");
    };
    while (pos < data.size()) {
      std::uint64_t tag = varint();
      Field f{static_cast<int>(tag >> 3), static_cast<int>(tag & 7), 0, {}};
      if (f.wire == 0) {
        f.value = varint();
      } else if (f.wire == 1 || f.wire == 2) {
        std::uint64_t size = f.wire == 1 ? 8 : varint();
        if (size > data.size() - pos) throw std::runtime_error("truncated field");
        f.bytes = data.substr(pos, size);
        pos += size;
      } else {
        throw std::runtime_error("unexpected wire type " + std::to_string(f.wire));
      }
      fields_.push_back(std::move(f));
    }
  }

  // Each reads the field's last occurrence, as protobuf does; a wrong wire type reads as absent.
  std::optional<std::uint64_t> varint(int number) const {
    const Field* f = last(number, 0);
    return f ? std::optional(f->value) : std::nullopt;
  }
  std::optional<std::int64_t> int64(int number) const {
    auto value = varint(number);
    return value ? std::optional(static_cast<std::int64_t>(*value)) : std::nullopt;
  }
  std::optional<double> fixed_double(int number) const {
    const Field* f = last(number, 1);
    if (!f) return std::nullopt;
    double value;  // little-endian on the wire and on every host this runs on
    std::memcpy(&value, f->bytes.data(), sizeof value);
    return value;
  }
  std::optional<std::string> text(int number) const {
    const Field* f = last(number, 2);
    return f ? std::optional(f->bytes) : std::nullopt;
  }
  std::optional<Message> message(int number) const {
    const Field* f = last(number, 2);
    return f ? std::optional(Message(f->bytes)) : std::nullopt;
  }
  std::vector<Message> messages(int number) const {
    std::vector<Message> found;
    for (const Field& f : fields_) {
      if (f.number == number && f.wire == 2) found.emplace_back(f.bytes);
    }
    return found;
  }

 private:
  struct Field {
    int number;
    int wire;
    std::uint64_t value;
    std::string bytes;
  };

  const Field* last(int number, int wire) const {
    const Field* found = nullptr;
    for (const Field& f : fields_) {
      if (f.number == number && f.wire == wire) found = &f;
    }
    return found;
  }

  std::vector<Field> fields_;
};

// A Trace is repeated field 1, one TracePacket each.
inline std::vector<Message> read_trace(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Message({std::istreambuf_iterator<char>(in), {}}).messages(1);
}

}  // namespace trace_test
