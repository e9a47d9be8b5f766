#include "plugins/thermals_plugin.h"

#include <algorithm>
#include <climits>
#include <iostream>
#include <utility>

namespace emberline {

namespace {

using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::thermal::V2_0::TemperatureType;
using android::hardware::thermal::V2_0::ThermalStatus;
using android::hardware::thermal::V2_0::ThermalStatusCode;
using android::hardware::thermal::V2_0::ThrottlingSeverity;

constexpr std::uint64_t kDeathCookie = 17695;
constexpr const char* kFanRpmPaths[] = {
    "/sys/class/hwmon/hwmon3/rpm",
    "/sys/class/hwmon/hwmon2/rpm",
    "/sys/class/hwmon/hwmon0/rpm",
};

// The service's death is reported from its own thread, perhaps while a report's step writes its
// own line: each line goes out in one write, so that the two never run into one line.
void error_line(const std::string& text) {
  std::cerr << text + '\n' << std::flush;
}

const char* type_name(TemperatureType type) {
  switch (static_cast<std::uint32_t>(type)) {
    case 0:
      return "CPU";
    case 1:
      return "GPU";
    case 2:
      return "BATTERY";
    case 3:
      return "SKIN";
    default:
      return "UNKNOWN";
  }
}

const char* severity_text(int severity) {
  static constexpr const char* kTexts[] = {"NONE",     "LIGHT",     "MODERATE", "SEVERE",
                                           "CRITICAL", "EMERGENCY", "SHUTDOWN"};
  auto index = static_cast<unsigned int>(severity);
  return index < std::size(kTexts) ? kTexts[index] : "UNKNOWN";
}

bool succeeded(const android::hardware::details::return_status& transport,
               const ThermalStatus& status) {
  return transport.isOk() && status.code == ThermalStatusCode::SUCCESS;
}

}  // namespace

ThermalsPlugin::ThermalsPlugin() {
  for (const char* type : {"CPU", "GPU", "BATTERY", "SKIN", "UNKNOWN"}) {
    type_options.emplace(type, Section::FieldOptions(std::nullopt, type));
  }
  death_recipient = std::make_shared<ThermalHalDeathRecipient>(this);
  callback = std::make_shared<ThermalCallback>(this);
  *thermal_hal.Lock() = get_thermal_hal();
  target_tz = {"cpuss", "gpuss", "disp", "batt", "cam"};
}

ThermalsPlugin::~ThermalsPlugin() {
  // Cut the service's thread off first, without the handle's mutex: a reconnection under way
  // holds it and must be let finish.
  death_recipient->detach();
  callback->detach();

  auto hal = thermal_hal.Lock();
  if (*hal) {
    if (callback) {
      ThermalStatus status;
      auto transport = (*hal)->unregisterThermalChangedCallback(
          callback, [&status](const ThermalStatus& s) { status = s; });
      if (!succeeded(transport, status)) {
        error_line("unregisterThermalCallback failed, status: " + transport.description());
      }
    }
    if (death_recipient) (*hal)->unlinkToDeath(death_recipient);
  }
  fan_rpm_file.close();
}

android::sp<ThermalsPlugin::IThermal> ThermalsPlugin::get_thermal_hal() {
  android::sp<IThermal> hal = IThermal::getService("default", false);
  if (!hal) {
    error_line("Unable to get Thermal HAL V2.0");
    return nullptr;
  }
  ThermalStatus status;
  auto transport = hal->registerThermalChangedCallback(
      callback, false, TemperatureType::CPU, [&status](const ThermalStatus& s) { status = s; });
  if (!succeeded(transport, status)) {
    error_line("registerThermalCallback failed, status: " + transport.description());
    return nullptr;
  }
  hal->linkToDeath(death_recipient, kDeathCookie);
  return hal;
}

bool ThermalsPlugin::get_current_temperature(hidl_vec<Temperature>& temperatures) {
  auto hal = thermal_hal.Lock();
  if (!*hal) *hal = get_thermal_hal();
  if (!*hal) {
    error_line("ERROR: Thermal HAL unavailable in get_current_temperature");
    return false;
  }
  ThermalStatus status;
  auto transport = (*hal)->getCurrentTemperatures(
      false, TemperatureType::CPU,
      [&status, &temperatures](const ThermalStatus& s, const hidl_vec<Temperature>& all) {
        status = s;
        temperatures = all;
      });
  return succeeded(transport, status);
}

bool ThermalsPlugin::is_target_tz(const std::string& name) {
  return std::any_of(target_tz.begin(), target_tz.end(), [&name](const std::string& target) {
    return name.find(target) != std::string::npos;
  });
}

void ThermalsPlugin::update_thermal_temp(Temperature temperature) {
  // A sensor that appeared after init has no value of its own, and must not write another's.
  auto slot = temperature_index.find(temperature.name);
  if (slot == temperature_index.end()) return;
  temperatures[slot->second]->set(temperature.value);
}

void ThermalsPlugin::update_thermal_status(Temperature temperature) {
  std::lock_guard lock(status_mutex);
  record_status(temperature);
}

void ThermalsPlugin::record_status(const Temperature& temperature) {
  auto slot = status_index.find(temperature.name);
  if (slot == status_index.end()) return;
  const char* type = type_name(temperature.type);
  auto by_type = status_by_type.find(type);
  if (by_type == status_by_type.end() || slot->second >= by_type->second.size()) return;
  std::vector<int>& severities = by_type->second;
  severities[slot->second] = static_cast<int>(temperature.throttlingStatus);
  status_text[type] = severity_text(*std::max_element(severities.begin(), severities.end()));
}

void ThermalsPlugin::publish_status() {
  std::lock_guard lock(status_mutex);
  for (const auto& [type, text] : status_text) {
    StringValue& shown = *status_values.at(type);
    if (shown.is_null || shown.value != text) shown.set(text);
  }
}

bool ThermalsPlugin::init() {
  hidl_vec<Temperature> current;
  if (!get_current_temperature(current)) {
    error_line("Error: Failed to get temperature from thermalHAL");
    return false;
  }

  std::map<std::string, std::shared_ptr<Section>> sections;
  {
    // Notifications may already be arriving; they wait here and then apply over this reading.
    std::lock_guard lock(status_mutex);
    for (const Temperature& t : current) {
      if (!is_target_tz(t.name)) continue;
      const std::string type = type_name(t.type);
      temperature_index.emplace(t.name, temperatures.size());
      temperatures.push_back(std::make_shared<UnitValue<2, 'C'>>());
      update_thermal_temp(t);

      std::shared_ptr<Section>& section = sections[type];
      if (!section) {
        section = std::make_shared<Section>();
        auto status = std::make_shared<StringValue>();
        status_values.emplace(type, status);
        section->add_value(
            "status", status,
            FieldOptions("The highest thermal throttle status out of all " + type + " sensors"));
      }
      section->add_value(t.name, temperatures.back(),
                         FieldOptions(t.name + " temperature (in Celsius)"));

      std::vector<int>& severities = status_by_type[type];
      status_index.emplace(t.name, severities.size());
      severities.push_back(INT_MIN);
      record_status(t);
    }
  }
  publish_status();

  for (const auto& [type, section] : sections) add_subsection(type, section, type_options.at(type));

  for (const char* path : kFanRpmPaths) {
    fan_rpm_file.open(path);
    if (fan_rpm_file.is_open()) break;
  }
  if (!fan_rpm_file.is_open()) {
    error_line("ERROR: Failed to locate/open fan rpm file");
    return false;
  }
  fan_rpm = std::make_shared<Value<unsigned long>>();
  add_value("fan_rpm", fan_rpm, FieldOptions("Current fan speed measured in RPM"));
  return true;
}

bool ThermalsPlugin::on_output() {
  hidl_vec<Temperature> current;
  if (!get_current_temperature(current)) {
    error_line("Error: Failed to get temperature from thermalHAL");
    return false;
  }
  for (const Temperature& t : current) {
    if (is_target_tz(t.name)) update_thermal_temp(t);
  }
  publish_status();
  fan_rpm_file.clear();
  fan_rpm_file.seekg(0);
  unsigned long rpm = 0;
  if (!(fan_rpm_file >> rpm)) {
    error_line("ERROR: Failed to update fan rpm value");
    return false;
  }
  fan_rpm->set(rpm);
  return true;
}

Return<void> ThermalsPlugin::ThermalCallback::notifyThrottling(const Temperature& temperature) {
  std::lock_guard lock(mutex);
  if (plugin != nullptr) plugin->update_thermal_status(temperature);
  return android::hardware::Void();
}

void ThermalsPlugin::ThermalCallback::detach() {
  std::lock_guard lock(mutex);
  plugin = nullptr;
}

void ThermalsPlugin::ThermalHalDeathRecipient::serviceDied(
    std::uint64_t cookie, const android::wp<android::hidl::base::V1_0::IBase>& who) {
  (void)cookie;
  (void)who;
  error_line("ThermalHAL died");
  std::lock_guard lock(mutex);
  if (plugin != nullptr) plugin->reconnect_after_death();
}

void ThermalsPlugin::ThermalHalDeathRecipient::detach() {
  std::lock_guard lock(mutex);
  plugin = nullptr;
}

void ThermalsPlugin::reconnect_after_death() {
  auto hal = thermal_hal.Lock();
  if (!*hal) return;
  (*hal)->unlinkToDeath(death_recipient);
  *hal = get_thermal_hal();
}

}  // namespace emberline
