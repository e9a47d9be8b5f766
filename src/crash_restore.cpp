#include "crash_restore.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "platform/os/node.h"
#include "platform/trace/perfetto.h"

namespace emberline::crash_restore {

namespace {

enum Kind { kWriteBack, kRemoval, kTraceMend };

struct Entry {
  // -1 while free. Published last, so a handler never sees a descriptor without its bytes.
  std::atomic<int> fd{-1};
  Kind kind = kWriteBack;
  char bytes[kMaxBytes];
  std::size_t size = 0;
  const char* path = nullptr;
};

// A removal has no descriptor of its own; this marks its entry as taken. A trace session's entry
// has none either: the guard takes the session's file when it starts.
constexpr int kNoDescriptor = -2;
constexpr int kTraceSession = -3;
constexpr int kEntries = 32;
Entry entries[kEntries];

// The write end of the pipe the guard waits on; the guard hears "dismissed" or end of file.
std::atomic<int> guard_fd{-1};
pid_t guard_pid = -1;
constexpr char kDismissed = 'D';

// Entries the exit guard acts on: nodes to write back, and a trace file to mend.
int guarded() {
  int count = 0;
  for (const Entry& e : entries) {
    const int fd = e.fd.load(std::memory_order_acquire);
    count += fd >= 0 || fd == kTraceSession;
  }
  return count;
}

void tell_guard_dismissed() {
  int fd = guard_fd.exchange(-1);
  if (fd < 0) return;
  [[maybe_unused]] ssize_t ignored = ::write(fd, &kDismissed, 1);
  ::close(fd);
}

void dismiss_guard() {
  tell_guard_dismissed();
  if (guard_pid > 0) ::waitpid(guard_pid, nullptr, 0);
  guard_pid = -1;
}

// Closes every descriptor but those in `keep` (sorted), with async-signal-safe calls only.
void close_all_but(const int* keep, int count) {
  unsigned int from = 0;
  for (int i = 0; i <= count; ++i) {
    unsigned int to = i < count ? static_cast<unsigned int>(keep[i]) : ~0u;
    if (to > from && ::syscall(SYS_close_range, from, to - 1, 0) != 0) {
      // Kernels before 5.9: one by one, up to the limit the process had.
      for (unsigned int fd = from; fd < to && fd < 65536; ++fd) ::close(static_cast<int>(fd));
    }
    from = to + 1;
  }
}

void write_back_nodes() {
  for (Entry& e : entries) {
    int fd = e.fd.load(std::memory_order_acquire);
    if (fd >= 0) [[maybe_unused]]
      ssize_t ignored = ::pwrite(fd, e.bytes, e.size, 0);
  }
}

// A SIGKILL may cut the run's last trace write short inside a packet. The guard holds the trace
// file open from its start and, once the run has ended, cuts it back to the packets written
// whole, so that it still reads as a trace.
struct TraceFileMend {
  trace::SessionFile file = trace::session_file();
  void keep_open(int* keep, int& count) const {
    if (file.fd >= 0) keep[count++] = file.fd;
  }
  void after_run() const { trace::cut_to_flushed_packets(file); }
};

[[noreturn]] void run_guard(int wait_fd) {
  // Terminal signals reach the whole process group; the guard leaves it and ignores them, so that
  // a CTRL-C that ends the run cleanly cannot take the guard with it.
  ::setsid();
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGQUIT, SIGTSTP})
    std::signal(signal, SIG_IGN);
  int keep[kEntries + 2];
  int count = 0;
  keep[count++] = wait_fd;
  const TraceFileMend trace_file;
  trace_file.keep_open(keep, count);
  for (Entry& e : entries) {
    int fd = e.fd.load(std::memory_order_relaxed);
    if (fd >= 0) keep[count++] = fd;
  }
  for (int i = 1; i < count; ++i) {  // insertion sort: no library calls in a forked child
    for (int j = i; j > 0 && keep[j] < keep[j - 1]; --j) std::swap(keep[j], keep[j - 1]);
  }
  close_all_but(keep, count);
  char said = 0;
  ssize_t got;
  do {
    got = ::read(wait_fd, &said, 1);
  } while (got < 0 && errno == EINTR);
  if (got != 1 || said != kDismissed) {
    write_back_nodes();
    trace_file.after_run();
  }
  ::_exit(0);
}

