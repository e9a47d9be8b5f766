#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace emberline::sim {

struct RunOptions {
  std::string profile = "generic";
  bool frozen = false;
  std::uint64_t seed = 1;
  std::optional<std::string> state;
  std::vector<std::string> command;
  std::vector<std::string> visible;  // host directories shown read-only inside
};

// Exit status of the sim itself failing, as distinct from anything COMMAND returns.
inline constexpr int kSimFailed = 125;

// Lays out the headset, runs COMMAND in it and returns COMMAND's exit status, or 128 + the signal
// that ended it.
int run(const RunOptions& options);

}  // namespace emberline::sim
