#pragma once

#include <memory>

#include "plugin.h"

namespace emberline {

// A value of class V that has been given each reading in turn; none leaves it null.
template <typename V, typename... T>
std::shared_ptr<V> holding(T... readings) {
  auto value = std::make_shared<V>();
  (value->set(readings), ...);
  return value;
}

// Root with values, a labelled plugin-like section, and a section nested two deep,
// with descriptions on some fields only.
inline std::shared_ptr<Section> report_tree() {
  using O = Section::FieldOptions;
  auto root = std::make_shared<Section>();
  root->add_value("sequence", holding<Value<unsigned long>>(3ul),
                  O("Incrementing output sequence number"));
  root->add_value("timestamp", holding<TimestampValue<3>>(1.5),
                  O("Time since trace start (measured in seconds)"));
  auto power = root->add_subsection("power", O("Device BATTERY power data", "Power (BATTERY)"));
  power->add_value("raw", holding<UnitValue<3, 'W'>>(2.25f),
                   O("Instantaneous power (measured in Watts)"));
  power->add_value("voltage", holding<UnitValue<3, 'V'>>(4.2f),
                   O("Instantaneous voltage (measured in Volts)"));
  auto stats = root->add_subsection("stats", O());
  stats->add_value("load", holding<PercentageValue<3>>(0.125f), O("CPU load", "Load"));
  auto cpu = stats->add_subsection("cpu", O(std::nullopt, "CPU"));
  cpu->add_value("freq", holding<GigahertzValue<3>>(1.2f), O());
  cpu->add_value("mode", holding<SwitchValue>(), O());
  root->update_tree_metadata(0, "");
  return root;
}

}  // namespace emberline
