#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ArSysStats {

// A (pid, tid) as one number, for hashing.
struct ThreadHash {
  std::size_t operator()(const std::pair<int, int>& thread) const noexcept {
    const auto pid = static_cast<std::uint32_t>(thread.first);
    const auto tid = static_cast<std::uint32_t>(thread.second);
    return std::hash<std::uint64_t>()(std::uint64_t{pid} << 32 | tid);
  }
};

// Something of every thread a run has met, by (pid, tid), as a map holds it; entries are never
// removed. A walk of /proc meets the threads in the same order at every tick, and every thread
// is looked up at every tick: so the entries stand in the order they were first met, and a
// lookup tries the entry after the last one found before it hashes. In a steady state each
// lookup is then a step to the next entry, where a tree or a hash table would send it to a
// different corner of the heap for every thread.
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
    const auto [at, made] = index_.try_emplace(thread, entries_.size());
    if (made) entries_.push_back({thread, T()});
    next_ = at->second + 1;
    return {&entries_[at->second], made};
  }

  const Entry* find(key_type thread) const {
    const auto at = index_.find(thread);
    return at == index_.end() ? nullptr : &entries_[at->second];
  }
  std::size_t size() const { return entries_.size(); }

 private:
  std::vector<Entry> entries_;  // in the order first met
  std::unordered_map<key_type, std::size_t, ThreadHash> index_;
  std::size_t next_ = 0;  // where the last lookup's walk goes on
};

}  // namespace ArSysStats
