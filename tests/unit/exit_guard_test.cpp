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
#include <sstream>
#include <string>

#include "crash_restore.h"

namespace {

namespace cr = emberline::crash_restore;

std::string contents(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// The steps run in a child that then kills itself; this process becomes the subreaper of the
// guards it leaves, so it can wait for them to finish.
TEST(ExitGuard, WritesBackEveryEntryItWasGivenWhenTheProcessIsKilled) {
  const struct {
    const char* name;
    bool forget_first;  // before the second entry
    bool restart;       // start the guard again after the second entry
    bool dismiss;       // before the kill
    const char* first_after;
    const char* second_after;
  } cases[] = {
      {"a guard knows only what came before it", false, false, false, "100\n", "x"},
      {"a restarted guard knows every entry", false, true, false, "100\n", "2"},
      {"a replaced guard goes without writing", true, true, false, "x", "2"},
      {"a dismissed guard writes nothing", false, true, true, "x", "x"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    char dir[] = "/tmp/exit-guard-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string first = std::string(dir) + "/a", second = std::string(dir) + "/b";
    std::ofstream(first) << "x";
    std::ofstream(second) << "x";
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    if (fork() == 0) {
      int slot = cr::remember(::open(first.c_str(), O_WRONLY), "100\n");
      cr::start_exit_guard();
      if (c.forget_first) cr::forget(slot);
      cr::remember(::open(second.c_str(), O_WRONLY), "2");
      if (c.restart) cr::start_exit_guard();
      if (c.dismiss) cr::dismiss_exit_guard();
      ::kill(::getpid(), SIGKILL);
    }
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    EXPECT_EQ(contents(first), c.first_after);
    EXPECT_EQ(contents(second), c.second_after);
    std::filesystem::remove_all(dir);
  }
}

// Without the guard, the handlers alone: each fatal signal writes the remembered bytes back from
// the dying process itself, then ends it as the signal would have.
TEST(ExitGuard, FatalSignalsWriteBackThenTakeTheirDefaultAction) {
  char dir[] = "/tmp/fatal-signal-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string node = std::string(dir) + "/node";
  for (int sig : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) {
    std::ofstream(node) << "1";
    pid_t child = fork();
    if (child == 0) {
      rlimit no_core{0, 0};
      setrlimit(RLIMIT_CORE, &no_core);
      cr::remember(::open(node.c_str(), O_WRONLY), "0\n");
      cr::install_fatal_signal_handlers();
      ::raise(sig);
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << strsignal(sig) << " " << status;
    EXPECT_EQ(contents(node), "0\n") << strsignal(sig);
  }
  std::filesystem::remove_all(dir);
}

// In-process, so that it runs where the guard's fork of a fork cannot.
TEST(CrashRestore, AnEntryHoldsAtMost64Bytes) {
  const int full = cr::remember(1, std::string(64, 'x'));
  EXPECT_GE(full, 0);
  cr::forget(full);
  EXPECT_EQ(cr::remember(1, std::string(65, 'x')), -1);
}

}  // namespace
