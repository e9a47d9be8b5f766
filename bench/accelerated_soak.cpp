// The real engine and plugins of `emberline ARGS...` on a virtual loop clock: a sleep costs no
// time, so a million sample ticks take minutes instead of hours. Runs inside the simulated
// headset:
//   emberline-sim run --profile fennick -- emberline_accelerated_soak TICKS EVERY ARGS...
// Every EVERY sample ticks it prints one row: ticks, open descriptors, threads, heap bytes in
// use, resident kB, and the highest thread id of the headset. It exits 1 when descriptors or
// threads changed after the first row, or the heap grew by more than the thread identities the
// credits plugin keeps by design (one for each thread the headset started since the first row).

#include <dirent.h>
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "command_line.h"
#include "emberline.h"

namespace {

// Room for one thread's identity (its name and counters in the credits tables) and the heap's
// own rounding, and a fixed slack for what settles after the first row.
constexpr long kBytesPerNewThread = 1024;
constexpr long kSlackBytes = 64 * 1024;

struct Row {
  unsigned long ticks;
  int descriptors;
  int threads;
  long heap_bytes;
  long resident_kb;
  long highest_tid;
};

int entries(const char* path) {
  DIR* dir = ::opendir(path);
  if (dir == nullptr) return -1;
  int count = 0;
  while (const dirent* entry = ::readdir(dir)) count += entry->d_name[0] != '.';
  ::closedir(dir);
  return count;
}

// Thread ids only grow in the headset, so the highest one seen bounds how many threads were
// started. The newest thread may have ended again, so the highest is kept across looks.
long highest_tid() {
  static long highest = 0;
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) return 0;
  while (const dirent* process = ::readdir(proc)) {
    const long pid = std::atol(process->d_name);
    if (pid <= 0) continue;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%ld/task", pid);
    if (DIR* tasks = ::opendir(path)) {
      while (const dirent* task = ::readdir(tasks)) {
        const long tid = std::atol(task->d_name);
        if (tid > highest) highest = tid;
      }
      ::closedir(tasks);
    }
  }
  ::closedir(proc);
  return highest;
}

long resident_kb() {
  long pages = 0, resident = 0;
  if (std::FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
  }
  return resident * 4;
}

// Virtual time: a sleep moves the clock on by the time asked for and returns at once. Each sleep
// ends one cycle of the loop, which with equal or shorter sample periods is one sample tick.
class SoakClock : public emberline::LoopClock {
 public:
  SoakClock(unsigned long ticks, unsigned long every) : ticks_(ticks), every_(every) {
    rows.reserve(ticks / every + 2);
  }
  std::int64_t now_us() override { return now_us_; }
  void sleep_for(std::chrono::nanoseconds duration) override {
    now_us_ += std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
    ++done_;
    if (done_ % every_ == 0) {
      rows.push_back({done_, entries("/proc/self/fd"), entries("/proc/self/task"),
                      static_cast<long>(::mallinfo2().uordblks), resident_kb(), highest_tid()});
      const Row& r = rows.back();
      std::printf("%10lu %6d %7d %12ld %11ld %11ld\n", r.ticks, r.descriptors, r.threads,
                  r.heap_bytes, r.resident_kb, r.highest_tid);
      std::fflush(stdout);
    }
    if (done_ >= ticks_) emberline::stop_flag = true;
  }
  std::vector<Row> rows;

 private:
  std::int64_t now_us_ = std::chrono::duration_cast<std::chrono::microseconds>(
                             std::chrono::system_clock::now().time_since_epoch())
                             .count();
  unsigned long ticks_, every_, done_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s TICKS EVERY [EMBERLINE ARGS...]\n", argv[0]);
    return 2;
  }
  const unsigned long ticks = std::strtoul(argv[1], nullptr, 10);
  const unsigned long every = std::strtoul(argv[2], nullptr, 10);
  if (ticks == 0 || every == 0) return 2;
  // The tool's own parsing, so that the options mean here what they mean to the tool.
  std::vector<const char*> args{argv[0]};
  for (int i = 3; i < argc; ++i) args.push_back(argv[i]);
  emberline::Settings settings;
  if (auto code =
          emberline::parse_command_line(static_cast<int>(args.size()), args.data(), settings,
                                        emberline::is_brantley, emberline::is_chipset2_device)) {
    return *code;
  }
  auto clock = std::make_shared<SoakClock>(ticks, every);
  std::printf("%10s %6s %7s %12s %11s %11s\n", "ticks", "fds", "threads", "heap_bytes",
              "resident_kb", "highest_tid");
  int status = 0;
  {
    emberline::Emberline engine(false);
    engine.set_quiet(true);
    engine.set_clock(clock);
    engine.set_continue_charging(settings.continue_charging);
    if (settings.format() != emberline::OutputFormat::TEXT) {
      engine.set_output_format(settings.format());
    }
    engine.add_timestamp_fields();
    emberline::register_plugins(engine, settings);
    if (!engine.init(false)) return 1;
    status = engine.run(0, settings.sample_period_ms, settings.output_period_ms);
  }
  const auto& rows = clock->rows;
  if (status != 0 || rows.empty()) {
    std::fprintf(stderr, "the run ended with %d after %zu rows\n", status, rows.size());
    return 1;
  }
  const Row& first = rows.front();
  for (const Row& r : rows) {
    const long allowed =
        first.heap_bytes + kSlackBytes + kBytesPerNewThread * (r.highest_tid - first.highest_tid);
    if (r.descriptors != first.descriptors || r.threads != first.threads ||
        r.heap_bytes > allowed) {
      std::fprintf(
          stderr, "growth at %lu ticks: %d descriptors, %d threads, %ld heap bytes (%ld allowed)\n",
          r.ticks, r.descriptors, r.threads, r.heap_bytes, allowed);
      return 1;
    }
  }
  std::printf("ok: no growth over %lu ticks beyond %ld new threads' identities\n",
              rows.back().ticks, rows.back().highest_tid - first.highest_tid);
  return 0;
}
