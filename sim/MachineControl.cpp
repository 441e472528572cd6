// The control commands of what a person does at the machine: buttons, joystick, e-stop, probe,
// blocking an axis, obstacles and friction, plugging the platen or W axis in or out or making it
// stick, the laser, the light channels.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "sim/Control.h"
#include "sim/Simulator.h"

namespace sim {

namespace {

using Words = std::vector<std::string>;

std::string Error(const std::string& why) {
  return "error: " + why;
}

bool ParseReal(const std::string& text, double& out) {
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return !text.empty() && end && *end == '\0' && std::isfinite(out);
}

bool ParseOnOff(const Words& args, std::size_t at, bool& out) {
  if (args.size() <= at) return false;
  if (args[at] == "on" || args[at] == "in" || args[at] == "1") {
    out = true;
    return true;
  }
  if (args[at] == "off" || args[at] == "out" || args[at] == "0") {
    out = false;
    return true;
  }
  return false;
}

// x, y, z, zoom are the stage axes 0 to 3; w and platen the two channels (-1, -2).
bool ParseAxis(const std::string& name, int& axis) {
  static const char* const kNames[] = {"x", "y", "z", "zoom"};
  for (int i = 0; i < 4; ++i) {
    if (name == kNames[i]) {
      axis = i;
      return true;
    }
  }
  if (name == "w") axis = -1;
  if (name == "platen") axis = -2;
  return name == "w" || name == "platen";
}

const char* LimitName(int limit) {
  return limit > 0 ? "high" : limit < 0 ? "low" : "none";
}

std::string Describe(const std::string& name, double position, long long counts, bool moving,
                     bool stalled, int limit) {
  char line[200];
  std::snprintf(line, sizeof line, "ok axis=%s pos=%.3f counts=%lld moving=%d stalled=%d limit=%s",
                name.c_str(), position, counts, moving ? 1 : 0, stalled ? 1 : 0, LimitName(limit));
  return line;
}

// A stage axis also says whether its own record holds it (loop closed) or a test drives it (loop
// open, at the bias Mb), and whether its amplifier has failed.
std::string AxisReport(Machine& m, const std::string& name, int axis) {
  if (axis >= 0) {
    const Axis& a = m.axes[static_cast<std::size_t>(axis)];
    return Describe(name, a.position, a.LinearCounts(), a.Moving(), a.stalled, a.limit) +
           (a.tuning.OpenLoop() ? " loop=open" : " loop=closed") +
           " bias=" + std::to_string(a.tuning.mb) + " failed=" + (a.failed ? "1" : "0");
  }
  const Channel& c = axis == -1 ? m.w : m.platen;
  if (!c.fitted) return Error(name + " is not fitted");
  return Describe(name, c.position, c.Counts(), c.Moving(), c.Stalled(), c.Limit());
}

using MachineVerb = std::string (*)(Board&, const Words&);

std::string Switch(bool& field, const Words& args, const char* name) {
  if (!ParseOnOff(args, 0, field)) return Error(std::string(name) + " takes on or off");
  return std::string("ok ") + name + (field ? " on" : " off");
}

std::string RunEstop(Board& b, const Words& a) {
  return Switch(b.machine().estop, a, "estop");
}
std::string RunFootswitch(Board& b, const Words& a) {
  return Switch(b.machine().footswitch, a, "footswitch");
}
std::string RunSleep(Board& b, const Words& a) {
  return Switch(b.machine().sleep, a, "sleep");
}

// A button by its input number (0-15) or by the name the pendant gives it: b1 to b8 are inputs
// 0 to 7 on the current pendant; the first generation's pendant has b1 on input 3 and b2 on 2.
long ButtonInput(const Profile& p, const std::string& word) {
  if (word.size() == 2 && word[0] == 'b' && word[1] >= '1' && word[1] <= '8') {
    const long n = word[1] - '1';
    const bool firstPendant = p.version.isServo && !IsCurrentServo(p);
    if (!firstPendant) return n;
    return n == 0 ? 3 : n == 1 ? 2 : -1;
  }
  char* end = nullptr;
  const long n = std::strtol(word.c_str(), &end, 10);
  return !word.empty() && *end == '\0' ? n : -1;
}

std::string RunButton(Board& b, const Words& a, bool down) {
  const long n = a.size() == 1 ? ButtonInput(b.profile(), a[0]) : -1;
  if (n < 0 || n >= static_cast<long>(kInputs)) {
    return Error("name a button: 0 to 15, or b1 to b8 (b1, b2 on a first-generation pendant)");
  }
  b.machine().inputs[static_cast<std::size_t>(n)] = down;
  return "ok button " + a[0] + " input=" + std::to_string(n) + (down ? " pressed" : " released");
}
std::string RunPress(Board& b, const Words& a) {
  return RunButton(b, a, true);
}
std::string RunRelease(Board& b, const Words& a) {
  return RunButton(b, a, false);
}

std::string RunVector(std::array<double, 3>& field, const Words& a, double limit,
                      const char* name) {
  std::array<double, 3> v{};
  for (std::size_t i = 0; i < 3; ++i) {
    if (a.size() != 3 || !ParseReal(a[i], v[i]) || std::abs(v[i]) > limit) {
      return Error(std::string(name) + " takes three numbers from " + std::to_string(-limit) +
                   " to " + std::to_string(limit));
    }
  }
  field = v;
  return std::string("ok ") + name;
}
std::string RunJoystick(Board& b, const Words& a) {
  return RunVector(b.machine().joystick, a, 1.0, "joystick");
}
std::string RunAccel(Board& b, const Words& a) {
  return RunVector(b.machine().accel, a, 4.0, "accel");
}

std::string RunProbe(Board& b, const Words& a) {
  if (a.size() == 1 && a[0] == "trip") {
    b.machine().TripProbe();
    return "ok probe tripped";
  }
  if (a.size() == 1 && a[0] == "release") {
    b.machine().ReleaseProbe();
    return "ok probe released";
  }
  return Error("probe takes trip or release");
}

std::string RunLaser(Board& b, const Words& a) {
  Machine& m = b.machine();
  if (a.size() == 1 && (a[0] == "ready" || a[0] == "notready")) {
    m.laserReady = a[0] == "ready";
    b.mutableProfile().version.laserNotReady = !m.laserReady;
    return "ok laser " + a[0];
  }
  char* end = nullptr;
  const long n = a.size() == 2 ? std::strtol(a[1].c_str(), &end, 10) : -1;
  if (a.size() == 2 && a[0] == "points" && *end == '\0' && n >= 0 && n <= 1000) {
    m.laserPointsReady = static_cast<std::uint16_t>(n);
    return "ok laser points " + a[1];
  }
  return Error("laser takes ready, notready or points N");
}

std::string RunBlock(Board& b, const Words& a, bool blocked) {
  int axis = 0;
  if (a.size() != 1 || !ParseAxis(a[0], axis)) return Error("name an axis: x y z zoom w platen");
  Machine& m = b.machine();
  if (axis >= 0) {
    m.axes[static_cast<std::size_t>(axis)].blocked = blocked;
  } else {
    (axis == -1 ? m.w : m.platen).blocked = blocked;
  }
  return "ok " + a[0] + (blocked ? " blocked" : " free");
}
std::string RunBlockAxis(Board& b, const Words& a) {
  return RunBlock(b, a, true);
}
std::string RunUnblock(Board& b, const Words& a) {
  return RunBlock(b, a, false);
}

// The stage axes only: the W axis and the platen have neither dead band nor obstacles.
bool ParseStageAxis(const Words& a, std::size_t count, int& axis) {
  return a.size() == count && ParseAxis(a[0], axis) && axis >= 0;
}

std::string RunStallAhead(Board& b, const Words& a);

// An obstacle strictly inside the travel, so that it is never mistaken for an end switch.
std::string RunStall(Board& b, const Words& a) {
  if (!a.empty() && a[0] == "ahead") return RunStallAhead(b, a);
  int axis = 0;
  double mm = 0;
  if (!ParseStageAxis(a, 2, axis) || !ParseReal(a[1], mm)) {
    return Error("stall takes a stage axis (x y z zoom) and a position in mm");
  }
  Axis& x = b.machine().axes[static_cast<std::size_t>(axis)];
  if (mm <= 0 || mm >= x.travel) return Error("an obstacle lies inside the travel of " + a[0]);
  x.PlaceObstacle(mm);
  return "ok " + a[0] + " stalls at " + a[1];
}

std::string RunUnstall(Board& b, const Words& a) {
  int axis = 0;
  if (a.size() == 1 && a[0] == "all") {
    for (Axis& x : b.machine().axes)
      x.PlaceObstacle(-1);
    return "ok all free";
  }
  if (!ParseStageAxis(a, 1, axis)) return Error("unstall takes a stage axis (x y z zoom) or all");
  b.machine().axes[static_cast<std::size_t>(axis)].PlaceObstacle(-1);
  return "ok " + a[0] + " free";
}

// stall ahead MM: an obstacle MM in front of the stage axis that moves fastest, the way it goes.
std::string RunStallAhead(Board& b, const Words& a) {
  double mm = 0;
  if (a.size() != 2 || !ParseReal(a[1], mm) || mm <= 0) {
    return Error("stall ahead takes a distance in mm");
  }
  Axis* moving = nullptr;
  for (Axis& x : b.machine().axes) {
    if (x.Moving() && (!moving || std::abs(x.velocity) > std::abs(moving->velocity))) moving = &x;
  }
  if (!moving) return Error("no stage axis moves");
  const double at = moving->position + std::copysign(mm, moving->velocity);
  if (at <= 0 || at >= moving->travel) return Error("the way ahead ends at a switch first");
  moving->PlaceObstacle(at);
  static const char* const kNames[] = {"x", "y", "z", "zoom"};
  char answer[64];
  std::snprintf(answer, sizeof answer, "ok %s stalls at %.3f",
                kNames[moving - b.machine().axes.data()], at);
  return answer;
}

// A factor on the dead band, from a frictionless 0 to 20 (a drive of 4000 only just starts it).
std::string RunFriction(Board& b, const Words& a) {
  int axis = 0;
  double factor = 0;
  if (!ParseStageAxis(a, 2, axis) || !ParseReal(a[1], factor) || factor < 0 || factor > 20) {
    return Error("friction takes a stage axis (x y z zoom) and a factor 0 to 20");
  }
  b.machine().axes[static_cast<std::size_t>(axis)].friction = factor;
  return "ok " + a[0] + " friction " + a[1];
}

std::string RunAxis(Board& b, const Words& a) {
  int axis = 0;
  if (a.size() != 1 || !ParseAxis(a[0], axis)) return Error("name an axis: x y z zoom w platen");
  return AxisReport(b.machine(), a[0], axis);
}

std::string RunPlace(Board& b, const Words& a) {
  int axis = 0;
  double mm = 0;
  if (a.size() != 2 || !ParseAxis(a[0], axis) || !ParseReal(a[1], mm)) {
    return Error("place takes an axis (x y z zoom w platen) and a position in mm");
  }
  Machine& m = b.machine();
  if (axis < 0) {
    Channel& c = axis == -1 ? m.w : m.platen;
    if (!c.fitted) return Error(a[0] + " is not fitted");
    if (mm < 0 || (c.travel > 0 && mm > c.travel)) return Error("outside the travel of " + a[0]);
    c.PlaceAt(mm);
    return AxisReport(m, a[0], axis);
  }
  Axis& x = m.axes[static_cast<std::size_t>(axis)];
  if (mm < 0 || mm > x.travel) return Error("outside the travel of " + a[0]);
  x.PlaceAt(mm);
  return AxisReport(m, a[0], axis);
}

std::string RunPlug(Board& b, const Words& a, bool platen) {
  bool in = false;
  if (!ParseOnOff(a, 0, in)) return Error("takes in or out");
  Channel& c = platen ? b.machine().platen : b.machine().w;
  c.fitted = in;
  VersionRecord& v = b.mutableProfile().version;
  (platen ? v.platenFitted : v.hasWAxis) = in;
  return std::string("ok ") + (platen ? "platen" : "w") + (in ? " in" : " out");
}
// Besides in and out: stick (the platen stays where it is, so a move never reaches its
// switch, and reports no stall) and free.
std::string RunPlaten(Board& b, const Words& a) {
  if (a.size() == 1 && (a[0] == "stick" || a[0] == "free")) {
    b.machine().platen.stuck = a[0] == "stick";
    return "ok platen " + a[0];
  }
  return RunPlug(b, a, true);
}
std::string RunWPlug(Board& b, const Words& a) {
  return RunPlug(b, a, false);
}

std::string JoinNumbers(const std::vector<std::uint32_t>& values) {
  std::string s;
  for (std::size_t i = 0; i < values.size(); ++i)
    s += (i ? "," : "") + std::to_string(values[i]);
  return s.empty() ? "-" : s;
}

// Without N: what the channels are set to, in channel order.
std::string RunLights(Board& b, const Words& a) {
  if (a.empty()) {
    const Machine& m = b.machine();
    return "ok lights=" + std::to_string(m.lights.size()) + " values=" + JoinNumbers(m.lights);
  }
  char* end = nullptr;
  const long n = a.size() == 1 ? std::strtol(a[0].c_str(), &end, 10) : -1;
  if (a.size() != 1 || *end != '\0' || n < 0 || n > 255) return Error("lights takes 0 to 255");
  VersionRecord& v = b.mutableProfile().version;
  v.lightChannelCount = static_cast<std::uint8_t>(n);
  v.hasLightChannels = n > 0;
  b.machine().SetLightChannels(static_cast<std::size_t>(n));
  return "ok lights " + a[0];
}

// The board flashed with another release of its firmware (same name, same protocol): every
// gate on the firmware's version follows at once; the host sees it after its next open.
std::string RunFirmware(Board& b, const Words& a) {
  double version = 0;
  if (a.size() != 1 || !ParseReal(a[0], version) || version < 0.01 || version > 99.99) {
    return Error("firmware takes a version from 0.01 to 99.99");
  }
  b.mutableProfile().version.firmwareVersion = static_cast<float>(version);
  return "ok firmware " + a[0];
}

// A channel's largest value, or every channel's; without arguments, the maxima in channel order.
std::string RunLightMax(Board& b, const Words& a) {
  Machine& m = b.machine();
  if (a.empty()) return "ok lightmax=" + JoinNumbers(m.lightMaxima);
  char* end = nullptr;
  const bool all = a.size() == 2 && a[0] == "all";
  const long channel = a.size() == 2 && !all ? std::strtol(a[0].c_str(), &end, 10) : -1;
  const bool one = !all && a.size() == 2 && *end == '\0' && channel >= 0 &&
                   channel < static_cast<long>(m.lightMaxima.size());
  const long value = a.size() == 2 ? std::strtol(a[1].c_str(), &end, 10) : -1;
  if ((!all && !one) || *end != '\0' || a[1].empty() || value < 0 || value > 1000000) {
    return Error("lightmax takes a channel the board has, or all, and 0 to 1000000");
  }
  for (std::size_t i = 0; i < m.lightMaxima.size(); ++i) {
    if (all || i == static_cast<std::size_t>(channel)) {
      m.lightMaxima[i] = static_cast<std::uint32_t>(value);
      m.lights[i] = std::min(m.lights[i], m.lightMaxima[i]);
    }
  }
  return "ok lightmax " + a[0] + " " + a[1];
}

// What the board was last told of its status light and raw LED words.
std::string RunStatusLight(Board& b, const Words& a) {
  if (!a.empty()) return Error("statuslight takes no arguments");
  static const char* const kColours[] = {"off", "green", "amber", "red"};
  const Machine& m = b.machine();
  const std::string colour =
      m.statusLight < std::size(kColours) ? kColours[m.statusLight] : std::to_string(m.statusLight);
  return "ok statuslight=" + colour +
         " led=" + JoinNumbers({m.ledWords[0], m.ledWords[1], m.ledWords[2], m.ledWords[3]});
}

// Sensors 0 to 7 of the board, or w; a reading below -100 °C takes the sensor away.
std::string RunTemp(Board& b, const Words& a) {
  char* end = nullptr;
  double c = 0;
  const bool w = a.size() == 2 && a[0] == "w";
  const long n = a.size() == 2 && !w ? std::strtol(a[0].c_str(), &end, 10) : -1;
  const bool sensor =
      !w && a.size() == 2 && *end == '\0' && n >= 0 && n < static_cast<long>(kTemperatureSensors);
  if ((!w && !sensor) || !ParseReal(a[1], c)) {
    return Error("temp takes a sensor 0 to 7 or w, and degrees");
  }
  Machine& m = b.machine();
  (w ? m.wTemperature : m.temperatures[static_cast<std::size_t>(n)]) = c;
  return "ok temp " + a[0] + " " + a[1];
}

std::string RunState(Board& b, const Words&) {
  Machine& m = b.machine();
  std::string s = "ok";
  static const char* const kNames[] = {"x", "y", "z", "zoom"};
  for (std::size_t i = 0; i < kStageAxes; ++i) {
    char part[64];
    std::snprintf(part, sizeof part, " %s=%.3f%s", kNames[i], m.axes[i].position,
                  m.axes[i].stalled ? "!" : "");
    s += part;
  }
  if (m.w.fitted) s += " w=" + std::to_string(m.w.position).substr(0, 8);
  if (m.platen.fitted) {
    s += m.platen.Limit() > 0   ? " platen=open"
         : m.platen.Limit() < 0 ? " platen=closed"
                                : " platen=between";
  }
  std::string pressed;
  for (std::size_t i = 0; i < kInputs; ++i) {
    if (m.inputs[i]) pressed += (pressed.empty() ? "" : ",") + std::to_string(i);
  }
  s += " inputs=" + (pressed.empty() ? std::string("none") : pressed);
  s += std::string(" footswitch=") + (m.footswitch ? "on" : "off");
  s += std::string(" estop=") + (m.estop ? "on" : "off");
  s += std::string(" sleep=") + (m.sleep ? "on" : "off");
  s += std::string(" probe=") + (m.probeTouching ? "tripped" : "free");
  s += " lights=" + std::to_string(m.lights.size());
  s += std::string(" laser=") + (m.laserReady ? "ready" : "notready") +
       " points=" + std::to_string(m.laserPointsReady);
  std::string armed;
  for (const auto& [on, name] :
       {std::pair{m.videoArmed, "video"}, std::pair{m.touchInterrupt, "touch"},
        std::pair{m.laserInterrupt, "laser"}}) {
    if (on) armed += (armed.empty() ? "" : ",") + std::string(name);
  }
  return s + " interrupts=" + (armed.empty() ? "none" : armed);
}

struct MachineCommand {
  const char* name;
  const char* usage;
  MachineVerb run;
};

constexpr MachineCommand kMachineVerbs[] = {
    {.name = "press", .usage = "press BUTTON", .run = RunPress},
    {.name = "release", .usage = "release BUTTON", .run = RunRelease},
    {.name = "joystick", .usage = "joystick X Y Z", .run = RunJoystick},
    {.name = "accel", .usage = "accel X Y Z", .run = RunAccel},
    {.name = "estop", .usage = "estop on|off", .run = RunEstop},
    {.name = "footswitch", .usage = "footswitch on|off", .run = RunFootswitch},
    {.name = "sleep", .usage = "sleep on|off", .run = RunSleep},
    {.name = "probe", .usage = "probe trip|release", .run = RunProbe},
    {.name = "laser", .usage = "laser ready|notready|points N", .run = RunLaser},
    {.name = "block", .usage = "block AXIS", .run = RunBlockAxis},
    {.name = "unblock", .usage = "unblock AXIS", .run = RunUnblock},
    {.name = "axis", .usage = "axis AXIS", .run = RunAxis},
    {.name = "place", .usage = "place AXIS MM", .run = RunPlace},
    {.name = "stall", .usage = "stall AXIS|ahead MM", .run = RunStall},
    {.name = "unstall", .usage = "unstall AXIS|all", .run = RunUnstall},
    {.name = "friction", .usage = "friction AXIS F", .run = RunFriction},
    {.name = "platen", .usage = "platen in|out|stick|free", .run = RunPlaten},
    {.name = "wplug", .usage = "wplug in|out", .run = RunWPlug},
    {.name = "lights", .usage = "lights [N]", .run = RunLights},
    {.name = "lightmax", .usage = "lightmax [CHANNEL|all VALUE]", .run = RunLightMax},
    {.name = "statuslight", .usage = "statuslight", .run = RunStatusLight},
    {.name = "firmware", .usage = "firmware VERSION", .run = RunFirmware},
    {.name = "temp", .usage = "temp SENSOR C", .run = RunTemp},
    {.name = "state", .usage = "state", .run = RunState},
};

}  // namespace

bool RunMachineControl(Simulator& sim, const std::vector<std::string>& words, std::string& answer) {
  for (const MachineCommand& v : kMachineVerbs) {
    if (words[0] != v.name) continue;
    const Words args(words.begin() + 1, words.end());
    answer = sim.AtMachine([&](Board& board) { return v.run(board, args); });
    return true;
  }
  return false;
}

std::string MachineControlUsage() {
  std::string usage;
  for (const MachineCommand& v : kMachineVerbs)
    usage += std::string(" | ") + v.usage;
  return usage;
}

}  // namespace sim
