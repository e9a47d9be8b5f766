#pragma once

// A thermal service the test drives: it answers with the sensors it is given, refuses what it is
// told to, and notifies its registered callbacks on request.

#include <mutex>
#include <vector>

#include "platform/thermal/service_registry.h"

namespace thermal_test {

using android::sp;
using namespace android::hardware;
using namespace android::hardware::thermal::V2_0;

using TT = TemperatureType;
using TS = ThrottlingSeverity;

inline Temperature sensor(const char* name, TT type, float value, TS severity = TS::NONE) {
  return Temperature{type, name, value, severity};
}

class FakeThermal : public IThermal {
  template <typename F>
  auto locked(F f) {
    std::lock_guard lock(mutex_);
    return f();
  }

 public:
  explicit FakeThermal(std::vector<Temperature> sensors = {}) : sensors(std::move(sensors)) {}

  // What the calls answer; changed only while no read runs.
  std::vector<Temperature> sensors;
  ThermalStatus read_status, register_status, unregister_status;

  std::size_t callbacks() {
    return locked([&] { return callbacks_.size(); });
  }
  void notify(const Temperature& t) {
    for (auto& c : locked([&] { return callbacks_; })) c->notifyThrottling(t);
  }

  Return<void> getCurrentTemperatures(bool, TT, getCurrentTemperatures_cb cb) override {
    cb(read_status, sensors);
    return Void();
  }
  Return<void> registerThermalChangedCallback(const sp<IThermalChangedCallback>& c, bool, TT,
                                              registerThermalChangedCallback_cb cb) override {
    if (register_status.code == ThermalStatusCode::SUCCESS)
      locked([&] { callbacks_.push_back(c); });
    cb(register_status);
    return Void();
  }
  Return<void> unregisterThermalChangedCallback(const sp<IThermalChangedCallback>& c,
                                                unregisterThermalChangedCallback_cb cb) override {
    locked([&] { std::erase(callbacks_, c); });
    cb(unregister_status);
    return Void();
  }

 private:
  std::mutex mutex_;
  std::vector<sp<IThermalChangedCallback>> callbacks_;
};

}  // namespace thermal_test
