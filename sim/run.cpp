#include "run.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include "device_log.h"
#include "dsp_agent.h"
#include "model.h"
#include "profile.h"
#include "sandbox.h"
#include "state_dir.h"
#include "write_recorder.h"

extern char** environ;

namespace emberline::sim {

namespace {

constexpr int kForwarded[] = {SIGINT, SIGTERM, SIGHUP};
// After a stall the model catches up at most this many steps at once, rather than replaying it.
constexpr std::uint64_t kMaxCatchUpSteps = 100;

std::string absolute(const std::string& path) {
  char* resolved = ::realpath(path.c_str(), nullptr);
  if (resolved == nullptr) fail("cannot resolve " + path);
  std::string result = resolved;
  std::free(resolved);
  return result;
}

std::string find_in_path(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  for (size_t begin = 0; begin <= dirs.size();) {
    size_t end = std::min(dirs.find(':', begin), dirs.size());
    std::string candidate = dirs.substr(begin, end - begin) + "/" + name;
    if (end > begin && ::access(candidate.c_str(), X_OK) == 0) return candidate;
    begin = end + 1;
  }
  throw std::runtime_error(name + " not found in PATH; install bubblewrap");
}

// bubblewrap reads its options from here, NUL-separated: thousands of them would not fit well on
// a command line.
UniqueFd options_file(const std::vector<std::string>& options) {
  UniqueFd fd(::memfd_create("emberline-sim-bwrap-args", MFD_CLOEXEC));
  if (!fd) fail("cannot pass options to bwrap");
  std::string text;
  for (const std::string& o : options) text.append(o).push_back('\0');
  for (size_t done = 0; done < text.size();) {
    ssize_t n = ::write(fd.get(), text.data() + done, text.size() - done);
    if (n <= 0) fail("cannot pass options to bwrap");
    done += static_cast<size_t>(n);
  }
  ::lseek(fd.get(), 0, SEEK_SET);
  return fd;
}

std::vector<std::string> command_environment(const std::string& state) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string_view entry = *e;
    if (!entry.starts_with("EMBERLINE_SIM_STATE=") && !entry.starts_with("TMPDIR=")) {
      env.emplace_back(entry);
    }
  }
  env.push_back("EMBERLINE_SIM_STATE=" + state);
  // The host's TMPDIR is not inside; /tmp is, in memory.
  env.push_back("TMPDIR=/tmp");
  return env;
}

std::vector<char*> c_strings(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (std::string& s : strings) result.push_back(s.data());
  result.push_back(nullptr);
  return result;
}

pid_t spawn(const std::string& program, std::vector<std::string>& argv,
            std::vector<std::string>& env, std::initializer_list<int> inherited,
            const sigset_t& mask) {
  int error_pipe[2];
  if (::pipe2(error_pipe, O_CLOEXEC) != 0) fail("cannot start bwrap");
  std::vector<char*> c_argv = c_strings(argv), c_env = c_strings(env);
  pid_t pid = ::fork();
  if (pid < 0) fail("cannot start bwrap");
  if (pid == 0) {
    // Ignored before unblocked, so that nothing pending kills bubblewrap on the way: it must
    // outlive COMMAND to report its status. The launcher restores them for COMMAND.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    for (int sig : kForwarded) ::sigaction(sig, &ignore, nullptr);
    ::sigprocmask(SIG_SETMASK, &mask, nullptr);
    for (int fd : inherited) ::fcntl(fd, F_SETFD, 0);
    ::execve(program.c_str(), c_argv.data(), c_env.data());
    int error = errno;
    [[maybe_unused]] ssize_t n = ::write(error_pipe[1], &error, sizeof error);
    ::_exit(127);
  }
  ::close(error_pipe[1]);
  int error = 0;
  ssize_t n = ::read(error_pipe[0], &error, sizeof error);
  ::close(error_pipe[0]);
  if (n == sizeof error) {
    ::waitpid(pid, nullptr, 0);
    errno = error;
    fail("cannot run " + program);
  }
  return pid;
}

// The launcher's message that COMMAND is about to start, with a pidfd for it. Returns the pidfd
// (or an empty one if the kernel has none to give), or nothing if no message has come.
std::optional<UniqueFd> receive_start(int control) {
  StartMessage message;
  if (::recvmsg(control, message.get(), MSG_DONTWAIT | MSG_CMSG_CLOEXEC) != 1) return std::nullopt;
  int fd = message.attached();
  return fd >= 0 ? UniqueFd(fd) : UniqueFd();
}

