#pragma once

// What a run changes outside itself must be given back on every way out, even when the process
// dies of a fatal signal or is killed outright. A `Restore` stands for one such change: a node's
// old content to write back, a path to remove, or the trace session's file, which must end at a
// whole packet. It is made before the change and lives as long
// as the change stands; its owner gives the change back on the normal way out, with the messages
// its own code prints, and lets the `Restore` go.
//
// While any `Restore` lives:
// - a fatal signal (SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL), once install_fatal_signal_handlers
//   has run, gives every change back from the dying process, with async-signal-safe calls only,
//   writes the trace packets gathered so far, then takes the signal's default action (core dump,
//   exit status);
// - SIGKILL, the OOM killer or a watchdog run no handler at all, so an exit guard, a small child
//   process holding the nodes' descriptors and the trace file, outlives this one, writes the
//   nodes back and cuts the trace back to its last whole packet when it ends. It prints nothing.
//   A path to remove is left to the next run, which finds it in place.
// The guard follows the `Restore`s by itself: it starts with the first node or trace session, is
// replaced by one that holds everything when another is added, and goes without writing when the
// last one is let go.

#include <cstddef>
#include <string>
#include <string_view>

namespace emberline::crash_restore {

inline constexpr std::size_t kMaxBytes = 64;

class Restore {
 public:
  // Unarmed: gives nothing back.
  Restore() = default;
  // The old content `bytes` (at most kMaxBytes) of the node open as `fd`, written at offset 0 on
  // a way out that runs no code of the owner's. The descriptor is duplicated, not taken. Unarmed
  // when the table is full, the bytes are too long or `fd` is not valid.
  static Restore write_back(int fd, std::string_view bytes);
  // The same through a descriptor of its own on `path`; unarmed when it cannot be opened.
  static Restore write_back(const std::string& path, std::string_view bytes);
  // `path` (a static string) unlinked by a fatal signal's handler.
  static Restore removal(const char* path);
  // The trace session started now: its file is mended by the guard after a SIGKILL.
  static Restore trace_session();

  Restore(Restore&& other) noexcept;
  Restore& operator=(Restore&& other) noexcept;
  Restore(const Restore&) = delete;
  Restore& operator=(const Restore&) = delete;
  ~Restore();

  bool armed() const { return slot_ >= 0; }

 private:
  explicit Restore(int slot) : slot_(slot) {}
  void release();

  int slot_ = -1;
};

// Gives every change that a living `Restore` stands for back; safe inside a signal handler.
void give_back_all();

void install_fatal_signal_handlers();

}  // namespace emberline::crash_restore