// A guard that holds every node held now and the trace session's file, in place before the one it
// replaces goes, so that no moment is left unguarded.
void restart_guard() {
  int pipe_fds[2];
  if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return;
  pid_t pid = ::fork();
  if (pid == 0) run_guard(pipe_fds[0]);
  ::close(pipe_fds[0]);
  if (pid < 0) {
    ::close(pipe_fds[1]);
    return;
  }
  const pid_t old_pid = std::exchange(guard_pid, pid);
  const int old_fd = guard_fd.exchange(pipe_fds[1]);
  if (old_fd >= 0) {
    [[maybe_unused]] ssize_t ignored = ::write(old_fd, &kDismissed, 1);
    ::close(old_fd);
    ::waitpid(old_pid, nullptr, 0);
  }
}

int take_entry(int fd, Kind kind, std::string_view bytes, const char* path) {
  for (int i = 0; i < kEntries; ++i) {
    Entry& e = entries[i];
    if (e.fd.load(std::memory_order_acquire) != -1) continue;
    e.kind = kind;
    if (!bytes.empty()) std::memcpy(e.bytes, bytes.data(), bytes.size());
    e.size = bytes.size();
    e.path = path;
    e.fd.store(fd, std::memory_order_release);
    return i;
  }
  return -1;
}

void on_fatal_signal(int signal) {
  give_back_all();
  trace::flush_from_signal_handler();
  tell_guard_dismissed();
  // SA_RESETHAND has put back the default action, so this ends the process as the signal would
  // have: with a core dump where the system keeps one, and the signal's exit status.
  std::raise(signal);
}

}  // namespace

Restore Restore::write_back(int fd, std::string_view bytes) {
  if (fd < 0 || bytes.size() > kMaxBytes) return Restore();
  const int own = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (own < 0) return Restore();
  const int slot = take_entry(own, kWriteBack, bytes, nullptr);
  if (slot < 0) {
    ::close(own);
    return Restore();
  }
  restart_guard();
  return Restore(slot);
}

Restore Restore::write_back(const std::string& path, std::string_view bytes) {
  const int fd = os::open_node(path, O_WRONLY);
  if (fd < 0) return Restore();
  Restore restore = write_back(fd, bytes);
  ::close(fd);
  return restore;
}

Restore Restore::removal(const char* path) {
  return Restore(take_entry(kNoDescriptor, kRemoval, {}, path));
}

Restore Restore::trace_session() {
  const int slot = take_entry(kTraceSession, kTraceMend, {}, nullptr);
  if (slot >= 0) restart_guard();
  return Restore(slot);
}

Restore::Restore(Restore&& other) noexcept : slot_(std::exchange(other.slot_, -1)) {}

Restore& Restore::operator=(Restore&& other) noexcept {
  if (this != &other) {
    release();
    slot_ = std::exchange(other.slot_, -1);
  }
  return *this;
}

Restore::~Restore() {
  release();
}

void Restore::release() {
  if (slot_ < 0) return;
  Entry& e = entries[std::exchange(slot_, -1)];
  const int fd = e.fd.exchange(-1, std::memory_order_acq_rel);
  if (fd == kNoDescriptor) return;
  if (fd >= 0) ::close(fd);
  // The guard holds what is still guarded, or nothing at all.
  if (guarded() == 0) {
    dismiss_guard();
  } else {
    restart_guard();
  }
}

void give_back_all() {
  for (Entry& e : entries) {
    const int fd = e.fd.load(std::memory_order_acquire);
    if (fd >= 0) {
      [[maybe_unused]] ssize_t ignored = ::pwrite(fd, e.bytes, e.size, 0);
    } else if (fd == kNoDescriptor && e.kind == kRemoval) {
      ::unlink(e.path);
    }
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
