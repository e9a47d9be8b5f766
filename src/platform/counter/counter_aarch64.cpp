#include "platform/counter/cntvct.h"

namespace emberline::platform {

std::uint64_t read_cntvct() {
  std::uint64_t ticks;
  // Without the barrier the read may be taken early, before work that precedes it in program
  // order, and a time stamp would then fall before the event it stamps.
  asm volatile("isb\n\tmrs %0, cntvct_el0" : "=r"(ticks) : : "memory");
  return ticks;
}

std::uint64_t read_cntfrq() {
  std::uint64_t frequency;
  asm volatile("mrs %0, cntfrq_el0" : "=r"(frequency));
  return frequency;
}

}  // namespace emberline::platform
