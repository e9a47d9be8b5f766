#pragma once

#include "profile.h"

namespace emberline::sim {

// The charging attributes and instrumented hardware that the profile's generation has, as its
// `hardware` lists them: power-supply attributes, powercap rails and the bandwidth monitors of the
// Quillon generation; the rail monitors of a Brantley engineering sample.
void add_hardware(Profile& p);

}  // namespace emberline::sim
