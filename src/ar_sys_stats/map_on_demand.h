#pragma once

#include <cstddef>
#include <memory>

namespace ArSysStats {

// A map that takes the room of one pointer until its first entry is made, read and written as
// the map itself. For what a thread's record keeps only when asked, the times by frequency: the
// map's own empty self would cost every record of every snapshot its size.
template <typename Map>
class MapOnDemand {
 public:
  using key_type = typename Map::key_type;
  using mapped_type = typename Map::mapped_type;
  using value_type = typename Map::value_type;
  using const_iterator = typename Map::const_iterator;
  using iterator = const_iterator;

  MapOnDemand() = default;
  MapOnDemand(const MapOnDemand& other)
      : map_(other.map_ ? std::make_unique<Map>(*other.map_) : nullptr) {}
  MapOnDemand(MapOnDemand&&) noexcept = default;
  MapOnDemand& operator=(const MapOnDemand& other) {
    if (this != &other) map_ = other.map_ ? std::make_unique<Map>(*other.map_) : nullptr;
    return *this;
  }
  MapOnDemand& operator=(MapOnDemand&&) noexcept = default;

  mapped_type& operator[](const key_type& key) {
    if (!map_) map_ = std::make_unique<Map>();
    return (*map_)[key];
  }
  const_iterator begin() const { return map().begin(); }
  const_iterator end() const { return map().end(); }
  const_iterator find(const key_type& key) const { return map().find(key); }
  std::size_t size() const { return map().size(); }
  bool empty() const { return map().empty(); }

  friend bool operator==(const MapOnDemand& a, const MapOnDemand& b) { return a.map() == b.map(); }
  friend bool operator==(const MapOnDemand& a, const Map& b) { return a.map() == b; }

 private:
  const Map& map() const {
    static const Map none;
    return map_ ? *map_ : none;
  }

  std::unique_ptr<Map> map_;
};

}  // namespace ArSysStats
