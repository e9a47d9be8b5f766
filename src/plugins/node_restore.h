#pragma once

// Kernel nodes that a plugin changed, with the bytes that put each one back. A process killed by
// a fatal signal runs no destructor, so the table holds descriptors that are already open and
// bytes that are already copied: a handler restores everything with pwrite alone.

#include <cstddef>
#include <string_view>

namespace emberline::node_restore {

inline constexpr std::size_t kSlots = 16;
inline constexpr std::size_t kMaxBytes = 64;

// Remembers that `fd` must receive `bytes` at offset 0 if the process dies. Returns the slot, or
// -1 when the table is full or the bytes do not fit. The caller keeps `fd` open while it is armed.
int arm(int fd, std::string_view bytes);

// The normal path has put the node back; afterwards the caller may close the descriptor.
void disarm(int slot);

// Writes every armed entry, lowest slot first. Async-signal-safe: atomic loads and pwrite only, so
// a fatal-signal handler may call it; it does not disarm, so a second call writes again.
void restore_all() noexcept;

}  // namespace emberline::node_restore
