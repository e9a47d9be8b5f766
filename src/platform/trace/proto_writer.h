#pragma once

// The few protobuf wire-format writers the trace needs. Messages are appended to a caller-owned
// string, which keeps its capacity between packets, so steady-state encoding does not allocate.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace perfetto::internal {

class ProtoWriter {
 public:
  explicit ProtoWriter(std::string& out) : out_(out) {}

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
    char bytes[8];
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<char>(bits >> (8 * i));
    out_.append(bytes, sizeof bytes);
  }

  void add_string(std::uint32_t field, std::string_view text) {
    put_tag(field, kLengthDelimited);
    put_varint(text.size());
    out_.append(text);
  }

  // Opens a nested message and returns the token that closes it. The length is not known yet, so
  // one byte is reserved for it; the rare longer length shifts the body when the message closes.
  std::size_t begin_nested(std::uint32_t field) {
    put_tag(field, kLengthDelimited);
    out_.push_back('\0');
    return out_.size();
  }

  void end_nested(std::size_t token) {
    std::size_t length = out_.size() - token;
    if (length < 0x80) {
      out_[token - 1] = static_cast<char>(length);
      return;
    }
    char prefix[10];
    std::size_t size = encode_varint(length, prefix);
    out_.replace(token - 1, 1, prefix, size);
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

  void put_varint(std::uint64_t value) {
    char bytes[10];
    out_.append(bytes, encode_varint(value, bytes));
  }

  void put_tag(std::uint32_t field, WireType type) {
    put_varint((static_cast<std::uint64_t>(field) << 3) | type);
  }

  std::string& out_;
};

}  // namespace perfetto::internal
