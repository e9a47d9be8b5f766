#include "plugins/node_restore.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>

namespace emberline::node_restore {

namespace {

constexpr int kFree = -1;
constexpr int kFilling = -2;  // claimed, bytes not yet in place: a handler must skip it

struct Slot {
  std::atomic<int> fd{kFree};
  std::size_t size = 0;
  char bytes[kMaxBytes] = {};
};

static_assert(std::atomic<int>::is_always_lock_free, "a signal handler reads the descriptors");

std::array<Slot, kSlots> slots;

}  // namespace

int arm(int fd, std::string_view bytes) {
  if (fd < 0 || bytes.size() > kMaxBytes) return -1;
  for (std::size_t i = 0; i < slots.size(); ++i) {
    int expected = kFree;
    if (!slots[i].fd.compare_exchange_strong(expected, kFilling)) continue;
    std::memcpy(slots[i].bytes, bytes.data(), bytes.size());
    slots[i].size = bytes.size();
    // Release: a handler that sees the descriptor sees the bytes too.
    slots[i].fd.store(fd, std::memory_order_release);
    return static_cast<int>(i);
  }
  return -1;
}

void disarm(int slot) {
  if (slot < 0 || static_cast<std::size_t>(slot) >= slots.size()) return;
  slots[static_cast<std::size_t>(slot)].fd.store(kFree, std::memory_order_release);
}

void restore_all() noexcept {
  for (Slot& slot : slots) {
    int fd = slot.fd.load(std::memory_order_acquire);
    if (fd < 0) continue;
    [[maybe_unused]] ssize_t written = ::pwrite(fd, slot.bytes, slot.size, 0);
  }
}

}  // namespace emberline::node_restore
