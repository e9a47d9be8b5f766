// Blocks of DSP task records as the worker reads them from the telemetry FIFO. The input is a
// run of chunks, each a two-byte little-endian length (taken modulo 4096, plus one) and then that
// many bytes; each chunk reaches the worker as one read (two for a chunk longer than a block), so
// records and blocks arrive cut anywhere, as a writer that does not keep to whole blocks sends
// them.

#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "fuzz_input.h"
#include "plugins/dsp_trace_plugin.h"

namespace {

using Plugin = emberline::DspTracePlugin;

// Records the worker must count from one read that brought `piece`: those up to the first of
// thread 0 in the block, whose bytes behind the piece are zero.
unsigned long expected_slices(std::string_view piece) {
  char block[Plugin::kBlockBytes] = {};
  std::memcpy(block, piece.data(), std::min(piece.size(), sizeof block));
  unsigned long count = 0;
  for (std::size_t r = 0; r < Plugin::kEntriesPerBlock; ++r) {
    std::uint32_t thread_id;
    std::memcpy(&thread_id,
                block + r * sizeof(Plugin::DspLogEntry) + offsetof(Plugin::DspLogEntry, thread_id),
                sizeof thread_id);
    if (thread_id == 0) break;
    ++count;
  }
  return count;
}

// Waits until the worker has taken everything written so far out of the pipe, so that the next
// write becomes a read of its own.
void wait_drained(int fd) {
  for (;;) {
    int pending = 0;
    if (::ioctl(fd, FIONREAD, &pending) != 0 || pending == 0) return;
    sched_yield();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) std::abort();
  unsigned long expected = 0;
  unsigned long counted = 0;
  {
    Plugin plugin;
    plugin.start_worker(fds[0]);
    std::size_t at = 0;
    while (at + 2 <= size) {
      const std::size_t wanted = (data[at] | (data[at + 1] << 8)) % 4096 + 1;
      at += 2;
      const std::size_t length = std::min(wanted, size - at);
      if (length == 0) break;
      if (::write(fds[1], data + at, length) != static_cast<ssize_t>(length)) std::abort();
      const std::string_view chunk(reinterpret_cast<const char*>(data + at), length);
      for (std::size_t read = 0; read < length; read += Plugin::kBlockBytes) {
        expected += expected_slices(chunk.substr(read, Plugin::kBlockBytes));
      }
      at += length;
      wait_drained(fds[0]);
    }
    ::close(fds[1]);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (counted < expected && std::chrono::steady_clock::now() < deadline) {
      plugin.on_output();
      counted += plugin.slices()->value;
      sched_yield();
    }
    plugin.on_output();
    counted += plugin.slices()->value;
    fuzz::check(counted == expected, "each record of each read counted once");
    // The plugin closes its end of the pipe.
  }
  return 0;
}
