#pragma once

// What the fuzz targets share: cutting an input into the several texts one parser sees over a
// run, and failing loudly when an invariant breaks.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Kernel nodes and log lines hold no NUL, so a NUL separates the texts of one input: the nodes
// of successive ticks, or the arguments of one command line.
inline std::vector<std::string> pieces(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> out(1);
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      out.emplace_back();
    } else {
      out.back() += static_cast<char>(data[i]);
    }
  }
  return out;
}

// abort() rather than assert(): the check stays in release builds and libFuzzer keeps the input.
inline void check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "invariant broken: %s\n", what);
  std::abort();
}

}  // namespace fuzz
