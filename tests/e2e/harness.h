#pragma once

// Runs the real emberline binary as a child process and collects what it wrote, and reads back
// what the run left in the simulated headset: recorded node writes, report and trace files.
// Meant to run inside the simulated headset, where the device's paths exist.

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/process.h"
#include "unit/trace_fixture.h"

namespace e2e {

using test_support::lines;
using test_support::read_file;
using test_support::write_file;
// exit_code is -1 when the tool died by a signal, and signal then names it.
using Result = test_support::Outcome;

struct Options {
  // Called, and then sent, once the tool has announced its run on the standard error stream (its
  // two empty lines included): by then every plugin has started.
  std::function<void()> once_started;
  // The same, with the tool's pid, for a test that acts on the process itself.
  std::function<void(pid_t)> once_started_pid;
  int signal_after_start = 0;
  // Runs the tool as root without the right to override file permissions, so that a read-only
  // node refuses it as it refuses an unprivileged shell on a headset.
  bool without_dac_override = false;
  // Stops reading the tool's reports after this many lines, as `| head -N` would.
  std::size_t close_out_after_lines = 0;
  // Sees everything the tool has written so far on each of its output streams, as it comes.
  std::function<void(const std::string& out, const std::string& err)> watch;
};

// Takes `capability` from every command started from here on. Root regains its capabilities at
// exec from the bounding set, the inheritable set and the ambient set (which the sandbox fills),
// so the capability leaves all three.
inline bool drop_across_exec(int capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2]{};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  data[0].inheritable &= ~(1u << capability);
  return syscall(SYS_capset, &header, data) == 0 &&
         prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0 &&
         prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0;
}

inline Result run(const std::vector<std::string>& args, const Options& options = {}) {
  std::vector<std::string> argv{EMBERLINE_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  test_support::Launch launch;
  launch.in_child = [&options] {
    // A fatal signal leaves no core file behind in the test's directory.
    rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    return !options.without_dac_override || drop_across_exec(CAP_DAC_OVERRIDE);
  };
  bool started = false;
  std::string out, err;
  launch.on_output = [&](pid_t pid, int fd, const std::string& piece) {
    (fd == 1 ? out : err) += piece;
    if (options.watch) options.watch(out, err);
    if (!started && err.find("Press CTRL-C to stop...\n\n\n") != std::string::npos) {
      started = true;
      if (options.once_started) options.once_started();
      if (options.once_started_pid) options.once_started_pid(pid);
      if (options.signal_after_start != 0) kill(pid, options.signal_after_start);
    }
    return options.close_out_after_lines == 0 ||
           static_cast<std::size_t>(std::count(out.begin(), out.end(), '\n')) <
               options.close_out_after_lines;
  };
  return test_support::run_process(argv, launch);
}

// Reports carry wall-clock times; tests compare them in this shape.
inline std::string mask_times(std::string text) {
  static const std::regex device_time(R"(1[0-9]{9}\.[0-9]{3})");
  return std::regex_replace(text, device_time, "<epoch>");
}

// Cycles are planned on whole milliseconds of the wall clock while the run's start is not, and a
// loaded machine wakes late: "1.999" and "2.03" both mean the report at two seconds. Only the
// "timestamp" field is rounded, in each of the four forms (in CSV the second column).
inline std::string round_seconds(const std::string& text) {
  static const std::regex seconds(
      R"((timestamp: |timestamp=|"timestamp":|(?:^|\n)[0-9]+,)([0-9]{1,5})\.([0-9]{3})\b)");
  std::string out;
  auto last = text.cbegin();
  for (std::sregex_iterator it(text.begin(), text.end(), seconds), end; it != end; ++it) {
    out.append(last, (*it)[0].first);
    const long millis = std::stol((*it)[2]) * 1000 + std::stol((*it)[3]);
    const long whole = (millis + 500) / 1000;
    out += (*it)[1].str();
    out += std::abs(millis - whole * 1000) <= 150 ? std::to_string(whole) + ".000"
                                                  : (*it)[2].str() + "." + (*it)[3].str();
    last = (*it)[0].second;
  }
  out.append(last, text.cend());
  return out;
}

// What a run's standard error stream holds ahead of its first Android log record, and then each
// record as "TAG P text". Debian's liblog prints a record as "TAG P MM-DD HH:MM:SS pid tid text"
// and a line end; a record that `pid` did not write from its main thread shows as
// "TAG P [pid tid] text".
inline std::pair<std::string, std::vector<std::string>> log_records(const std::string& err,
                                                                    pid_t pid) {
  static const std::regex header(
      R"((?:^|\n)([^ \n]+) ([VDIWEF]) \d\d-\d\d \d\d:\d\d:\d\d +(\d+) +(\d+) )");
  std::vector<std::smatch> found(std::sregex_iterator(err.begin(), err.end(), header),
                                 std::sregex_iterator());
  // Where record i's header begins (past the line end that ends what came before), or the end.
  auto start = [&](std::size_t i) {
    return i == found.size() ? err.size()
                             : static_cast<std::size_t>(found[i].position()) +
                                   (found[i].str().front() == '\n' ? 1 : 0);
  };
  std::vector<std::string> records;
  for (std::size_t i = 0; i < found.size(); ++i) {
    const std::size_t text = static_cast<std::size_t>(found[i].position() + found[i].length());
    std::string record = found[i][1].str() + " " + found[i][2].str() + " ";
    if (found[i][3] != std::to_string(pid) || found[i][4] != std::to_string(pid)) {
      record += "[" + found[i][3].str() + " " + found[i][4].str() + "] ";
    }
    records.push_back(record + err.substr(text, start(i + 1) - 1 - text));
  }
  return {err.substr(0, start(0)), records};
}

// Where the simulated headset keeps its files, /proc's and the log of node writes included.
inline std::string state_dir() {
  const char* state = std::getenv("EMBERLINE_SIM_STATE");
  if (state == nullptr) throw std::runtime_error("not inside the simulated headset");
  return state;
}

// "PATH OFFSET HEX" of each write the headset recorded into nodes under `prefix`, without its
// time, from the `skip`th on. The sim logs a write a moment after it was made, so this waits
// (boundedly) for `count` of them.
inline std::vector<std::string> recorded_writes(std::size_t count, std::size_t skip = 0,
                                                const std::string& prefix = "/") {
  std::vector<std::string> writes;
  for (int attempt = 0; attempt < 500; ++attempt) {
    writes.clear();
    auto all = lines(read_file(state_dir() + "/writes.log"));
    for (std::size_t i = skip; i < all.size(); ++i) {
      std::string write = all[i].substr(all[i].find(' ') + 1);
      if (write.starts_with(prefix)) writes.push_back(write);
    }
    if (writes.size() >= count) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return writes;
}

inline const char* const kChargingNodes[] = {
    "/sys/class/qcom-battery/input_suspend",
    "/sys/class/power_supply/battery/input_suspend",
    "/sys/class/power_supply/usb/input_suspend",
    "/sys/class/power_supply/wireless/input_suspend",
};

// Every charging node suspended, then every one given back, once each.
inline std::vector<std::string> charging_suspended_then_resumed() {
  std::vector<std::string> expected;
  for (const char* byte : {"31", "30"}) {
    for (const char* node : kChargingNodes) expected.push_back(std::string(node) + " 0 " + byte);
  }
  return expected;
}

// The one line of a text report that starts with `header`, or "" if there is none.
inline std::string section(const std::string& out, const std::string& header) {
  for (const auto& line : lines(out)) {
    if (line.starts_with(header)) return line;
  }
  return "";
}

// The one file of that extension the runs left in /data/local/tmp, or "" if there is not one.
inline std::string only_file(const std::string& extension) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/data/local/tmp")) {
    if (entry.path().extension() == extension) found.push_back(entry.path());
  }
  return found.size() == 1 ? found[0] : "";
}

