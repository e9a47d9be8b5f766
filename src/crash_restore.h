#pragma once

// Nodes that must be written back even when the process dies of a fatal signal. The table is
// fixed in size and filled before the node is changed, so that a handler can walk it with
// async-signal-safe calls only.

#include <cstddef>
#include <string_view>

namespace emberline::crash_restore {

// Remembers to write `bytes` (at most kMaxBytes) at offset 0 of the open descriptor `fd` should
// the process die. Returns a handle for forget(), or -1 when the table is full or the bytes too
// long.
inline constexpr std::size_t kMaxBytes = 64;
int remember(int fd, std::string_view bytes);
void forget(int handle);

// Writes every remembered entry; safe inside a signal handler.
void write_back_all();

// SIGSEGV, SIGBUS, SIGABRT, SIGFPE and SIGILL write every remembered entry and the gathered
// trace packets, then take their default action (core dump, exit status) as if nothing had caught
// them.
void install_fatal_signal_handlers();

// SIGKILL, the OOM killer and a watchdog run no handler at all. The exit guard is a small child
// process, holding the remembered descriptors, that outlives this one: unless dismissed first,
// it writes every entry it was given when this process ends, and cuts the trace file back to
// its whole packets. It sees the entries remembered and the trace session started before it
// started, so whoever remembers one or starts a session starts it again: the new guard replaces
// the old one. It prints nothing.
void start_exit_guard();
// Tells the guard that every node has been given back; it ends without writing.
void dismiss_exit_guard();

}  // namespace emberline::crash_restore
