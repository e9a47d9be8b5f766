#pragma once

// Runs the real emberline binary as a child process and collects what it wrote. Meant to run
// inside the simulated headset, where the device's paths exist.

#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace e2e {

struct Result {
  int exit_code = -1;  // -1 when the tool died by a signal
  std::string out;
  std::string err;
};

struct Options {
  // Sent once the tool has announced its run on the standard error stream.
  int signal_after_start = 0;
  // Runs the tool as root without the right to override file permissions, so that a read-only
  // node refuses it as it refuses an unprivileged shell on a headset.
  bool without_dac_override = false;
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
  int out_pipe[2], err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe");
  }
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    if (options.without_dac_override && !drop_dac_override_across_exec()) _exit(126);
    std::vector<char*> argv;
    std::string binary = EMBERLINE_BINARY;
    argv.push_back(binary.data());
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(binary.c_str(), argv.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);

  Result result;
  bool signalled = options.signal_after_start == 0;
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  int open_streams = 2;
  while (open_streams > 0) {
    if (poll(fds, 2, -1) < 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      ssize_t got = read(fds[i].fd, buffer, sizeof buffer);
      if (got <= 0) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_streams;
        continue;
      }
      (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(got));
    }
    if (!signalled && result.err.find("Press CTRL-C to stop...\n") != std::string::npos) {
      kill(pid, options.signal_after_start);
      signalled = true;
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::trunc);
  file << text;
  if (!file) throw std::runtime_error("cannot write " + path);
}

inline std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

inline std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) result.push_back(line);
  return result;
}

// Reports carry wall-clock times; tests compare them in this shape.
inline std::string mask_times(std::string text) {
  static const std::regex device_time(R"(1[0-9]{9}\.[0-9]{3})");
  return std::regex_replace(text, device_time, "<epoch>");
}

// Cycles are planned on whole milliseconds of the wall clock while the run's start is not, and a
// loaded machine wakes late: "1.999" and "2.003" both mean the report at two seconds.
inline std::string round_seconds(const std::string& text) {
  static const std::regex seconds(R"(\b([0-9]{1,3})\.([0-9]{3})\b)");
  std::string out;
  auto last = text.cbegin();
  for (std::sregex_iterator it(text.begin(), text.end(), seconds), end; it != end; ++it) {
    out.append(last, (*it)[0].first);
    const long millis = std::stol((*it)[1]) * 1000 + std::stol((*it)[2]);
    const long whole = (millis + 500) / 1000;
    out += std::abs(millis - whole * 1000) <= 20 ? std::to_string(whole) + ".000" : it->str();
    last = (*it)[0].second;
  }
  out.append(last, text.cend());
  return out;
}

}  // namespace e2e
