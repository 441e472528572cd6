// What the panel shows: the simulated board as it stands, as one JSON object. It is what the
// board sees and does (each axis's position, encoders, bias and whether a test holds it, the
// switches, inputs, probe, laser, lights, readings, the link and the last transfers), read under
// the board's lock at one moment.
#pragma once

#include <string>

namespace sim {

class Simulator;

// The state as JSON text; see PanelState.cpp for the fields.
std::string PanelState(Simulator& sim);

}  // namespace sim
