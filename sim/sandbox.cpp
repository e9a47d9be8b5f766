#include "sandbox.h"

#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include "device_log.h"
#include "state_dir.h"

namespace emberline::sim {

namespace {

std::vector<std::string> dir_entries(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (dirent* e = ::readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(d);
  }
  return names;
}

bool is_pid(const std::string& name) {
  return !name.empty() && std::isdigit(static_cast<unsigned char>(name[0]));
}

// The host's system directories, read-only; on a merged-/usr system /bin and friends are links.
void add_system(std::vector<std::string>& a) {
  a.insert(a.end(), {"--ro-bind", "/usr", "/usr"});
  for (const char* dir : {"/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32", "/etc"}) {
    struct stat st;
    if (::lstat(dir, &st) != 0) continue;
    if (S_ISLNK(st.st_mode)) {
      char target[4096];
      ssize_t n = ::readlink(dir, target, sizeof target - 1);
      if (n <= 0) continue;
      a.insert(a.end(), {"--symlink", std::string(target, static_cast<size_t>(n)), dir});
    } else if (S_ISDIR(st.st_mode)) {
      a.insert(a.end(), {"--ro-bind", dir, dir});
    }
  }
}

// /proc is the state directory's entries over a read-only tree of links into the real procfs: the
// process's own view (self, thread-self), what runtimes and sanitizers read (maps, cpuinfo, sys,
// ...), and the sandbox's pids, which LeakSanitizer opens by number.
void add_proc(std::vector<std::string>& a, const std::string& state) {
  const std::string real(kRealProc);
  a.insert(a.end(), {"--proc", real, "--tmpfs", "/proc"});
  std::set<std::string> simulated;
  for (const std::string& name : dir_entries(state + "/proc")) {
    simulated.insert(name);
    a.insert(a.end(), {"--ro-bind", state + "/proc/" + name, "/proc/" + name});
  }
  // The sandbox's procfs runs the same kernel as the host's, so it has the same entries.
  for (const std::string& name : dir_entries("/proc")) {
    if (is_pid(name) || simulated.count(name) != 0) continue;
    a.insert(a.end(), {"--symlink", real + "/" + name, "/proc/" + name});
  }
  for (int pid = 1; pid <= kProcPidLinks; ++pid) {
    std::string n = std::to_string(pid);
    if (simulated.count(n) == 0) a.insert(a.end(), {"--symlink", real + "/" + n, "/proc/" + n});
  }
  a.insert(a.end(), {"--remount-ro", "/proc"});
}

}  // namespace

StartMessage::StartMessage() {
  msg_.msg_iov = &iov_;
  msg_.msg_iovlen = 1;
  msg_.msg_control = control_;
  msg_.msg_controllen = sizeof control_;
}

void StartMessage::attach(int fd) {
  cmsghdr* cmsg = CMSG_FIRSTHDR(&msg_);
  cmsg->cmsg_level = SOL_SOCKET;
  cmsg->cmsg_type = SCM_RIGHTS;
  cmsg->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(cmsg), &fd, sizeof fd);
}

int StartMessage::attached() const {
  const cmsghdr* cmsg = CMSG_FIRSTHDR(&msg_);
  if (cmsg == nullptr || cmsg->cmsg_type != SCM_RIGHTS) return -1;
  int fd;
  std::memcpy(&fd, CMSG_DATA(cmsg), sizeof fd);
  return fd;
}

