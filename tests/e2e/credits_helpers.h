#pragma once

// The simulated headset's thread tree, seen from a test inside it: where a thread's files are in
// the state directory, and a way to change its counters once the tool has taken its first
// snapshot.

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "harness.h"

namespace credits {

inline std::vector<std::string> entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

inline std::string task_dir(int pid) {
  return e2e::state_dir() + "/proc/" + std::to_string(pid) + "/task/";
}

// The thread of `pid` named `comm`; -1 if there is none.
inline int find_tid(int pid, const std::string& comm) {
  for (const std::string& tid : entries(task_dir(pid))) {
    if (e2e::read_file(task_dir(pid) + tid + "/comm") == comm + "\n") return std::stoi(tid);
  }
  return -1;
}

// Adds `ticks` to the counter of `freq` in the first cluster of a thread's time_in_state.
inline void add_ticks(int pid, int tid, long freq, long ticks) {
  std::string path = task_dir(pid) + std::to_string(tid) + "/time_in_state";
  std::string text;
  for (const std::string& line : e2e::lines(e2e::read_file(path))) {
    long f = 0, t = 0;
    if (!line.starts_with("cpu") && std::sscanf(line.c_str(), "%ld %ld", &f, &t) == 2 &&
        f == freq && ticks != 0) {
      text += std::to_string(f) + " " + std::to_string(t + ticks) + "\n";
      ticks = 0;
    } else {
      text += line + "\n";
    }
  }
  e2e::write_file(path, text);
}

// Runs the tool and calls `change` once it has started its run, after its first snapshot of
// every thread's counters, which it takes at start; the next one is a whole output period later.
inline e2e::Result run_changing_after_first_snapshot(const std::vector<std::string>& args,
                                                     const std::function<void()>& change) {
  e2e::Options options;
  options.once_started = change;
  return e2e::run(args, options);
}

}  // namespace credits
