#include "device_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "model.h"
#include "sandbox.h"

namespace emberline::sim {

namespace {

constexpr int kRefreshHz = 72;
// DSP clock levels the tracking service's governor picks from, in MHz.
constexpr int kDspLevels[] = {499, 672, 787, 1036};
constexpr int kRuntimePid = 2304;
constexpr int kTrackingPid = 1187;
constexpr int kCompositorPid = 1021;
// logd keeps a ring of about this size; the writer cuts the oldest half when it is full.
constexpr std::size_t kBufferLimit = 512 * 1024;

// xorshift64*: a few instructions, and the same numbers on every standard library.
double unit(LogActivity& log) {
  log.rng ^= log.rng >> 12;
  log.rng ^= log.rng << 25;
  log.rng ^= log.rng >> 27;
  return static_cast<double>((log.rng * 0x2545f4914f6cdd1dULL) >> 11) * 0x1.0p-53;
}

double noise(LogActivity& log, double amplitude) {
  return (unit(log) * 2 - 1) * amplitude;
}

void report_frames(LogActivity& log) {
  const double load = log.frame_load_sum / kRavelinPeriodSteps;
  log.frame_load_sum = 0;
  // The runtime holds the refresh rate until the GPU runs out of headroom, then drops frames.
  const double dropped = std::max(0.0, load - 0.7) * 40 + std::max(0.0, noise(log, 1.2));
  log.fps = std::clamp(kRefreshHz - static_cast<int>(std::lround(dropped)), 36, kRefreshHz);
  log.stale = kRefreshHz - log.fps + (unit(log) < 0.1 ? 1 : 0);
  log.prd_ms = static_cast<int>(std::lround(38 + 9 * load + noise(log, 1.5)));
  log.tears = unit(log) < 0.01 + 0.04 * load ? 1 : 0;
  log.cfl_p50_ms = 6.5 + 3.0 * load + noise(log, 0.4);
  log.cfl_p95_ms = log.cfl_p50_ms + 2.5 + 2.5 * load + std::abs(noise(log, 0.8));
  ++log.ravelin_lines;
}

void report_dsp(LogActivity& log) {
  const double load = log.dsp_load_sum / kTelemetryPeriodSteps;
  log.dsp_load_sum = 0;
  // Tracking runs all the time; heavier scenes bring more camera work to the DSP.
  const double util = std::clamp(22 + 30 * load + noise(log, 3), 5.0, 99.0);
  int level = util > 55 ? 3 : util > 40 ? 2 : util > 28 ? 1 : 0;
  log.dsp_mhz = kDspLevels[level];
  const double shares[] = {0.46, 0.33, 0.13, 0.08};
  log.dsp_util[0] = util;
  for (int i = 0; i < 4; ++i) {
    log.dsp_util[i + 1] = std::max(0.0, util * shares[i] * (1 + noise(log, 0.1)));
  }
  ++log.telemetry_lines;
}

std::string format(const char* pattern, auto... args) {
  char text[512];
  int n = std::snprintf(text, sizeof text, pattern, args...);
  return std::string(text, static_cast<std::size_t>(std::clamp(n, 0, int{sizeof text} - 1)));
}

}  // namespace

void step_log(DeviceState& s, const ModelParams&, double) {
  LogActivity& log = s.log;
  const double load = s.load;
  ++log.steps;
  log.frame_load_sum += load;
  log.dsp_load_sum += load;
  if (log.steps % kRavelinPeriodSteps == 0) report_frames(log);
  if (log.steps % kTelemetryPeriodSteps == 0) report_dsp(log);
  if (log.steps % kChatterPeriodSteps == 0) ++log.chatter_lines;
}

std::string ravelin_message(const LogActivity& log) {
  return format(
      "FPS=%d/%d,Prd=%dms,Tear=%d,Early=0,Stale=%d,Stale2/5/10/max=%d/0/0/%d,VSnc=1,Lat=-1,"
      "ICFLp50=%.2f,ICFLp95=%.2f,LCnt=1",
      log.fps, kRefreshHz, log.prd_ms, log.tears, log.stale, log.stale > 1 ? 1 : 0,
      log.stale > 0 ? 1 : 0, log.cfl_p50_ms, log.cfl_p95_ms);
}

std::string telemetry_message(const LogActivity& log) {
  return format(
      "cDSP HexagonTelemetry Freq: %d MHz, Load: %.2f%% (scalar %.2f%%, HVX %.2f%%, HMX %.2f%%, "
      "UDMA %.2f%%), clients: 3",
      log.dsp_mhz, log.dsp_util[0], log.dsp_util[1], log.dsp_util[2], log.dsp_util[3],
      log.dsp_util[4]);
}

std::string log_entry(std::chrono::system_clock::time_point when, char priority,
                      std::string_view tag, int pid, std::string_view message) {
  using namespace std::chrono;
  const std::time_t seconds = system_clock::to_time_t(
      time_point_cast<system_clock::duration>(floor<std::chrono::seconds>(when)));
  const long millis = static_cast<long>(
      duration_cast<milliseconds>(when - floor<std::chrono::seconds>(when)).count());
  std::tm local{};
  ::localtime_r(&seconds, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::string tag_text(tag);
  return format("%s.%03ld %c/%-8s(%5d): ", stamp, millis, priority, tag_text.c_str(), pid) +
         std::string(message) + "\n";
}

void lay_out_log(const std::string& state) {
  const std::string dir = state + "/" + std::string(kLogDir);
  make_dirs(dir);
  UniqueFd buffer(::open((dir + "/" + std::string(kLogBuffer)).c_str(),
                         O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (!buffer) fail("cannot create the log buffer");
  // Tests inside plant entries of their own, whichever user they run as.
  ::fchmod(buffer.get(), 0666);
  // The sim's binary is at the launcher's place inside; called as logcat, it is logcat.
  const std::string logcat = host_path(state, "/system/bin/logcat");
  make_dirs(host_path(state, "/system/bin"));
  ::unlink(logcat.c_str());
  if (::symlink(std::string(kLauncher).c_str(), logcat.c_str()) != 0) fail("cannot place logcat");
}

LogWriter::LogWriter(const std::string& state)
    : path_(state + "/" + std::string(kLogDir) + "/" + std::string(kLogBuffer)),
      fd_(::open(path_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC)) {
  if (!fd_) fail("cannot open the log buffer");
  struct stat st {};
  if (::fstat(fd_.get(), &st) == 0) size_ = static_cast<std::size_t>(st.st_size);
}

void LogWriter::write(const LogActivity& activity) {
  const auto now = std::chrono::system_clock::now();
  std::string text;
  // A catch-up after a stall logs the missed lines with the numbers of now, at the time of now.
  for (; written_.ravelin_lines < activity.ravelin_lines; ++written_.ravelin_lines) {
    text += log_entry(now, 'I', "Ravelin", kRuntimePid, ravelin_message(activity));
  }
  for (; written_.telemetry_lines < activity.telemetry_lines; ++written_.telemetry_lines) {
    text += log_entry(now, 'I', "Tracking", kTrackingPid, telemetry_message(activity));
  }
  for (; written_.chatter_lines < activity.chatter_lines; ++written_.chatter_lines) {
    // What else the two tags and their neighbours say, which the plugins must pass over.
    const std::uint64_t n = written_.chatter_lines;
    text += log_entry(
        now, 'D', "Tracking", kTrackingPid,
        format("cDSP HexagonTelemetry queue depth %llu", static_cast<unsigned long long>(n % 4)));
    if (n % 10 == 0) {
      text += log_entry(now, 'I', "Tracking", kTrackingPid, "map relocalized, 6DoF tracking good");
      text += log_entry(now, 'W', "VrCompositor", kCompositorPid, "late frame submission");
    }
  }
  if (text.empty()) return;
  if (::write(fd_.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size())) {
    size_ += text.size();
  }
  if (size_ > kBufferLimit) trim();
}

void LogWriter::trim() {
  // The newer half goes to a fresh file that replaces the buffer at once, so that a logcat
  // running meanwhile reads either the old buffer or the new, whole.
  std::string kept;
  {
    UniqueFd in(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    // A test may have added entries of its own: the file, not our count, says where it ends.
    if (!in || ::fstat(in.get(), &st) != 0) return;
    kept.resize(std::min<std::size_t>(kBufferLimit / 2, static_cast<std::size_t>(st.st_size)));
    const off_t from = st.st_size - static_cast<off_t>(kept.size());
    ssize_t n = ::pread(in.get(), kept.data(), kept.size(), from);
    kept.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  }
  kept.erase(0, kept.find('\n') == std::string::npos ? kept.size() : kept.find('\n') + 1);
  const std::string next = path_ + ".new";
  UniqueFd out(::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (!out || ::write(out.get(), kept.data(), kept.size()) != static_cast<ssize_t>(kept.size()) ||
      ::fchmod(out.get(), 0666) != 0 || ::rename(next.c_str(), path_.c_str()) != 0) {
    return;
  }
  fd_ = UniqueFd(::open(path_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  size_ = kept.size();
}

}  // namespace emberline::sim
