#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

namespace ArSysStats {

// A number per cluster, kept in ascending order of cluster as std::map keeps it, and read and
// written as one. A thread runs on a few clusters only, so up to four entries stand inside the
// object: a snapshot of thousands of threads then takes no heap block per thread, and a thread's
// record stays small enough that three snapshots' worth fit the memory a headset spares. Only a
// garbled file names more clusters, or clusters outside a byte; then all entries move to the
// heap together.
//
// A cluster is named by one character of time_in_state less '0', so every cluster number fits
// 16 bits, and a map holds at most a few hundred.
template <typename V>
class ClusterMap {
  static_assert(std::is_trivially_copyable_v<V>);

 public:
  using key_type = int;
  using mapped_type = V;
  using value_type = std::pair<int, V>;
  using size_type = std::size_t;

  template <bool Const>
  class Iterator {
    using Map = std::conditional_t<Const, const ClusterMap, ClusterMap>;
    using Value = std::conditional_t<Const, const V, V>;

   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = ClusterMap::value_type;
    using difference_type = std::ptrdiff_t;
    using reference = std::pair<int, Value&>;
    struct pointer {
      reference entry;
      reference* operator->() { return &entry; }
    };

    Iterator() = default;
    Iterator(Map* map, std::size_t at) : map_(map), at_(at) {}
    operator Iterator<true>() const requires(!Const) { return {map_, at_}; }

    reference operator*() const { return {map_->key_at(at_), map_->values()[at_]}; }
    pointer operator->() const { return {**this}; }
    Iterator& operator++() {
      ++at_;
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++at_;
      return before;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.at_ == b.at_; }

   private:
    Map* map_ = nullptr;
    std::size_t at_ = 0;
  };
  using iterator = Iterator<false>;
  using const_iterator = Iterator<true>;

  ClusterMap() noexcept : inside_{} {}
  ClusterMap(std::initializer_list<value_type> entries) : ClusterMap() {
    for (const auto& [cluster, value] : entries) (*this)[cluster] = value;
  }
  ClusterMap(const ClusterMap& other) : ClusterMap() { copy_from(other); }
  ClusterMap(ClusterMap&& other) noexcept : ClusterMap() { take(other); }
  ClusterMap& operator=(const ClusterMap& other) {
    if (this != &other) {
      release();
      copy_from(other);
    }
    return *this;
  }
  ClusterMap& operator=(ClusterMap&& other) noexcept {
    if (this != &other) {
      release();
      take(other);
    }
    return *this;
  }
  ~ClusterMap() { release(); }

  iterator begin() { return {this, 0}; }
  iterator end() { return {this, size()}; }
  const_iterator begin() const { return {this, 0}; }
  const_iterator end() const { return {this, size()}; }

  size_type size() const { return inside_.size; }
  bool empty() const { return inside_.size == 0; }
  void clear() { release(); }

  iterator find(int cluster) { return {this, index_of(cluster)}; }
  const_iterator find(int cluster) const { return {this, index_of(cluster)}; }
  size_type count(int cluster) const { return index_of(cluster) != size() ? 1 : 0; }

  // The number of `cluster`, made 0 first if the map has none.
  V& operator[](int cluster) {
    // Mostly filled in ascending order of cluster: differences and credits from another map,
    // counters as the kernel lists its clusters. That needs no search and no shift.
    const std::uint16_t n = inside_.size;
    if (!inside_.spilled && n < kInline && (n == 0 || inside_.keys[n - 1] < cluster) &&
        fits_inside(cluster)) {
      inside_.keys[n] = static_cast<std::int8_t>(cluster);
      inside_.values[n] = V{};
      ++inside_.size;
      return inside_.values[n];
    }
    return insert(cluster);
  }

  friend bool operator==(const ClusterMap& a, const ClusterMap& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
      if (a.key_at(i) != b.key_at(i) || !(a.values()[i] == b.values()[i])) return false;
    }
    return true;
  }

