#pragma once

// Runs the real emberline binary as a child process and collects what it wrote. Meant to run
// inside the simulated headset, where the device's paths exist.

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/process.h"

namespace e2e {

using test_support::lines;
using test_support::read_file;
using test_support::write_file;

struct Result {
  int exit_code = -1;  // -1 when the tool died by a signal
  int signal = 0;      // the signal that ended it, if one did
  std::string out;
  std::string err;
};

struct Options {
  // Sent once the tool has announced its run on the standard error stream.
  int signal_after_start = 0;
  // Runs the tool as root without the right to override file permissions, so that a read-only
  // node refuses it as it refuses an unprivileged shell on a headset.
  bool without_dac_override = false;
  // Stops reading the tool's reports after this many lines, as `| head -N` would.
  std::size_t close_out_after_lines = 0;
  // A fatal signal leaves no core file behind in the test's directory.
  bool without_core_dump = false;
  // Sees everything the tool has written so far on each of its output streams, as it comes.
  std::function<void(const std::string& out, const std::string& err)> watch;
};

// Root regains its capabilities at exec from the bounding set, the inheritable set and the
// ambient set (which the sandbox fills), so the capability leaves all three.
inline bool drop_dac_override_across_exec() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2]{};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  data[0].inheritable &= ~(1u << CAP_DAC_OVERRIDE);
  return syscall(SYS_capset, &header, data) == 0 &&
         prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0 &&
         prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) == 0;
}

inline Result run(const std::vector<std::string>& args, const Options& options = {}) {
  std::vector<std::string> argv{EMBERLINE_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  test_support::Launch launch;
  launch.in_child = [&options] {
    if (options.without_core_dump) {
      rlimit none{0, 0};
      setrlimit(RLIMIT_CORE, &none);
    }
    return !options.without_dac_override || drop_dac_override_across_exec();
  };
  bool signalled = options.signal_after_start == 0;
  std::string out, err;
  std::size_t out_lines = 0;
  launch.on_output = [&](pid_t pid, int fd, const std::string& piece) {
    (fd == 1 ? out : err) += piece;
    if (fd == 1)
      out_lines += static_cast<std::size_t>(std::count(piece.begin(), piece.end(), '\n'));
    if (options.watch) options.watch(out, err);
    if (!signalled && err.find("Press CTRL-C to stop...\n") != std::string::npos) {
      kill(pid, options.signal_after_start);
      signalled = true;
    }
    return options.close_out_after_lines == 0 || out_lines < options.close_out_after_lines;
  };
  test_support::Outcome o = test_support::run_process(argv, launch);
  return {o.exit_code, o.signal, std::move(o.out), std::move(o.err)};
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

// "PATH OFFSET HEX" of each write the headset recorded into nodes under `prefix`, without its
// time, from the `skip`th on. The sim logs a write a moment after it was made, so this waits
// (boundedly) for `count` of them.
inline std::vector<std::string> recorded_writes(std::size_t count, std::size_t skip = 0,
                                                const std::string& prefix = "/") {
  const std::string log = std::string(std::getenv("EMBERLINE_SIM_STATE")) + "/writes.log";
  std::vector<std::string> writes;
  for (int attempt = 0; attempt < 500; ++attempt) {
    writes.clear();
    auto all = lines(read_file(log));
    for (std::size_t i = skip; i < all.size(); ++i) {
      std::string write = all[i].substr(all[i].find(' ') + 1);
      if (write.starts_with(prefix)) writes.push_back(write);
    }
    if (writes.size() >= count) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return writes;
}

}  // namespace e2e
