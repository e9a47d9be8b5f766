#include "plugins/charge_plugin.h"

#include <cstdlib>
#include <cstring>
#include <iostream>

#include "platform/os/node.h"

namespace emberline {

namespace {

const std::string kUsb = "/sys/class/power_supply/usb/";
const std::string kBattery = "/sys/class/power_supply/battery/";

double divisor(SysfsNodeType type) {
  switch (type) {
    case SysfsNodeType::PERCENTAGE:
      return 100.0;
    case SysfsNodeType::POWER:
      return 10000000.0;
    case SysfsNodeType::CURRENT:
    case SysfsNodeType::VOLTAGE:
      return 1000000.0;
    case SysfsNodeType::TEMPERATURE:
    case SysfsNodeType::TIME:
      return 10.0;
    case SysfsNodeType::STRING:
      break;
  }
  return 1.0;
}

std::shared_ptr<Value<float>> make_number(SysfsNodeType type) {
  switch (type) {
    case SysfsNodeType::PERCENTAGE:
      return std::make_shared<PercentageValue<3>>();
    case SysfsNodeType::POWER:
      return std::make_shared<UnitValue<3, 'W'>>();
    case SysfsNodeType::CURRENT:
      return std::make_shared<UnitValue<3, 'A'>>();
    case SysfsNodeType::VOLTAGE:
      return std::make_shared<UnitValue<3, 'V'>>();
    case SysfsNodeType::TEMPERATURE:
      return std::make_shared<UnitValue<2, 'C'>>();
    case SysfsNodeType::TIME:
      return std::make_shared<UnitValue<3, 'S'>>();
    case SysfsNodeType::STRING:
      break;
  }
  return nullptr;
}

}  // namespace

float sysfs_reading(const char* text, SysfsNodeType type) {
  return static_cast<float>(std::atof(text) / divisor(type));
}

void cut_line_end(char* text) {
  text[std::strcspn(text, "\r\n")] = '\0';
}

const std::vector<std::pair<std::string, SysfsNode>>& ChargePlugin::table() {
  using T = SysfsNodeType;
  static const std::vector<std::pair<std::string, SysfsNode>> rows = {
      {kUsb + "voltage_now", {"USB Voltage Now", T::VOLTAGE}},
      {kUsb + "typec_power_role", {"USB TypeC Power Role", T::STRING}},
      {kUsb + "scope", {"USB scope", T::STRING}},
      {kUsb + "output_current_limit", {"USB output_current_limit", T::CURRENT}},
      {kUsb + "current_max", {"USB Current Max", T::CURRENT}},
      {kUsb + "online", {"USB Supply Online", T::STRING}},
      {kUsb + "type", {"USB Charge Type", T::STRING}},
      {kUsb + "usb_type", {"USB Type", T::STRING}},
      {kUsb + "current_now", {"USB Current Now", T::CURRENT}},
      {kUsb + "temp", {"USB Temperature", T::TEMPERATURE}},
      {kBattery + "time_to_empty_avg", {"Bat Time To Empty Avg", T::TIME}},
      {kUsb + "input_current_limit", {"USB input_current_limit", T::CURRENT}},
      {kBattery + "temp", {"Bat Temp", T::TEMPERATURE}},
      {kBattery + "time_to_full_now", {"Bat Time To Full", T::TIME}},
      {kBattery + "time_to_full_avg", {"Bat Time To Full Avg", T::TIME}},
      {kBattery + "model_name", {"Model Name", T::STRING}},
      {kBattery + "voltage_now", {"Bat Voltage Now", T::VOLTAGE}},
      {kBattery + "charge_full_design", {"Bat Charge Full Design", T::VOLTAGE}},
      {kBattery + "charge_full", {"Bat Charge Full", T::VOLTAGE}},
      {kBattery + "status", {"Bat Status", T::STRING}},
      {kBattery + "cycle_count", {"Bat Cycle Count", T::STRING}},
      {kBattery + "present", {"Bat Present", T::STRING}},
      {kBattery + "charge_counter", {"Bat Charge Counter", T::STRING}},
      {kBattery + "health", {"Bat Health", T::STRING}},
      {kBattery + "charge_control_limit_max", {"Bat Charge Control Limit Max", T::STRING}},
      {kBattery + "power_now", {"Bat Power Now", T::POWER}},
      {kBattery + "power_avg", {"Bat Power Avg", T::POWER}},
      {kBattery + "technology", {"Bat Technology", T::STRING}},
      {kBattery + "charge_control_limit", {"Bat Charge Control Limit", T::STRING}},
      {kBattery + "current_now", {"Bat Current Now", T::CURRENT}},
      {kBattery + "voltage_max", {"Bat Voltage Max", T::VOLTAGE}},
      {kBattery + "voltage_ocv", {"Bat Open Circuit Voltage", T::VOLTAGE}},
      {kBattery + "charge_type", {"Bat Charge Type", T::STRING}},
      {kUsb + "voltage_max", {"USB Voltage Max", T::VOLTAGE}},
      {kBattery + "capacity", {"Bat Capacity", T::PERCENTAGE}},
      {kBattery + "type", {"Bat Supply Type", T::STRING}},
  };
  return rows;
}

ChargePlugin::ChargePlugin() {
  for (const auto& [path, node] : table())
    rows.push_back({&path, node.type, nullptr, nullptr, nullptr});
}

ChargePlugin::~ChargePlugin() {
  for (Row& row : rows) {
    if (row.file != nullptr) std::fclose(row.file);
  }
}

bool ChargePlugin::init() {
  // All or nothing: a report that silently lacks an attribute would read as a device without it.
  auto node = table().begin();
  for (Row& row : rows) {
    row.file = os::open_node_file(*row.path);
    if (row.file == nullptr) {
      std::cerr << "ERROR: Failed to find node file '" << *row.path << "'." << std::endl;
      return false;
    }
    // Every row gets its field even if the node holds no line yet: the report keeps one shape,
    // and the field shows null until the node has something to say.
    std::shared_ptr<ISerializable> value;
    if (row.type == SysfsNodeType::STRING) {
      row.text = std::make_shared<StringValue>();
      value = row.text;
    } else {
      row.number = make_number(row.type);
      value = row.number;
    }
    add_value(node->second.name, value, FieldOptions());
    ++node;
  }
  return true;
}

bool ChargePlugin::on_output() {
  char line[256];
  for (Row& row : rows) {
    if (row.file == nullptr) continue;
    os::rewind_node(row.file);
    // A failed read must not show the previous row's text, nor an old reading as a fresh one.
    if (std::fgets(line, 255, row.file) == nullptr) {
      if (row.text) row.text->set_null();
      if (row.number) row.number->set_null();
      continue;
    }
    cut_line_end(line);
    if (row.text) {
      row.text->set(line);
    } else if (row.number) {
      row.number->set(sysfs_reading(line, row.type));
    }
  }
  return true;
}

}  // namespace emberline
