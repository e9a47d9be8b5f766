#pragma once

// What the end-to-end and sim tests share: whole-file reads and writes, and running a program as
// a child with its output collected.

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace test_support {

inline std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::trunc | std::ios::binary);
  file << text;
  if (!file) throw std::runtime_error("cannot write " + path);
}

inline std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) result.push_back(line);
  return result;
}

struct Outcome {
  pid_t pid = 0;
  int exit_code = -1;  // -1 when the child died by a signal
  int signal = 0;      // the signal that ended it, if one did
  std::string out;
  std::string err;
};

struct Launch {
  std::vector<std::string> env;  // NAME=VALUE, winning over this process's
  // Runs in the child between fork and exec; returns false to give up with status 126.
  std::function<bool()> in_child;
  // Called with the child's pid once it has started, before any output is read.
  std::function<void(pid_t)> on_start;
  // Called with the child's pid and each piece of output as it arrives (fd 1 or 2); returning
  // false closes the child's standard output early, as a reader that went away would.
  std::function<bool(pid_t, int, const std::string&)> on_output;
};

// Runs argv[0] with the signals a shell would hand on at their default action, and collects its
// two output streams until both close.
inline Outcome run_process(const std::vector<std::string>& args, const Launch& launch = {}) {
  int out_pipe[2], err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe");
  }
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    for (const std::string& e : launch.env) putenv(const_cast<char*>(e.c_str()));
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) signal(sig, SIG_DFL);
    if (launch.in_child && !launch.in_child()) _exit(126);
    std::vector<char*> argv;
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  if (launch.on_start) launch.on_start(pid);

  Outcome outcome;
  outcome.pid = pid;
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
      std::string piece(buffer, static_cast<std::size_t>(got));
      (i == 0 ? outcome.out : outcome.err) += piece;
      if (launch.on_output && !launch.on_output(pid, i + 1, piece) && fds[0].fd >= 0) {
        close(fds[0].fd);
        fds[0].fd = -1;
        --open_streams;
      }
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) outcome.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) outcome.signal = WTERMSIG(status);
  return outcome;
}

// Why the simulated headset cannot be made on this machine, or nothing when it can. Asked once:
// the answer does not change during a test run. Where bubblewrap makes a sandbox by itself, the
// sim failing to is the sim's fault: then the tests run, and fail, rather than skip.
inline const std::optional<std::string>& sandbox_unavailable(const std::string& sim_binary) {
  static const std::optional<std::string> reason = [&]() -> std::optional<std::string> {
    Outcome o = run_process({sim_binary, "run", "--frozen", "--", "/bin/true"});
    if (o.exit_code == 0) return std::nullopt;
    if (run_process({"/bin/sh", "-c", "bwrap --unshare-pid --dev-bind / / true"}).exit_code == 0) {
      return std::nullopt;
    }
    std::string why = o.err.empty() ? "exit status " + std::to_string(o.exit_code) : o.err;
    while (!why.empty() && why.back() == '\n') why.pop_back();
    return "the simulated headset cannot be made here (" + why + ")";
  }();
  return reason;
}

}  // namespace test_support
