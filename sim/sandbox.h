#pragma once

#include <sys/socket.h>

#include <string>
#include <string_view>
#include <vector>

namespace emberline::sim {

// Inside the sandbox, where the real procfs of the sandbox's pid namespace is mounted, and where
// this binary stands to start COMMAND.
inline constexpr std::string_view kRealProc = "/.emberline-sim/proc";
inline constexpr std::string_view kLauncher = "/.emberline-sim/launch";
// First argument that makes this binary the launcher rather than the command-line tool.
inline constexpr std::string_view kLaunchFlag = "--launch-in-sandbox";

// Real processes are reachable at /proc/<pid> for pids up to this. The sandbox has its own pid
// namespace, which hands out pids from 1 upwards, so these cover the first tasks of a run; /proc
// is otherwise simulated and has no way to name a pid on demand.
inline constexpr int kProcPidLinks = 2048;

// The launcher's one-byte start message, with room for one descriptor beside it. Both ends build
// it the same way; it points into itself, so it stays where it was made.
class StartMessage {
 public:
  StartMessage();
  StartMessage(const StartMessage&) = delete;
  StartMessage& operator=(const StartMessage&) = delete;

  void attach(int fd);
  int attached() const;  // the descriptor received, or -1
  msghdr* get() { return &msg_; }

 private:
  char byte_ = 'S';
  iovec iov_{&byte_, 1};
  alignas(cmsghdr) char control_[CMSG_SPACE(sizeof(int))] = {};
  msghdr msg_{};
};

struct SandboxPlan {
  std::string state;                 // the state directory, absolute
  std::vector<std::string> visible;  // host directories shown read-only at their own paths
  std::string launcher;              // this binary on the host
};

// bubblewrap options that build the headset's file system, to be passed through --args.
std::vector<std::string> bwrap_options(const SandboxPlan& plan);

// The launcher's own arguments, ahead of COMMAND: the socket to report on, the options file to
// close, and the signals to give back their default action.
std::vector<std::string> launcher_args(int control_fd, int args_fd,
                                       const std::vector<int>& restored_signals);

// Runs as the first process inside the sandbox: gives the sim a handle to signal it by, then
// becomes COMMAND. Returns only on failure, with the shell's exit status for it.
int launch(int argc, char** argv);

}  // namespace emberline::sim