std::vector<std::string> bwrap_options(const SandboxPlan& plan) {
  // A pid namespace of its own, so that COMMAND's end tears down whatever it left running and
  // /proc/<pid> stays within reach. Root keeps what a headset's root has, such as changing user
  // or overriding file modes, but loses what would reach past the sandbox: mounts, devices,
  // modules, the clock.
  std::vector<std::string> a{"--die-with-parent", "--unshare-pid"};
  for (const char* cap : {"CAP_SYS_ADMIN", "CAP_SYS_MODULE", "CAP_SYS_RAWIO", "CAP_SYS_BOOT",
                          "CAP_SYS_TIME", "CAP_MKNOD", "CAP_NET_ADMIN"}) {
    a.insert(a.end(), {"--cap-drop", cap});
  }
  add_system(a);
  a.insert(a.end(), {"--dev", "/dev", "--tmpfs", "/tmp"});
  a.insert(a.end(), {"--ro-bind", plan.launcher, std::string(kLauncher)});
  add_proc(a, plan.state);
  for (const DeviceRoot& root : kDeviceRoots) {
    std::string from = plan.state + "/" + std::string(root.name);
    std::string to = "/" + std::string(root.name);
    if (root.exposure == Exposure::read_write) a.insert(a.end(), {"--bind", from, to});
    if (root.exposure == Exposure::read_only) a.insert(a.end(), {"--ro-bind", from, to});
  }
  a.insert(a.end(),
           {"--bind", plan.state + "/" + std::string(kLogDir), std::string(kSandboxLogDir)});
  // Later mounts go over earlier ones: a state directory inside the build directory stays writable.
  for (const std::string& dir : plan.visible) a.insert(a.end(), {"--ro-bind", dir, dir});
  a.insert(a.end(), {"--bind", plan.state, plan.state});
  return a;
}

std::vector<std::string> launcher_args(int control_fd, int args_fd,
                                       const std::vector<int>& restored_signals) {
  std::string signals;
  for (int sig : restored_signals) signals += (signals.empty() ? "" : ",") + std::to_string(sig);
  return {std::string(kLauncher),
          std::string(kLaunchFlag),
          std::to_string(control_fd),
          std::to_string(args_fd),
          signals,
          "--"};
}

int launch(int argc, char** argv) {
  if (argc < 7 || std::strcmp(argv[5], "--") != 0) {
    std::fprintf(stderr, "emberline-sim: %s is for the sim's own use\n", argv[1]);
    return 125;
  }
  int control_fd = std::atoi(argv[2]);
  ::close(std::atoi(argv[3]));
  char** command = argv + 6;

  // bubblewrap was started with these ignored so that a terminal's signals do not kill it;
  // COMMAND gets them as it would anywhere. One arriving before the exec stays pending until then
  // and ends this process as it would have ended COMMAND.
  sigset_t restored, old_mask;
  ::sigemptyset(&restored);
  for (const char* p = argv[4]; *p != '\0';) {
    char* end;
    int sig = static_cast<int>(std::strtol(p, &end, 10));
    if (end == p) break;
    ::sigaddset(&restored, sig);
    p = *end == ',' ? end + 1 : end;
  }
  ::sigprocmask(SIG_BLOCK, &restored, &old_mask);
  for (int sig = 1; sig < NSIG; ++sig) {
    if (::sigismember(&restored, sig) == 1) std::signal(sig, SIG_DFL);
  }

  // A pidfd lets the sim signal COMMAND across the pid namespace with no risk of pid reuse.
  int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0));
  StartMessage message;
  if (pidfd >= 0) {
    message.attach(pidfd);
  } else {
    // Without pidfd_open (kernels before 5.3) the message goes alone, since sendmsg refuses an
    // empty control block; the run goes on, only without signals passed on to COMMAND.
    message.get()->msg_controllen = 0;
  }
  ::sendmsg(control_fd, message.get(), MSG_NOSIGNAL);
  ::close(control_fd);
  if (pidfd >= 0) ::close(pidfd);

  ::sigprocmask(SIG_SETMASK, &old_mask, nullptr);
  ::execvp(command[0], command);
  int error = errno;
  std::fprintf(stderr, "emberline-sim: cannot run '%s': %s\n", command[0], std::strerror(error));
  return error == ENOENT ? 127 : 126;
}

}  // namespace emberline::sim