class Clock {
 public:
  double now() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace

int run(const RunOptions& options) {
  const Profile* profile = find_profile(options.profile);
  if (profile == nullptr) throw std::runtime_error("no profile named " + options.profile);
  Clock clock;

  // Signals the caller has us ignore (nohup) stay ignored all the way down to COMMAND.
  std::vector<int> forwarded;
  for (int sig : kForwarded) {
    struct sigaction current {};
    if (::sigaction(sig, nullptr, &current) == 0 && current.sa_handler != SIG_IGN) {
      forwarded.push_back(sig);
    }
  }
  sigset_t handled, old_mask;
  ::sigemptyset(&handled);
  for (int sig : forwarded) ::sigaddset(&handled, sig);
  ::sigaddset(&handled, SIGCHLD);
  // Blocked from the start: one that comes during the layout is passed on once COMMAND runs.
  ::sigprocmask(SIG_BLOCK, &handled, &old_mask);
  UniqueFd signals(::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signals) fail("cannot watch signals");

  std::optional<TemporaryDir> temporary;
  std::string state;
  if (options.state) {
    make_dirs(*options.state);
    state = absolute(*options.state);
  } else {
    temporary.emplace();
    state = absolute(temporary->path());
  }

  DeviceModel model(profile->model, options.seed);
  lay_out(*profile, state, model.state());
  lay_out_log(state);
  std::optional<LiveNodes> live;
  if (!options.frozen) live.emplace(*profile, state);
  std::optional<LogWriter> log;
  if (!options.frozen) log.emplace(state);
  std::optional<LiveThreads> threads;
  if (!options.frozen) threads.emplace(profile->model.threads, model.state().threads, state);
  std::optional<DspAgent> dsp;
  if (!options.frozen) dsp.emplace(state + kDspFifo, options.seed);
  WriteRecorder recorder(*profile, state);

  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
    fail("cannot start bwrap");
  UniqueFd control(pair[0]), launcher_end(pair[1]);

  SandboxPlan plan{state, options.visible, absolute("/proc/self/exe")};
  UniqueFd args = options_file(bwrap_options(plan));
  std::vector<std::string> argv{"bwrap", "--args", std::to_string(args.get()), "--"};
  for (std::string& a : launcher_args(launcher_end.get(), args.get(), forwarded)) {
    argv.push_back(std::move(a));
  }
  argv.insert(argv.end(), options.command.begin(), options.command.end());
  std::vector<std::string> env = command_environment(state);
  pid_t child = spawn(find_in_path("bwrap"), argv, env, {launcher_end.get(), args.get()}, old_mask);
  launcher_end = UniqueFd();
  args = UniqueFd();

  UniqueFd timer;
  if (live) {
    timer = UniqueFd(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    itimerspec period{};
    period.it_interval.tv_nsec = period.it_value.tv_nsec =
        static_cast<long>(DeviceModel::kStepSeconds * 1e9);
    if (!timer || ::timerfd_settime(timer.get(), 0, &period, nullptr) != 0)
      fail("cannot run model");
  }

  std::optional<UniqueFd> pidfd;
  std::vector<int> pending;
  auto forward = [&](int sig) {
    if (!pidfd) {
      pending.push_back(sig);
    } else if (*pidfd) {
      ::syscall(SYS_pidfd_send_signal, pidfd->get(), sig, nullptr, 0);
    }
  };

  int status = 0;
  for (bool running = true; running;) {
    pollfd fds[] = {{control.get(), POLLIN, 0},
                    {signals.get(), POLLIN, 0},
                    {recorder.fd(), POLLIN, 0},
                    {timer.get(), POLLIN, 0}};
    if (::poll(fds, std::size(fds), -1) < 0) {
      if (errno == EINTR) continue;
      fail("cannot wait for COMMAND");
    }
    if (fds[0].revents != 0) {
      pidfd = receive_start(control.get());
      control = UniqueFd();
      if (pidfd) {
        for (int sig : pending) forward(sig);
        pending.clear();
      }
    }
    if (fds[1].revents != 0) {
      signalfd_siginfo info;
      while (::read(signals.get(), &info, sizeof info) == sizeof info) {
        int sig = static_cast<int>(info.ssi_signo);
        if (sig == SIGCHLD) {
          pid_t reaped = ::waitpid(child, &status, WNOHANG);
          running = reaped == 0;
        } else if (info.ssi_code != SI_KERNEL || !pidfd) {
          // A terminal's signal reaches COMMAND by itself, being in our process group.
          forward(sig);
        }
      }
    }
    if (fds[2].revents != 0) {
      for (const Write& w : recorder.collect(clock.now())) model.node_written(w.path, w.bytes);
      model.set_charging_suspended(recorder.charging_suspended());
    }
    if (fds[3].revents != 0) {
      std::uint64_t expired = 0;
      if (::read(timer.get(), &expired, sizeof expired) == sizeof expired && expired > 0) {
        for (std::uint64_t i = 0; i < std::min(expired, kMaxCatchUpSteps); ++i) model.step();
        live->render(model.state());
        log->write(model.state().log);
        threads->update(model.state().threads);
        dsp->set_load(model.state().load);
      }
    }
  }

  // Whatever COMMAND wrote on its way out is in the nodes by now, event or not.
  recorder.drain(clock.now());
  if (!pidfd && control) pidfd = receive_start(control.get());
  ::sigprocmask(SIG_SETMASK, &old_mask, nullptr);

  if (!pidfd) {
    std::cerr << "emberline-sim: could not set up the sandbox; bwrap needs root, CAP_SYS_ADMIN or "
                 "unprivileged user namespaces to make a mount namespace"
              << std::endl;
    return kSimFailed;
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace emberline::sim
