// The exit guard writes back what was remembered when the process dies without running a handler
// (SIGKILL), entries remembered after the first guard started included.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "crash_restore.h"
#include "support/process.h"

namespace {

namespace cr = emberline::crash_restore;
using test_support::read_file;

// The steps run in a child that then kills itself; this process becomes the subreaper of the
// guards it leaves, so it can wait for them to finish. The guard writes back the nodes of the
// restores living at the kill, and only those.
TEST(ExitGuard, WritesBackTheNodesOfLivingRestoresWhenTheProcessIsKilled) {
  const struct {
    const char* name;
    bool let_first_go;   // before the kill
    bool let_second_go;  // before the kill
    const char* first_after;
    const char* second_after;
  } cases[] = {
      {"a guard follows every restore made", false, false, "100\n", "2"},
      {"a restore let go is not written", true, false, "x", "2"},
      {"the last one let go dismisses the guard", true, true, "x", "x"},
      {"the other order too", false, true, "100\n", "x"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    char dir[] = "/tmp/exit-guard-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string first = std::string(dir) + "/a", second = std::string(dir) + "/b";
    const std::string removed = std::string(dir) + "/fifo";
    std::ofstream(first) << "x";
    std::ofstream(second) << "x";
    std::ofstream(removed) << "";
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    if (fork() == 0) {
      auto a = cr::Restore::write_back(first, "100\n");
      auto removal = cr::Restore::removal(removed.c_str());
      const int fd = ::open(second.c_str(), O_WRONLY);
      auto b = cr::Restore::write_back(fd, "2");
      ::close(fd);
      if (!a.armed() || !b.armed() || !removal.armed()) _exit(1);
      if (c.let_first_go) a = {};
      if (c.let_second_go) b = {};
      ::kill(::getpid(), SIGKILL);
    }
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    EXPECT_EQ(read_file(first), c.first_after);
    EXPECT_EQ(read_file(second), c.second_after);
    // A path to remove is left for the next run to find.
    EXPECT_TRUE(std::filesystem::exists(removed));
    std::filesystem::remove_all(dir);
  }
}

// Without the guard's help: each fatal signal gives back from the dying process itself, nodes
// written and paths removed, then ends it as the signal would have.
TEST(ExitGuard, FatalSignalsGiveBackThenTakeTheirDefaultAction) {
  char dir[] = "/tmp/fatal-signal-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string node = std::string(dir) + "/node";
  static std::string removed;
  removed = std::string(dir) + "/fifo";
  for (int sig : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) {
    std::ofstream(node) << "1";
    std::ofstream(removed) << "";
    pid_t child = fork();
    if (child == 0) {
      rlimit no_core{0, 0};
      setrlimit(RLIMIT_CORE, &no_core);
      auto restore = cr::Restore::write_back(node, "0\n");
      auto removal = cr::Restore::removal(removed.c_str());
      cr::install_fatal_signal_handlers();
      ::raise(sig);
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << strsignal(sig) << " " << status;
    EXPECT_EQ(read_file(node), "0\n") << strsignal(sig);
    EXPECT_FALSE(std::filesystem::exists(removed)) << strsignal(sig);
  }
  std::filesystem::remove_all(dir);
}

// In-process, so that it runs where the signal tests above cannot.
TEST(CrashRestore, AnEntryHoldsAtMost64BytesAndNeedsItsNode) {
  const int fd = ::open("/dev/null", O_WRONLY);
  EXPECT_TRUE(cr::Restore::write_back(fd, std::string(64, 'x')).armed());
  EXPECT_FALSE(cr::Restore::write_back(fd, std::string(65, 'x')).armed());
  EXPECT_FALSE(cr::Restore::write_back(-1, "0").armed());
  EXPECT_FALSE(cr::Restore::write_back("/nonexistent/node", "0").armed());
  ::close(fd);
}

}  // namespace
