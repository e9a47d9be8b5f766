#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace ArSysStats {

// Something of every thread a run has met, by (pid, tid), as a map holds it; entries are never
// removed. A walk of /proc meets the threads in the same order at every tick, and every thread
// is looked up at every tick: so the entries stand in the order they were first met, and a
// lookup tries the entry after the last one found before it hashes. In a steady state each
// lookup is then a step to the next entry, where a tree or a hash table of nodes would send it to
// a different corner of the heap for every thread. The hash table holds only the entries'
// positions, a few bytes per thread.
template <typename T>
class ThreadMap {
 public:
  using key_type = std::pair<int, int>;
  using mapped_type = T;
  struct Entry {
    key_type first;
    T second;
  };

  // The entry of `thread`, made with an empty T if there is none, and whether it was made. The
  // entry stays where it is until the next entry is made.
  std::pair<Entry*, bool> try_emplace(key_type thread) {
    if (next_ < entries_.size() && entries_[next_].first == thread) {
      return {&entries_[next_++], false};
    }
    // At most half the slots taken, so that a probe ends soon.
    if (2 * (entries_.size() + 1) > slots_.size()) rehash(slots_.empty() ? 64 : 2 * slots_.size());
    std::uint32_t& slot = slots_[slot_of(thread)];
    const bool made = slot == 0;
    if (made) {
      entries_.push_back({thread, T()});
      slot = static_cast<std::uint32_t>(entries_.size());
    }
    next_ = slot;
    return {&entries_[slot - 1], made};
  }

  const Entry* find(key_type thread) const {
    if (slots_.empty()) return nullptr;
    const std::uint32_t slot = slots_[slot_of(thread)];
    return slot == 0 ? nullptr : &entries_[slot - 1];
  }
  std::size_t size() const { return entries_.size(); }

 private:
  static std::size_t hash(key_type thread) {
    const std::uint64_t pid = static_cast<std::uint32_t>(thread.first);
    const std::uint64_t tid = static_cast<std::uint32_t>(thread.second);
    const std::uint64_t mixed = (pid << 32 | tid) * 0x9E3779B97F4A7C15;
    return static_cast<std::size_t>(mixed ^ mixed >> 32);
  }

  // The slot that holds `thread`, or the empty one where it would go.
  std::size_t slot_of(key_type thread) const {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = hash(thread) & mask;; i = (i + 1) & mask) {
      if (slots_[i] == 0 || entries_[slots_[i] - 1].first == thread) return i;
    }
  }

  void rehash(std::size_t size) {
    slots_.assign(size, 0);
    for (std::size_t e = 0; e < entries_.size(); ++e) {
      slots_[slot_of(entries_[e].first)] = static_cast<std::uint32_t>(e + 1);
    }
  }

  std::vector<Entry> entries_;        // in the order first met
  std::vector<std::uint32_t> slots_;  // a position in entries_ plus one; 0 is a free slot
  std::size_t next_ = 0;              // where the last lookup's walk goes on
};

}  // namespace ArSysStats
