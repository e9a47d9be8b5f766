#pragma once

// A thermal service the test drives: it answers with the sensors it is given, fails on request,
// and notifies its registered callbacks when told to.

#include <algorithm>
#include <mutex>
#include <vector>

#include "platform/thermal/service_registry.h"

namespace thermal_test {

using android::sp;
using namespace android::hardware;
using namespace android::hardware::thermal::V2_0;

inline Temperature sensor(const char* name, TemperatureType type, float value,
                          ThrottlingSeverity severity = ThrottlingSeverity::NONE) {
  return Temperature{type, name, value, severity};
}

class FakeThermal : public IThermal {
 public:
  explicit FakeThermal(std::vector<Temperature> sensors = {}) : sensors_(std::move(sensors)) {}

  // What the next calls answer.
  ThermalStatusCode read_code = ThermalStatusCode::SUCCESS;
  ThermalStatusCode register_code = ThermalStatusCode::SUCCESS;
  ThermalStatusCode unregister_code = ThermalStatusCode::SUCCESS;
  bool transport_fails = false;

  void set_sensors(std::vector<Temperature> sensors) {
    std::lock_guard lock(mutex_);
    sensors_ = std::move(sensors);
  }

  std::size_t callbacks() {
    std::lock_guard lock(mutex_);
    return callbacks_.size();
  }

  // Calls every registered callback, as the service's own thread would.
  void notify(const Temperature& t) {
    std::vector<sp<IThermalChangedCallback>> told;
    {
      std::lock_guard lock(mutex_);
      told = callbacks_;
    }
    for (auto& c : told) c->notifyThrottling(t);
  }

  Return<void> getCurrentTemperatures(bool, TemperatureType,
                                      getCurrentTemperatures_cb cb) override {
    if (transport_fails) return broken();
    std::lock_guard lock(mutex_);
    cb({read_code, "read"}, sensors_);
    return Void();
  }
  Return<void> registerThermalChangedCallback(const sp<IThermalChangedCallback>& c, bool,
                                              TemperatureType,
                                              registerThermalChangedCallback_cb cb) override {
    if (transport_fails) return broken();
    if (register_code == ThermalStatusCode::SUCCESS) {
      std::lock_guard lock(mutex_);
      callbacks_.push_back(c);
    }
    cb({register_code, "register"});
    return Void();
  }
  Return<void> unregisterThermalChangedCallback(const sp<IThermalChangedCallback>& c,
                                                unregisterThermalChangedCallback_cb cb) override {
    if (transport_fails) return broken();
    {
      std::lock_guard lock(mutex_);
      std::erase(callbacks_, c);
    }
    cb({unregister_code, "unregister"});
    return Void();
  }

 private:
  static Status broken() {
    return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "BROKEN");
  }

  std::mutex mutex_;
  std::vector<Temperature> sensors_;
  std::vector<sp<IThermalChangedCallback>> callbacks_;
};

}  // namespace thermal_test