// A double to its last digit.
inline std::string digits(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

// The counter events of a trace in order, as "TRACK VALUE" with integers as written and doubles
// to their last digit. Each counter's track must hang under the process and every event be a
// counter on the monotonic clock, in time order.
inline std::vector<std::string> counter_events(const std::string& path) {
  using namespace trace_test;
  const auto packets = read_trace(path);
  std::map<std::uint64_t, std::string> names;
  std::uint64_t process = 0;
  for (const Message& track : check_trace(packets)) {
    if (track.message(kProcess)) {
      process = track.varint(kUuid).value_or(0);
      continue;
    }
    EXPECT_EQ(track.varint(kParent), process);
    EXPECT_TRUE(track.message(kCounterInfo));
    names[track.varint(kUuid).value_or(0)] = track.text(kName).value_or("");
  }
  std::vector<std::string> events;
  std::uint64_t last_time = 0;
  for (const Message& packet : packets) {
    auto event = packet.message(kTrackEvent);
    if (!event) continue;
    EXPECT_EQ(event->varint(kType), kCounter);
    EXPECT_EQ(packet.varint(kClockId), 3u);
    EXPECT_GE(packet.varint(kTimestamp).value_or(0), last_time);
    last_time = packet.varint(kTimestamp).value_or(0);
    auto integer = event->int64(kIntValue);
    events.push_back(names[event->varint(kTrackUuid).value_or(0)] + " " +
                     (integer ? std::to_string(*integer)
                              : digits(event->fixed_double(kDoubleValue).value_or(-1))));
  }
  return events;
}

// Samples `cycles` times over a run, each emitting `sample`; a loaded machine may end the run a
// cycle early.
inline void expect_each_sample(const std::vector<std::string>& events,
                               const std::vector<std::string>& sample, std::size_t cycles) {
  EXPECT_TRUE(events.size() == cycles * sample.size() ||
              events.size() == (cycles - 1) * sample.size())
      << events.size();
  for (std::size_t i = 0; i < events.size(); ++i) EXPECT_EQ(events[i], sample[i % sample.size()]);
}

}  // namespace e2e
