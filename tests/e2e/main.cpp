// Each end-to-end test binary runs itself inside a fresh, frozen simulated headset of its own.
// Listing the tests needs no headset, so the build never depends on the sandbox; where it cannot
// be made, every test is reported as skipped with the reason.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/process.h"

namespace {

constexpr const char* kInsideVariable = "EMBERLINE_E2E_INSIDE_SIM";

// ctest reports a test whose binary exits with this as skipped (SKIP_RETURN_CODE).
constexpr int kSkipped = 77;

}  // namespace

int main(int argc, char** argv) {
  // Google Test takes its own flags out of argv, and the run inside the sim needs them too.
  const std::vector<std::string> original(argv + 1, argv + argc);
  testing::InitGoogleTest(&argc, argv);
  if (std::getenv(kInsideVariable) == nullptr && !GTEST_FLAG_GET(list_tests)) {
    if (const auto& reason = test_support::sandbox_unavailable(EMBERLINE_SIM)) {
      std::printf("Skipped: %s\n", reason->c_str());
      return kSkipped;
    } else {
      std::vector<std::string> args{EMBERLINE_SIM, "run", "--frozen", "--profile",
                                    E2E_PROFILE,   "--",  argv[0]};
      args.insert(args.end(), original.begin(), original.end());
      std::vector<char*> exec_argv;
      for (auto& arg : args) exec_argv.push_back(arg.data());
      exec_argv.push_back(nullptr);
      setenv(kInsideVariable, "1", 1);
      execv(EMBERLINE_SIM, exec_argv.data());
      return 127;
    }
  }
  return RUN_ALL_TESTS();
}
