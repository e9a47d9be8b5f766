#pragma once

// The few protobuf wire-format writers the trace needs. A message is encoded straight into memory
// that the caller has made large enough, by the bounds below: no check, no allocation and no call
// per field, which is what lets a busy DSP worker keep up.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace perfetto::internal {

class ProtoWriter {
 public:
  // Upper bounds of what each writer below puts out.
  static constexpr std::size_t kMaxVarint = 10;
  static constexpr std::size_t kMaxField = 5 + kMaxVarint;  // a tag and a varint or a double
  static constexpr std::size_t max_string(std::size_t size) { return kMaxField + size; }
  // A nested message's own tag and length, beyond its fields.
  static constexpr std::size_t kMaxNesting = kMaxField;

  explicit ProtoWriter(char* out) : start_(out), pos_(out) {}

  std::size_t size() const { return static_cast<std::size_t>(pos_ - start_); }

  void add_varint(std::uint32_t field, std::uint64_t value) {
    put_tag(field, kVarint);
    put_varint(value);
  }

  // int64 fields are plain varints of the two's complement: negative values take ten bytes.
  void add_int64(std::uint32_t field, std::int64_t value) {
    add_varint(field, static_cast<std::uint64_t>(value));
  }

  void add_double(std::uint32_t field, double value) {
    put_tag(field, kFixed64);
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    for (int i = 0; i < 8; ++i) *pos_++ = static_cast<char>(bits >> (8 * i));
  }

  void add_string(std::uint32_t field, std::string_view text) {
    put_tag(field, kLengthDelimited);
    put_varint(text.size());
    std::memcpy(pos_, text.data(), text.size());
    pos_ += text.size();
  }

  // Opens a nested message and returns the token that closes it. The length is not known yet, so
  // one byte is reserved for it; the rare longer length shifts the body when the message closes.
  std::size_t begin_nested(std::uint32_t field) {
    put_tag(field, kLengthDelimited);
    *pos_++ = '\0';
    return size();
  }

  void end_nested(std::size_t token) {
    const std::size_t length = size() - token;
    char* body = start_ + token;
    if (length < 0x80) {
      body[-1] = static_cast<char>(length);
      return;
    }
    char prefix[kMaxVarint];
    const std::size_t extra = encode_varint(length, prefix) - 1;
    std::memmove(body + extra, body, length);
    std::memcpy(body - 1, prefix, extra + 1);
    pos_ += extra;
  }

 private:
  enum WireType : std::uint32_t { kVarint = 0, kFixed64 = 1, kLengthDelimited = 2 };

  static std::size_t encode_varint(std::uint64_t value, char* bytes) {
    std::size_t size = 0;
    while (value >= 0x80) {
      bytes[size++] = static_cast<char>((value & 0x7f) | 0x80);
      value >>= 7;
    }
    bytes[size++] = static_cast<char>(value);
    return size;
  }

  void put_varint(std::uint64_t value) { pos_ += encode_varint(value, pos_); }

  void put_tag(std::uint32_t field, WireType type) {
    put_varint((static_cast<std::uint64_t>(field) << 3) | type);
  }

  char* start_;
  char* pos_;
};

}  // namespace perfetto::internal
