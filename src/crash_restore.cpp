#include "crash_restore.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>

namespace emberline::crash_restore {

namespace {

struct Entry {
  // -1 while free. Published last, so a handler never sees a descriptor without its bytes.
  std::atomic<int> fd{-1};
  char bytes[kMaxBytes];
  std::size_t size = 0;
};

constexpr int kEntries = 32;
Entry entries[kEntries];

void on_fatal_signal(int signal) {
  write_back_all();
  // SA_RESETHAND has put back the default action, so this ends the process as the signal would
  // have: with a core dump where the system keeps one, and the signal's exit status.
  std::raise(signal);
}

}  // namespace

int remember(int fd, std::string_view bytes) {
  if (fd < 0 || bytes.size() > kMaxBytes) return -1;
  for (int i = 0; i < kEntries; ++i) {
    Entry& e = entries[i];
    if (e.fd.load(std::memory_order_acquire) != -1) continue;
    std::memcpy(e.bytes, bytes.data(), bytes.size());
    e.size = bytes.size();
    e.fd.store(fd, std::memory_order_release);
    return i;
  }
  return -1;
}

void forget(int handle) {
  if (handle >= 0 && handle < kEntries) entries[handle].fd.store(-1, std::memory_order_release);
}

void write_back_all() {
  for (Entry& e : entries) {
    int fd = e.fd.load(std::memory_order_acquire);
    if (fd >= 0) [[maybe_unused]]
      ssize_t ignored = ::pwrite(fd, e.bytes, e.size, 0);
  }
}

void install_fatal_signal_handlers() {
  struct sigaction action {};
  action.sa_handler = on_fatal_signal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESETHAND | SA_NODEFER;
  for (int signal : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) sigaction(signal, &action, nullptr);
}

}  // namespace emberline::crash_restore
