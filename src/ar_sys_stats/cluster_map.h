#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <new>
#include <type_traits>
#include <utility>

namespace ArSysStats {

// A number per cluster, kept in ascending order of cluster as std::map keeps it, and read and
// written as one. A thread runs on a few clusters only, so up to four entries stand inside the
// object: a snapshot of thousands of threads then takes no heap block per thread, and a thread's
// record stays small enough that three snapshots' worth fit the memory a headset spares. Only a
// garbled file names more clusters; then all entries move to the heap together.
//
// A cluster is named by one character of time_in_state less '0', so every cluster number fits
// 16 bits.
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
    Iterator(const std::int16_t* key, Value* value) : key_(key), value_(value) {}
    operator Iterator<true>() const requires(!Const) { return {key_, value_}; }

    reference operator*() const { return {*key_, *value_}; }
    pointer operator->() const { return {**this}; }
    Iterator& operator++() {
      ++key_;
      ++value_;
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.key_ == b.key_; }

   private:
    const std::int16_t* key_ = nullptr;
    Value* value_ = nullptr;
  };
  using iterator = Iterator<false>;
  using const_iterator = Iterator<true>;

  ClusterMap() noexcept {}
  ClusterMap(std::initializer_list<value_type> entries) {
    for (const auto& [cluster, value] : entries) (*this)[cluster] = value;
  }
  ClusterMap(const ClusterMap& other) { copy_from(other); }
  ClusterMap(ClusterMap&& other) noexcept { take(other); }
  ClusterMap& operator=(const ClusterMap& other) {
    if (this != &other) {
      size_ = 0;  // keeps a heap block that is large enough
      if (other.size_ > capacity_) release();
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

  iterator begin() { return {keys(), values()}; }
  iterator end() { return {keys() + size_, values() + size_}; }
  const_iterator begin() const { return {keys(), values()}; }
  const_iterator end() const { return {keys() + size_, values() + size_}; }

  size_type size() const { return size_; }
  bool empty() const { return size_ == 0; }
  void clear() { size_ = 0; }

  iterator find(int cluster) {
    const std::size_t at = position(cluster);
    return at < size_ && keys()[at] == cluster ? iterator{keys() + at, values() + at} : end();
  }
  const_iterator find(int cluster) const {
    const std::size_t at = position(cluster);
    return at < size_ && keys()[at] == cluster ? const_iterator{keys() + at, values() + at} : end();
  }
  size_type count(int cluster) const { return find(cluster) != end() ? 1 : 0; }

  // The number of `cluster`, made 0 first if the map has none.
  V& operator[](int cluster) {
    const std::size_t at = position(cluster);
    if (at < size_ && keys()[at] == cluster) return values()[at];
    if (size_ == capacity_) grow();
    std::int16_t* k = keys();
    V* v = values();
    std::copy_backward(k + at, k + size_, k + size_ + 1);
    std::copy_backward(v + at, v + size_, v + size_ + 1);
    k[at] = static_cast<std::int16_t>(cluster);
    v[at] = V{};
    ++size_;
    return v[at];
  }

  friend bool operator==(const ClusterMap& a, const ClusterMap& b) {
    return a.size_ == b.size_ && std::equal(a.keys(), a.keys() + a.size_, b.keys()) &&
           std::equal(a.values(), a.values() + a.size_, b.values());
  }

 private:
  static constexpr std::uint32_t kInline = 4;

  bool on_heap() const { return capacity_ > kInline; }
  std::int16_t* keys() { return on_heap() ? heap_.keys : inline_.keys; }
  const std::int16_t* keys() const { return on_heap() ? heap_.keys : inline_.keys; }
  V* values() { return on_heap() ? heap_.values : inline_.values; }
  const V* values() const { return on_heap() ? heap_.values : inline_.values; }

  // Where `cluster` stands or would stand. Linear: there are a few entries.
  std::size_t position(int cluster) const {
    const std::int16_t* k = keys();
    std::size_t at = 0;
    while (at < size_ && k[at] < cluster) ++at;
    return at;
  }

  // One block: the numbers, then the clusters.
  static void allocate(std::uint32_t capacity, std::int16_t*& keys, V*& values) {
    values = static_cast<V*>(::operator new(capacity*(sizeof(V) + sizeof(std::int16_t))));
    keys = reinterpret_cast<std::int16_t*>(values + capacity);
  }

  void grow() {
    const std::uint32_t capacity = capacity_ * 2;
    std::int16_t* k;
    V* v;
    allocate(capacity, k, v);
    std::copy(keys(), keys() + size_, k);
    std::copy(values(), values() + size_, v);
    release();
    heap_ = {k, v};
    capacity_ = capacity;
  }

  void release() {
    if (on_heap()) ::operator delete(heap_.values);
    capacity_ = kInline;
  }

  // Into an empty map that owns no heap block, or one large enough for `other`.
  void copy_from(const ClusterMap& other) {
    if (other.size_ > capacity_) {
      std::int16_t* k;
      V* v;
      allocate(other.size_, k, v);
      heap_ = {k, v};
      capacity_ = other.size_;
    }
    std::copy(other.keys(), other.keys() + other.size_, keys());
    std::copy(other.values(), other.values() + other.size_, values());
    size_ = other.size_;
  }

  // Into a map that owns no heap block; `other` is left empty.
  void take(ClusterMap& other) {
    if (other.on_heap()) {
      heap_ = other.heap_;
      capacity_ = other.capacity_;
    } else {
      std::copy(other.inline_.keys, other.inline_.keys + other.size_, inline_.keys);
      std::copy(other.inline_.values, other.inline_.values + other.size_, inline_.values);
    }
    size_ = other.size_;
    other.size_ = 0;
    other.capacity_ = kInline;
  }

  std::uint32_t size_ = 0;
  std::uint32_t capacity_ = kInline;  // more than kInline: the entries are on the heap
  union {
    struct {
      std::int16_t keys[kInline];
      V values[kInline];
    } inline_;
    struct {
      std::int16_t* keys;
      V* values;
    } heap_;
  };
};

}  // namespace ArSysStats
