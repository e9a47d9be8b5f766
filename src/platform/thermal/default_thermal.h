#pragma once

// The thermal service a headset without a vendor HAL would run: every thermal zone of the
// kernel's thermal class is a sensor, read afresh at each call, and a poll thread tells
// registered callbacks when a zone's throttling severity moves.
//
// Its process lives as long as its directory can be listed. The poll thread looks at each poll,
// and at once when the directory itself is moved or removed; finding it gone, it calls `on_exit`
// once and ends, as the process would. The registry makes that the instance's death, and starts a
// new service once the directory is back, so a headset's thermal service is made to die and
// restart from outside by moving /sys/class/thermal away and back.

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/thermal/thermal.h"

namespace android::hardware::thermal::V2_0::implementation {

// The sensor type a zone's name stands for.
TemperatureType sensor_type(std::string_view name);

// How many trip points the temperature has reached, as a severity no higher than SHUTDOWN.
ThrottlingSeverity severity_at(long millidegrees, const std::vector<long>& trip_points);

// A decimal integer as sysfs prints it, trailing white space allowed.
std::optional<long> parse_integer(std::string_view text);

// N of a directory entry "thermal_zoneN"; nothing for any other entry.
std::optional<unsigned> zone_number(std::string_view entry);

class DefaultThermal : public IThermal {
 public:
  static constexpr const char* kThermalClass = "/sys/class/thermal";

  explicit DefaultThermal(std::string root = kThermalClass,
                          std::chrono::milliseconds poll_period = std::chrono::seconds(1),
                          std::function<void()> on_exit = {});
  ~DefaultThermal() override;
  DefaultThermal(const DefaultThermal&) = delete;
  DefaultThermal& operator=(const DefaultThermal&) = delete;

  // Whether `root` can be listed, i.e. whether a service over it makes sense.
  static bool available(const std::string& root);

  Return<void> getCurrentTemperatures(bool filterType, TemperatureType type,
                                      getCurrentTemperatures_cb _hidl_cb) override;
  Return<void> registerThermalChangedCallback(const sp<IThermalChangedCallback>& callback,
                                              bool filterType, TemperatureType type,
                                              registerThermalChangedCallback_cb _hidl_cb) override;
  Return<void> unregisterThermalChangedCallback(
      const sp<IThermalChangedCallback>& callback,
      unregisterThermalChangedCallback_cb _hidl_cb) override;

 private:
  struct Registration {
    sp<IThermalChangedCallback> callback;
    bool filter_type;
    TemperatureType type;
  };

  bool read_zones(hidl_vec<Temperature>& out) const;
  void poll();

  const std::string root_;
  const std::chrono::milliseconds poll_period_;
  const std::function<void()> on_exit_;
  std::atomic<bool> stopping_ = false;
  const int stop_fd_;   // an eventfd that wakes the poll thread to end it
  const int watch_fd_;  // inotify on root_ itself, or -1: then only the poll finds it gone
  std::mutex mutex_;    // guards registrations_
  std::vector<Registration> registrations_;
  std::map<std::string, ThrottlingSeverity> last_seen_;  // the poll thread's alone once it runs
  std::thread poll_thread_;
};

}  // namespace android::hardware::thermal::V2_0::implementation
