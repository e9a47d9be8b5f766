#pragma once

#include "profile.h"

namespace emberline::sim {

// The charging attributes and instrumented hardware that the profile's generation has: power-supply
// attributes, powercap rails and the bandwidth monitors on fennick; the rail monitors of an
// engineering sample on brantley. Paths the profile already shows are left as they are.
void add_hardware(Profile& p);

}  // namespace emberline::sim
