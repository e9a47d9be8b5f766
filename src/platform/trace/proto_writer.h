#pragma once

// The few protobuf wire-format writers the trace needs. A message is encoded straight into memory
// that the caller has made large enough, by the bounds below: no check, no allocation and no call
// per field, which is what lets a busy DSP worker keep up.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace perfetto::internal {

static_assert(std::endian::native == std::endian::little, "varints are stored a word at a time");

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

  // Field numbers are template arguments, so that each tag is a constant of one or two bytes.
  template <std::uint32_t field>
  void add_varint(std::uint64_t value) {
    put_tag<field, kVarint>();
    put_varint(value);
  }

  // int64 fields are plain varints of the two's complement: negative values take ten bytes.
  template <std::uint32_t field>
  void add_int64(std::int64_t value) {
    add_varint<field>(static_cast<std::uint64_t>(value));
  }

  // A varint field whose value was encoded beforehand by encode_varint, into kMaxVarint bytes.
  template <std::uint32_t field>
  void add_encoded_varint(const char (&bytes)[kMaxVarint], std::size_t size) {
    put_tag<field, kVarint>();
    std::memcpy(pos_, bytes, kMaxVarint);
    pos_ += size;
  }

  template <std::uint32_t field>
  void add_double(double value) {
    put_tag<field, kFixed64>();
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    for (int i = 0; i < 8; ++i) *pos_++ = static_cast<char>(bits >> (8 * i));
  }

  template <std::uint32_t field>
  void add_string(std::string_view text) {
    put_tag<field, kLengthDelimited>();
    put_varint(text.size());
    std::memcpy(pos_, text.data(), text.size());
    pos_ += text.size();
  }

  // A nested message of two varint fields, written in one go: its length is at most
  // 2 * kMaxField, so it always takes one byte.
  template <std::uint32_t field, std::uint32_t first, std::uint32_t second>
  void add_varint_pair(std::uint64_t first_value, std::uint64_t second_value) {
    static_assert(2 * kMaxField < 0x80);
    put_tag<field, kLengthDelimited>();
    char* length = pos_++;
    add_varint<first>(first_value);
    add_varint<second>(second_value);
    *length = static_cast<char>(pos_ - length - 1);
  }

  // Opens a nested message and returns the token that closes it. The length is not known yet, so
  // one byte is reserved for it; the rare longer length shifts the body when the message closes.
  template <std::uint32_t field>
  std::size_t begin_nested() {
    put_tag<field, kLengthDelimited>();
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

  // Writes at most kMaxVarint bytes, but may store eight bytes at `bytes` for a shorter varint:
  // every bound above leaves room for that.
  static std::size_t encode_varint(std::uint64_t value, char* bytes) {
    if (value < 0x80) {
      bytes[0] = static_cast<char>(value);
      return 1;
    }
    // The first eight seven-bit groups go into eight bytes by shifts and masks, and out in one
    // store, where a loop would take a branch for every byte.
    std::uint64_t groups = value & 0x00ffffffffffffffull;
    groups = (groups & 0x000000000fffffffull) | ((groups & 0x00fffffff0000000ull) << 4);
    groups = (groups & 0x00003fff00003fffull) | ((groups & 0x0fffc0000fffc000ull) << 2);
    groups = (groups & 0x007f007f007f007full) | ((groups & 0x3f803f803f803f80ull) << 1);
    // Bytes for a bit width b, 1 to 64: (b + 6) / 7, which (9b + 64) / 64 equals there.
    const std::size_t size = (9 * static_cast<std::size_t>(std::bit_width(value)) + 64) >> 6;
    // Every byte but the last one has its continuation bit.
    groups |= 0x8080808080808080ull >> (8 * (9 - std::min<std::size_t>(size, 9)));
    std::memcpy(bytes, &groups, sizeof groups);
    if (size == 9) bytes[8] = static_cast<char>(value >> 56);
    if (size == 10) {
      bytes[8] = static_cast<char>((value >> 56) | 0x80);
      bytes[9] = '\1';
    }
    return size;
  }

 private:
  enum WireType : std::uint32_t { kVarint = 0, kFixed64 = 1, kLengthDelimited = 2 };

  void put_varint(std::uint64_t value) { pos_ += encode_varint(value, pos_); }

  template <std::uint32_t field, WireType type>
  void put_tag() {
    constexpr std::uint32_t tag = (field << 3) | type;
    static_assert(tag < 0x4000, "tags of one or two bytes");
    if constexpr (tag < 0x80) {
      *pos_++ = static_cast<char>(tag);
    } else {
      pos_[0] = static_cast<char>(tag | 0x80);
      pos_[1] = static_cast<char>(tag >> 7);
      pos_ += 2;
    }
  }

  char* start_;
  char* pos_;
};

}  // namespace perfetto::internal
