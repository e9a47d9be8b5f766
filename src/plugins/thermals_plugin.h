#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/os/node.h"
#include "platform/thermal/thermal.h"
#include "platform/zavra_os/zavra_os.h"
#include "plugin.h"

namespace emberline {

// Temperatures of the chosen sensors by type, the worst throttling of each type and the fan's
// speed. Temperatures are read at each output; severities arrive from the thermal service's
// thread whenever a sensor crosses a threshold.
class ThermalsPlugin : public Plugin {
 public:
  using IThermal = android::hardware::thermal::V2_0::IThermal;
  using Temperature = android::hardware::thermal::V2_0::Temperature;

  ThermalsPlugin();
  ~ThermalsPlugin() override;
  ThermalsPlugin(const ThermalsPlugin&) = delete;
  ThermalsPlugin& operator=(const ThermalsPlugin&) = delete;

  bool init() override;
  bool on_output() override;

  android::sp<IThermal> get_thermal_hal();
  bool get_current_temperature(android::hardware::hidl_vec<Temperature>& temperatures);
  bool is_target_tz(const std::string& name);
  void update_thermal_temp(Temperature temperature);
  void update_thermal_status(Temperature temperature);

  // Both are called on the service's thread and may outlive the plugin inside the service, so
  // each can be cut off from it; a call under way finishes before the cut returns.
  class ThermalCallback : public android::hardware::thermal::V2_0::IThermalChangedCallback {
   public:
    explicit ThermalCallback(ThermalsPlugin* plugin) : plugin(plugin) {}
    android::hardware::Return<void> notifyThrottling(const Temperature& temperature) override;
    void detach();

   private:
    std::mutex mutex;
    ThermalsPlugin* plugin;
  };

  class ThermalHalDeathRecipient : public android::hardware::hidl_death_recipient {
   public:
    explicit ThermalHalDeathRecipient(ThermalsPlugin* plugin) : plugin(plugin) {}
    void serviceDied(std::uint64_t cookie,
                     const android::wp<android::hidl::base::V1_0::IBase>& who) override;
    void detach();

   private:
    std::mutex mutex;
    ThermalsPlugin* plugin;
  };

 private:
  void reconnect_after_death();
  // update_thermal_status with status_mutex already held.
  void record_status(const Temperature& temperature);
  // Shows the severities the service's thread recorded; the tree is the measurement thread's.
  void publish_status();

  os::NodeStream fan_rpm_file;
  std::shared_ptr<Value<unsigned long>> fan_rpm;
  std::unordered_map<std::string, Section::FieldOptions> type_options;
  std::unordered_map<std::string, std::vector<int>> status_by_type;
  std::unordered_map<std::string, unsigned long> status_index;
  std::vector<std::shared_ptr<UnitValue<2, 'C'>>> temperatures;
  std::unordered_map<std::string, unsigned long> temperature_index;
  std::map<std::string, std::shared_ptr<StringValue>> status_values;
  android::sp<ThermalHalDeathRecipient> death_recipient;
  android::sp<ThermalCallback> callback;
  Zavra::OS::ValueMutexBase<android::sp<IThermal>, std::mutex> thermal_hal;
  std::vector<std::string> target_tz;

  // Guards status_by_type, status_index and status_text. Never held across a call into the
  // service, so it cannot wait on the handle's mutex, which is.
  std::mutex status_mutex;
  // By type name, the text its "status" should show; the texts are constants.
  std::unordered_map<std::string, const char*> status_text;
};

}  // namespace emberline
