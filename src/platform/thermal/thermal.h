#pragma once

// Stand-in for the generated client classes of android.hardware.thermal@2.0: the types and calls
// a client of the thermal service uses.

#include <cstdint>
#include <functional>
#include <string>

#include "platform/thermal/hidl.h"

namespace android::hardware::thermal::V2_0 {

enum class TemperatureType : std::int32_t {
  UNKNOWN = -1,
  CPU = 0,
  GPU = 1,
  BATTERY = 2,
  SKIN = 3,
  USB_PORT = 4,
  POWER_AMPLIFIER = 5,
  BCL_VOLTAGE = 6,
  BCL_CURRENT = 7,
  BCL_PERCENTAGE = 8,
  NPU = 9,
};

enum class ThrottlingSeverity : std::uint32_t {
  NONE = 0,
  LIGHT = 1,
  MODERATE = 2,
  SEVERE = 3,
  CRITICAL = 4,
  EMERGENCY = 5,
  SHUTDOWN = 6,
};

enum class ThermalStatusCode : std::uint32_t { SUCCESS = 0, FAILURE = 1 };

struct ThermalStatus {
  ThermalStatusCode code = ThermalStatusCode::SUCCESS;
  hidl_string debugMessage;
};

struct Temperature {
  TemperatureType type = TemperatureType::UNKNOWN;
  hidl_string name;
  float value = 0;  // degrees Celsius
  ThrottlingSeverity throttlingStatus = ThrottlingSeverity::NONE;
};

class IThermalChangedCallback : public hidl::base::V1_0::IBase {
 public:
  virtual Return<void> notifyThrottling(const Temperature& temperature) = 0;
};

class IThermal : public hidl::base::V1_0::IBase {
 public:
  using getCurrentTemperatures_cb =
      std::function<void(const ThermalStatus& status, const hidl_vec<Temperature>& temperatures)>;
  using registerThermalChangedCallback_cb = std::function<void(const ThermalStatus& status)>;
  using unregisterThermalChangedCallback_cb = std::function<void(const ThermalStatus& status)>;

  // The registered instance `name`, or null when none runs. `getStub` is accepted and ignored:
  // there is only the remote handle.
  static sp<IThermal> getService(const std::string& name = "default", bool getStub = false);

  virtual Return<void> getCurrentTemperatures(bool filterType, TemperatureType type,
                                              getCurrentTemperatures_cb _hidl_cb) = 0;
  virtual Return<void> registerThermalChangedCallback(
      const sp<IThermalChangedCallback>& callback, bool filterType, TemperatureType type,
      registerThermalChangedCallback_cb _hidl_cb) = 0;
  virtual Return<void> unregisterThermalChangedCallback(
      const sp<IThermalChangedCallback>& callback,
      unregisterThermalChangedCallback_cb _hidl_cb) = 0;
};

}  // namespace android::hardware::thermal::V2_0
