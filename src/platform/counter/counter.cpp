#include "platform/counter/cntvct.h"

namespace emberline::platform {

std::uint64_t monotonic_cntvct() {
  std::timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return cntvct_from_timespec(now);
}

}  // namespace emberline::platform
