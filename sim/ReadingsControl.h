// The control commands of the board's measurements that a person can change at the machine: the
// supply rails, and the laser's own settings (switched on or off, its rate).
#pragma once

#include <string>
#include <vector>

namespace sim {

class Simulator;

// True when `words` is one of these commands, with its answer in `answer`. Other forms of a
// word (the other `laser` commands) are left to the machine's table.
bool RunReadingsControl(Simulator& sim, const std::vector<std::string>& words, std::string& answer);
std::string ReadingsControlUsage();

}  // namespace sim
