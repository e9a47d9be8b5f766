#pragma once

// Runs a program, the emberline-sim binary unless told otherwise, and collects what it printed.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "state_dir.h"

extern char** environ;

namespace sim_test {

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

struct Outcome {
  int status = -1;  // -1 if the program died by a signal
  std::string out;
  std::string err;
};

class Process {
 public:
  // `env` entries (NAME=VALUE) go ahead of this process's environment, so they win.
  explicit Process(const std::vector<std::string>& args, std::vector<std::string> env = {},
                   std::string program = SIM_BINARY) {
    std::vector<std::string> argv_strings{program};
    argv_strings.insert(argv_strings.end(), args.begin(), args.end());
    for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
    std::vector<char*> argv = pointers(argv_strings), envp = pointers(env);
    std::string out = dir_.path() + "/out", err = dir_.path() + "/err";
    pid_ = fork();
    if (pid_ == 0) {
      dup2(open(out.c_str(), O_WRONLY | O_CREAT, 0644), 1);
      dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0644), 2);
      for (int sig : {SIGINT, SIGTERM, SIGHUP}) ::signal(sig, SIG_DFL);
      execve(argv[0], argv.data(), envp.data());
      _exit(127);
    }
  }

  void signal(int sig) { kill(pid_, sig); }

  Outcome wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(dir_.path() + "/out"),
            read_file(dir_.path() + "/err")};
  }

 private:
  static std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (std::string& s : strings) result.push_back(s.data());
    result.push_back(nullptr);
    return result;
  }

  emberline::sim::TemporaryDir dir_;
  pid_t pid_ = -1;
};

inline Outcome run_sim(const std::vector<std::string>& args, std::vector<std::string> env = {}) {
  return Process(args, std::move(env)).wait();
}

}  // namespace sim_test
