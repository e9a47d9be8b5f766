#include "platform/thermal/default_thermal.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "platform/os/read.h"

namespace android::hardware::thermal::V2_0::implementation {

namespace {

// Sysfs values are short; anything longer than this is not a number we want.
constexpr std::size_t kMaxNodeBytes = 128;

// A small node whole into `buffer`. A read that fails at once fails; one that fails after some
// text, or a node past the limit, gives what came.
bool read_small_node(const std::string& path, std::string& buffer) {
  const auto read = emberline::os::read_node(path, buffer, kMaxNodeBytes);
  return read != emberline::os::NodeRead::kUnopened &&
         (read != emberline::os::NodeRead::kFailed || !buffer.empty());
}

bool matches(bool filter_type, TemperatureType wanted, TemperatureType type) {
  return !filter_type || wanted == type;
}

ThermalStatus failure(std::string message) {
  return ThermalStatus{ThermalStatusCode::FAILURE, std::move(message)};
}

}  // namespace

TemperatureType sensor_type(std::string_view name) {
  if (name.starts_with("cpu")) return TemperatureType::CPU;
  if (name.starts_with("gpu")) return TemperatureType::GPU;
  if (name.starts_with("batt")) return TemperatureType::BATTERY;
  if (name.starts_with("skin")) return TemperatureType::SKIN;
  return TemperatureType::UNKNOWN;
}

ThrottlingSeverity severity_at(long millidegrees, const std::vector<long>& trip_points) {
  auto reached = std::count_if(trip_points.begin(), trip_points.end(),
                               [millidegrees](long trip) { return trip <= millidegrees; });
  constexpr auto kHighest = static_cast<long>(ThrottlingSeverity::SHUTDOWN);
  return static_cast<ThrottlingSeverity>(std::min<long>(reached, kHighest));
}

std::optional<long> parse_integer(std::string_view text) {
  text = emberline::os::trim_end(text);
  if (text.empty()) return std::nullopt;
  long value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<unsigned> zone_number(std::string_view entry) {
  constexpr std::string_view kPrefix = "thermal_zone";
  if (!entry.starts_with(kPrefix) || entry.size() == kPrefix.size()) return std::nullopt;
  entry.remove_prefix(kPrefix.size());
  unsigned n = 0;
  auto [end, error] = std::from_chars(entry.data(), entry.data() + entry.size(), n);
  if (error != std::errc() || end != entry.data() + entry.size()) return std::nullopt;
  return n;
}

DefaultThermal::DefaultThermal(std::string root, std::chrono::milliseconds poll_period,
                               std::function<void()> on_exit)
    : root_(std::move(root)),
      poll_period_(poll_period),
      on_exit_(std::move(on_exit)),
      stop_fd_(::eventfd(0, EFD_CLOEXEC)),
      watch_fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (watch_fd_ >= 0) ::inotify_add_watch(watch_fd_, root_.c_str(), IN_MOVE_SELF | IN_DELETE_SELF);
  // Severities are counted from here, so a change before the first poll is still told at it.
  hidl_vec<Temperature> start;
  if (read_zones(start)) {
    for (const Temperature& t : start) last_seen_.emplace(t.name, t.throttlingStatus);
  }
  poll_thread_ = std::thread([this] { poll(); });
  pthread_setname_np(poll_thread_.native_handle(), "thermal-poll");
}

DefaultThermal::~DefaultThermal() {
  stopping_ = true;
  const std::uint64_t one = 1;
  [[maybe_unused]] ssize_t woken = ::write(stop_fd_, &one, sizeof one);
  poll_thread_.join();
  for (int fd : {stop_fd_, watch_fd_}) {
    if (fd >= 0) ::close(fd);
  }
}

bool DefaultThermal::available(const std::string& root) {
  DIR* dir = ::opendir(root.c_str());
  if (dir == nullptr) return false;
  ::closedir(dir);
  return true;
}

bool DefaultThermal::read_zones(hidl_vec<Temperature>& out) const {
  DIR* dir = ::opendir(root_.c_str());
  if (dir == nullptr) return false;
  std::vector<unsigned> zones;
  while (const dirent* entry = ::readdir(dir)) {
    if (auto n = zone_number(entry->d_name)) zones.push_back(*n);
  }
  ::closedir(dir);
  std::sort(zones.begin(), zones.end());

  out.clear();
  out.reserve(zones.size());
  std::string text;
  std::vector<long> trips;
  for (unsigned n : zones) {
    const std::string zone = root_ + "/thermal_zone" + std::to_string(n) + "/";
    // A zone whose sensor cannot be read right now is left out, as the kernel's own tools do.
    if (!read_small_node(zone + "type", text)) continue;
    std::string name(emberline::os::trim_end(text));
    if (!read_small_node(zone + "temp", text)) continue;
    auto millidegrees = parse_integer(text);
    if (!millidegrees) continue;
    trips.clear();
    for (int k = 0; read_small_node(zone + "trip_point_" + std::to_string(k) + "_temp", text);
         ++k) {
      if (auto trip = parse_integer(text)) trips.push_back(*trip);
    }
    Temperature& t = out.emplace_back();
    t.type = sensor_type(name);
    t.name = std::move(name);
    t.value = static_cast<float>(*millidegrees) / 1000.0f;
    t.throttlingStatus = severity_at(*millidegrees, trips);
  }
  return true;
}

Return<void> DefaultThermal::getCurrentTemperatures(bool filterType, TemperatureType type,
                                                    getCurrentTemperatures_cb _hidl_cb) {
  hidl_vec<Temperature> all;
  if (!read_zones(all)) {
    _hidl_cb(failure("cannot list " + root_), {});
    return Void();
  }
  if (filterType) {
    std::erase_if(all, [type](const Temperature& t) { return t.type != type; });
  }
  _hidl_cb(ThermalStatus{}, all);
  return Void();
}

Return<void> DefaultThermal::registerThermalChangedCallback(
    const sp<IThermalChangedCallback>& callback, bool filterType, TemperatureType type,
    registerThermalChangedCallback_cb _hidl_cb) {
  if (!callback) {
    _hidl_cb(failure("null callback"));
    return Void();
  }
  {
    std::lock_guard lock(mutex_);
    auto same = [&](const Registration& r) { return r.callback == callback; };
    if (std::any_of(registrations_.begin(), registrations_.end(), same)) {
      _hidl_cb(failure("callback already registered"));
      return Void();
    }
    registrations_.push_back({callback, filterType, type});
  }
  _hidl_cb(ThermalStatus{});
  return Void();
}

Return<void> DefaultThermal::unregisterThermalChangedCallback(
    const sp<IThermalChangedCallback>& callback, unregisterThermalChangedCallback_cb _hidl_cb) {
  std::size_t removed = 0;
  {
    std::lock_guard lock(mutex_);
    removed = std::erase_if(registrations_,
                            [&](const Registration& r) { return r.callback == callback; });
  }
  _hidl_cb(removed != 0 ? ThermalStatus{} : failure("callback not registered"));
  return Void();
}

void DefaultThermal::poll() {
  hidl_vec<Temperature> now;
  std::vector<Registration> told;
  for (;;) {
    pollfd wake[] = {{stop_fd_, POLLIN, 0}, {watch_fd_, POLLIN, 0}};
    ::poll(wake, std::size(wake), static_cast<int>(poll_period_.count()));
    if (stopping_) return;
    // An event only says to look now; what counts is whether the directory can be listed.
    char events[1024];
    while (watch_fd_ >= 0 && ::read(watch_fd_, events, sizeof events) > 0) {
    }
    if (!read_zones(now)) {
      if (on_exit_) on_exit_();
      return;
    }
    for (const Temperature& t : now) {
      auto [seen, first_sight] = last_seen_.try_emplace(t.name, t.throttlingStatus);
      if (first_sight || seen->second == t.throttlingStatus) continue;
      seen->second = t.throttlingStatus;
      {
        std::lock_guard lock(mutex_);
        told = registrations_;
      }
      // Outside the lock: a callback may call back into the service.
      for (const Registration& r : told) {
        if (matches(r.filter_type, r.type, t.type)) r.callback->notifyThrottling(t);
      }
    }
    told.clear();  // hold no client's callback between polls
  }
}

}  // namespace android::hardware::thermal::V2_0::implementation
