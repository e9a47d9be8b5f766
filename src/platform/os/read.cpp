#include "platform/os/read.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/os/node.h"

namespace emberline::os {

namespace {

// Enough for every node but the per-process lists, so that most reads take one call.
constexpr std::size_t kFirstRead = 4096;

ssize_t read_some(int fd, char* into, std::size_t size) {
  ssize_t got;
  do {
    got = ::read(fd, into, size);
  } while (got < 0 && errno == EINTR);
  return got;
}

}  // namespace

NodeRead read_node(const char* path, std::string& text, std::size_t limit) {
  text.clear();
  const int fd = open_node(path);
  if (fd < 0) return NodeRead::kUnopened;
  NodeRead result = NodeRead::kWhole;
  std::size_t used = 0;
  for (;;) {
    if (used == limit) {
      // One byte more tells a node of exactly `limit` bytes from a longer one.
      char probe;
      const ssize_t got = read_some(fd, &probe, 1);
      if (got > 0) result = NodeRead::kOverLimit;
      if (got < 0) result = NodeRead::kFailed;
      break;
    }
    if (used == text.size()) {
      text.resize(std::min(limit, std::max({text.capacity(), kFirstRead, 2 * used})));
    }
    const ssize_t got = read_some(fd, text.data() + used, text.size() - used);
    if (got <= 0) {
      if (got < 0) result = NodeRead::kFailed;
      break;
    }
    used += static_cast<std::size_t>(got);
  }
  ::close(fd);
  text.resize(used);
  return result;
}

}  // namespace emberline::os