 private:
  static constexpr std::uint16_t kInline = 4;

  static bool fits_inside(int cluster) {
    return cluster >= std::numeric_limits<std::int8_t>::min() &&
           cluster <= std::numeric_limits<std::int8_t>::max();
  }
  int key_at(std::size_t i) const { return inside_.spilled ? spilled_.keys[i] : inside_.keys[i]; }

  V& insert(int cluster) {
    const std::size_t n = size();
    std::size_t at = 0;
    while (at < n && key_at(at) < cluster) ++at;
    if (at < n && key_at(at) == cluster) return values()[at];
    if (!inside_.spilled && (n == kInline || !fits_inside(cluster))) {
      spill(kInline * 2);
    } else if (inside_.spilled && n == spilled_.capacity) {
      spill(spilled_.capacity * 2);
    }
    V* v = values();
    std::copy_backward(v + at, v + n, v + n + 1);
    if (inside_.spilled) {
      std::copy_backward(spilled_.keys + at, spilled_.keys + n, spilled_.keys + n + 1);
      spilled_.keys[at] = static_cast<std::int16_t>(cluster);
    } else {
      std::copy_backward(inside_.keys + at, inside_.keys + n, inside_.keys + n + 1);
      inside_.keys[at] = static_cast<std::int8_t>(cluster);
    }
    v[at] = V{};
    ++inside_.size;
    return v[at];
  }
  V* values() { return inside_.spilled ? spilled_.values : inside_.values; }
  const V* values() const { return inside_.spilled ? spilled_.values : inside_.values; }

  std::size_t index_of(int cluster) const {
    const std::size_t n = size();
    std::size_t at = 0;
    while (at < n && key_at(at) < cluster) ++at;
    return at < n && key_at(at) == cluster ? at : n;
  }

  // All entries into one heap block of room for `capacity`: the numbers, then the clusters.
  void spill(std::uint32_t capacity) {
    const std::size_t n = size();
    V* v = static_cast<V*>(::operator new(capacity*(sizeof(V) + sizeof(std::int16_t))));
    auto* k = reinterpret_cast<std::int16_t*>(v + capacity);
    for (std::size_t i = 0; i < n; ++i) k[i] = static_cast<std::int16_t>(key_at(i));
    std::copy(values(), values() + n, v);
    release();
    spilled_.size = static_cast<std::uint16_t>(n);
    spilled_.spilled = true;
    spilled_.capacity = capacity;
    spilled_.keys = k;
    spilled_.values = v;
  }

  // Back to an empty map with the entries inside.
  void release() {
    if (inside_.spilled) ::operator delete(spilled_.values);
    inside_ = {};
  }

  // Into an empty map with the entries inside.
  void copy_from(const ClusterMap& other) {
    if (other.inside_.spilled) {
      spill(std::max<std::uint32_t>(other.spilled_.capacity, kInline * 2));
      std::copy(other.spilled_.keys, other.spilled_.keys + other.size(), spilled_.keys);
      std::copy(other.spilled_.values, other.spilled_.values + other.size(), spilled_.values);
      spilled_.size = other.spilled_.size;
    } else {
      inside_ = other.inside_;
    }
  }

  // Into an empty map with the entries inside; `other` is left so.
  void take(ClusterMap& other) {
    if (other.inside_.spilled) {
      spilled_ = other.spilled_;
    } else {
      inside_ = other.inside_;
    }
    other.inside_ = {};
  }

  // Both forms begin with the size and the flag, which either member reads.
  struct Inside {
    std::uint16_t size;
    bool spilled;
    std::int8_t keys[kInline];
    V values[kInline];
  };
  struct Spilled {
    std::uint16_t size;
    bool spilled;
    std::uint32_t capacity;
    std::int16_t* keys;
    V* values;
  };
  union {
    Inside inside_;
    Spilled spilled_;
  };
};

}  // namespace ArSysStats
