#include "platform/counter/cntvct.h"

namespace emberline::platform {

std::uint64_t read_cntvct() {
  return monotonic_cntvct();
}

std::uint64_t read_cntfrq() {
  return kCntvctFrequency;
}

}  // namespace emberline::platform
