#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "model.h"

namespace emberline::sim {

// What the simulated headset does with bytes the tool writes into a node.
enum class Recording {
  none,
  log,             // logged to writes.log
  charge_suspend,  // logged, and a non-zero number suspends the charger's input
  latch,           // logged, and the node keeps showing it, as a driver's setting does
};

// Gives a node's content for a device state; a node without one keeps its initial content.
using Render = std::function<std::string(const DeviceState&)>;

// One file of the headset, at the path the tool uses.
struct Node {
  std::string path;
  std::string content;
  Render render;
  Recording recording = Recording::none;
};

// A headset: its identity, the files it shows and the quantities that drive them. Everything a
// subsystem needs is a slice of this table.
struct Profile {
  std::string name;
  std::string device;  // ro.product.device
  ModelParams model;
  std::vector<Node> nodes;
  std::vector<std::string> dirs;  // directories that exist even when empty
};

const std::vector<Profile>& profiles();
const Profile* find_profile(std::string_view name);

// Signed decimal in micro units and a line end, as the power-supply class prints its values.
std::string micro_units(double value);

}  // namespace emberline::sim
