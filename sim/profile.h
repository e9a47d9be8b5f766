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

// The ways a slice makes a node: fixed text, text that follows the model, or a node the tool
// writes into (empty unless given a first content).
Node fixed(std::string path, std::string content);
Node rendered(std::string path, Render render);
Node recorded(std::string path, Recording recording, std::string content = {});

// A power rail: a floor, plus a share of the system's draw above idle, in watts.
struct Rail {
  std::string name;
  double floor_w;
  double per_amp_w;
};

// An IIO device that monitors rails, as Brantley's engineering samples carry them.
struct RailMonitor {
  std::string dir;  // ends in "/"
  std::vector<Rail> rails;
};

// The instrumented hardware and charging nodes that some generations have.
struct Hardware {
  bool charge_attributes = false;  // the power-supply attributes of the charge plugin
  std::vector<Rail> powercap;      // rails under /sys/class/powercap, epm:0 onwards
  bool bandwidth_monitors = false;
  std::vector<RailMonitor> rail_monitors;
};

// The battery gauge: what it says a full battery holds, as a share of the design capacity.
struct Gauge {
  double full_share = 1.0;
};

// A headset: its identity and the traits of its generation, the files it shows and the quantities
// that drive them. Everything a subsystem needs is a slice of this table.
struct Profile {
  std::string name;
  std::string device;  // ro.product.device
  ModelParams model;
  SensorNames sensors;  // the thermal zones' names, zone by zone
  Gauge gauge;
  Hardware hardware;
  std::vector<Node> nodes;
  std::vector<std::string> dirs;  // directories that exist even when empty
};

// Lays out the nodes and directories of a profile given by its traits (its own nodes, if any,
// come first). Two nodes at one path are an error: one of them would silently win.
Profile build_profile(Profile traits);

const std::vector<Profile>& profiles();
const Profile* find_profile(std::string_view name);

// Signed decimal in micro units and a line end, as the power-supply class prints its values.
std::string micro_units(double value);

}  // namespace emberline::sim
