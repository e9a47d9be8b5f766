#include "platform/counter/counter.h"

namespace emberline {

std::uint64_t read_cntvct() {
  return monotonic_cntvct();
}

std::uint64_t read_cntfrq() {
  return kCntvctFrequency;
}

}  // namespace emberline
