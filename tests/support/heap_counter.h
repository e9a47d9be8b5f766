#pragma once

// Counts every operator new of the program, for tests and benchmarks that prove a path allocates
// nothing. It replaces the global operators, so include it in exactly one file of a binary.

#include <dirent.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace heap_counter {
inline std::atomic<long> allocations{0};

inline int open_descriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

// The sanitizers' allocators bypass these operators for their own bookkeeping.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kReliable = false;
#else
constexpr bool kReliable = true;
#endif
}  // namespace heap_counter

// These replace the global pair, so malloc and free do match; GCC cannot see that.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  heap_counter::allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
// The library's temporary buffers (std::stable_sort) come from the nothrow form and go back
// through the plain delete above, so it must come from malloc too.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  heap_counter::allocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
#pragma GCC diagnostic pop
