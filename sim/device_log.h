#pragma once

// The headset's log: what its processes write to it as the workload goes, the buffer that holds
// it, and `logcat`, which prints it.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "log_activity.h"
#include "state_dir.h"

namespace emberline::sim {

std::string ravelin_message(const LogActivity& log);
std::string telemetry_message(const LogActivity& log);

// One entry as `logcat -v time,year` prints it, line end included:
// "YYYY-MM-DD HH:MM:SS.mmm P/TAG(  PID): message".
std::string log_entry(std::chrono::system_clock::time_point when, char priority,
                      std::string_view tag, int pid, std::string_view message);

// The buffer: one printed entry per line, oldest first.
inline constexpr std::string_view kLogDir = "log";  // in the state directory
inline constexpr std::string_view kLogBuffer = "main";
// The buffer's directory inside the sandbox.
inline constexpr std::string_view kSandboxLogDir = "/.emberline-sim/log";

// Makes an empty buffer and puts the sim's `logcat` at /system/bin/logcat.
void lay_out_log(const std::string& state);

// Appends what the model has logged since the last call, stamped with the wall clock, and keeps
// the buffer to a ring's size as logd does.
class LogWriter {
 public:
  explicit LogWriter(const std::string& state);
  void write(const LogActivity& activity);

 private:
  void trim();

  std::string path_;
  UniqueFd fd_;
  LogActivity written_;
  std::size_t size_ = 0;
};

// `logcat` of the headset: -s, TAG:PRIO filters, -v time[,year], -d and -t 'YYYY-MM-DD
// HH:MM:SS.mmm' (entries at or after that time), printed from the buffer; then it exits.
struct LogcatQuery {
  std::vector<std::pair<std::string, char>> filters;  // tag ("*" for all) and lowest priority
  bool year = false;
  std::optional<std::string> since;
};

// Nothing when the arguments are not understood; `error` says why.
std::optional<LogcatQuery> parse_logcat_args(const std::vector<std::string>& args,
                                             std::string& error);
// The buffer's entries that the query prints, in order, as printed.
std::string select_entries(const LogcatQuery& query, std::string_view buffer);
int logcat_main(int argc, char** argv);

}  // namespace emberline::sim
