#include "sim/ReadingsControl.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "sim/Simulator.h"

namespace sim {

namespace {

using Words = std::vector<std::string>;

// A rail is held within half and one and a half times its nominal, and drifts at most 10 % a
// second: enough to cross any tolerance, not enough to wrap the converter.
constexpr double kMaxOffsetPercent = 50;
constexpr double kMaxDriftPercent = 10;

bool ParseReal(const std::string& text, double limit, double& out) {
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return !text.empty() && end && *end == '\0' && std::isfinite(out) && std::fabs(out) <= limit;
}

bool ParseWhole(const std::string& text, long low, long high, long& out) {
  char* end = nullptr;
  out = std::strtol(text.c_str(), &end, 10);
  return !text.empty() && end && *end == '\0' && out >= low && out <= high;
}

std::string Percent(double share) {
  char text[32];
  std::snprintf(text, sizeof text, "%+.2f%%", share * 100);
  return text;
}

// supply CHANNEL                  the rail's share of nominal now
// supply CHANNEL|all PCT [PCT/S]  sets it PCT above nominal (below when negative), drifting on
std::string RunSupply(Board& b, const Words& a) {
  Machine& m = b.machine();
  long channel = -1;
  const bool all = !a.empty() && a[0] == "all";
  if (a.empty() || (!all && !ParseWhole(a[0], 0, kSupplyChannels - 1, channel))) {
    return "error: supply takes a channel 0 to 15 or all, then percent and percent a second";
  }
  const double now = m.Seconds();
  if (a.size() == 1 && !all) {
    const SupplyRail& rail = m.supplies[static_cast<std::size_t>(channel)];
    return "ok supply " + a[0] + " " + Percent(rail.Share(now) - 1) + " drift " +
           Percent(rail.drift) + "/s";
  }
  double offset = 0;
  double drift = 0;
  if (a.size() < 2 || a.size() > 3 || !ParseReal(a[1], kMaxOffsetPercent, offset) ||
      (a.size() == 3 && !ParseReal(a[2], kMaxDriftPercent, drift))) {
    return "error: supply percent within 50 and drift within 10 percent a second";
  }
  for (std::size_t i = 0; i < kSupplyChannels; ++i) {
    if (all || i == static_cast<std::size_t>(channel))
      m.supplies[i].Set(offset / 100, drift / 100, now);
  }
  return "ok supply " + a[0] + " " + Percent(offset / 100) + " drift " + Percent(drift / 100) +
         "/s";
}

// laser on|off: the board switches the laser itself (word 19 of its settings);
// laser rate N: 2500 / 2^N samples a second (word 1).
bool RunLaserSettings(Board& b, const Words& a, std::string& answer) {
  Machine& m = b.machine();
  if (a.size() == 1 && (a[0] == "on" || a[0] == "off")) {
    m.laserSettings[kLaserOnWord] = a[0] == "on" ? 1 : 0;
    answer = "ok laser " + a[0];
    return true;
  }
  if (a.size() == 2 && a[0] == "rate") {
    long rate = 0;
    if (!ParseWhole(a[1], 0, 15, rate)) {
      answer = "error: laser rate takes 0 to 15";
    } else {
      m.laserSettings[kLaserRateWord] = static_cast<std::uint32_t>(rate);
      answer = "ok laser rate " + a[1];
    }
    return true;
  }
  return false;
}

// sensitivity: what the probe's sensitivity is set to and its maximum; sensitivity max N sets the
// maximum (0 to 65535; 0: a probe without a sensitivity to set), bounding the value.
std::string RunSensitivity(Board& b, const Words& a) {
  Machine& m = b.machine();
  long maximum = 0;
  if (a.size() == 2 && a[0] == "max" && ParseWhole(a[1], 0, 65535, maximum)) {
    m.sensitivityMaximum = static_cast<std::uint16_t>(maximum);
    m.probeSensitivity = std::min(m.probeSensitivity, m.sensitivityMaximum);
  } else if (!a.empty()) {
    return "error: sensitivity takes max and 0 to 65535, or nothing";
  }
  return "ok sensitivity=" + std::to_string(m.probeSensitivity) +
         " max=" + std::to_string(m.sensitivityMaximum);
}

}  // namespace

bool RunReadingsControl(Simulator& sim, const std::vector<std::string>& words,
                        std::string& answer) {
  const Words args(words.begin() + 1, words.end());
  if (words[0] == "supply") {
    answer = sim.AtMachine([&](Board& board) { return RunSupply(board, args); });
    return true;
  }
  if (words[0] == "sensitivity") {
    answer = sim.AtMachine([&](Board& board) { return RunSensitivity(board, args); });
    return true;
  }
  if (words[0] == "laser") {
    bool mine = false;
    answer = sim.AtMachine([&](Board& board) {
      std::string said;
      mine = RunLaserSettings(board, args, said);
      return said;
    });
    return mine;
  }
  return false;
}

std::string ReadingsControlUsage() {
  return " | supply CHANNEL|all [PERCENT [PERCENT/S]] | laser on|off|rate N | sensitivity [max N]";
}

}  // namespace sim
