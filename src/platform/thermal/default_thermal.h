#pragma once

// The thermal service a headset without a vendor HAL would run: every thermal zone of the
// kernel's thermal class is a sensor, read afresh at each call, and a poll thread tells
// registered callbacks when a zone's throttling severity moves.

#include <chrono>
#include <condition_variable>
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
                          std::chrono::milliseconds poll_period = std::chrono::seconds(1));
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
  std::mutex mutex_;  // guards registrations_ and stopping_
  std::condition_variable wake_;
  bool stopping_ = false;
  std::vector<Registration> registrations_;
  std::map<std::string, ThrottlingSeverity> last_seen_;  // the poll thread's alone once it runs
  std::thread poll_thread_;
};

}  // namespace android::hardware::thermal::V2_0::implementation
