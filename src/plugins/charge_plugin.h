#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "plugin.h"

namespace emberline {

enum class SysfsNodeType {
  STRING = 0,
  PERCENTAGE = 1,
  POWER = 2,
  CURRENT = 3,
  VOLTAGE = 4,
  TEMPERATURE = 5,
  TIME = 6,
};

struct SysfsNode {
  std::string name;
  SysfsNodeType type;
};

// What a number node's first line means in the report's unit: the kernel's units differ by
// attribute (tenths of a degree, micro units, ten-millionths of a watt, tenths of a second).
float sysfs_reading(const char* text, SysfsNodeType type);

// Cuts a line read by fgets at its first carriage return or line feed, in place.
void cut_line_end(char* text);

// The battery's and the USB port's power-supply attributes, one field per file, refreshed at every
// output tick.
class ChargePlugin : public Plugin {
 public:
  ChargePlugin();
  ~ChargePlugin() override;
  ChargePlugin(const ChargePlugin&) = delete;
  ChargePlugin& operator=(const ChargePlugin&) = delete;

  bool init() override;
  bool on_output() override;

  // The rows in report order: file path and what it feeds.
  static const std::vector<std::pair<std::string, SysfsNode>>& table();

 private:
  struct Row {
    const std::string* path;
    SysfsNodeType type;
    FILE* file = nullptr;
    std::shared_ptr<StringValue> text;
    std::shared_ptr<Value<float>> number;
  };
  std::vector<Row> rows;
};

}  // namespace emberline
