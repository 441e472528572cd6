#include "sim/PanelState.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "sim/Board.h"
#include "sim/Commands.h"
#include "sim/Simulator.h"

namespace sim {

namespace {

using nlohmann::json;

constexpr const char* kAxisNames[kStageAxes] = {"x", "y", "z", "zoom"};
// The transfers the panel lists, newest first.
constexpr std::size_t kTransfersShown = 12;

json AxisState(const Machine& m, std::size_t i) {
  const Axis& a = m.axes[i];
  return {{"name", kAxisNames[i]},
          {"pos", a.position},
          {"travel", a.travel},
          {"counts", a.LinearCounts()},
          {"rotary", static_cast<std::int32_t>(a.RotaryCounts())},
          {"velocity", a.velocity},
          {"moving", a.Moving()},
          {"stalled", a.stalled},
          {"failed", a.failed},
          {"limit", m.LimitReading(i)},
          {"held", !a.tuning.OpenLoop()},  // its own record holds it; else a test drives it
          {"bias", a.tuning.mb},
          {"friction", a.friction},
          {"blocked", a.blocked},
          {"obstacle", a.obstacle >= 0 ? json(a.obstacle) : json(nullptr)}};
}

json ChannelState(const Channel& c) {
  return {{"fitted", c.fitted},   {"pos", c.position},    {"target", c.target},
          {"moving", c.Moving()}, {"limit", c.Limit()},   {"stuck", c.stuck},
          {"blocked", c.blocked}, {"counts", c.Counts()}, {"travel", c.travel}};
}

std::string Encoders(const Machine& m) {
  const Axis& a = m.axes[0];
  return a.linearFrozen ? "dropout" : a.countsReversed ? "reversed" : "normal";
}

json MachineState(Machine& m) {
  json axes = json::array();
  for (std::size_t i = 0; i < kStageAxes; ++i)
    axes.push_back(AxisState(m, i));
  json supplies = json::array();
  for (const SupplyRail& rail : m.supplies)
    supplies.push_back(
        {{"percent", (rail.Share(m.Seconds()) - 1) * 100}, {"drift", rail.drift * 100}});
  json temperatures = json::array();
  for (double c : m.temperatures)
    temperatures.push_back(c > -100 ? json(c) : json(nullptr));
  return {
      {"seconds", m.Seconds()},
      {"axes", axes},
      {"w", ChannelState(m.w)},
      {"platen", ChannelState(m.platen)},
      {"estop", m.estop},
      {"footswitch", m.footswitch},
      {"sleep", m.sleep},
      {"inputs", m.inputs},
      {"joystick", m.joystick},
      {"accel", m.accel},
      {"probe",
       {{"touching", m.probeTouching},
        {"enabled", m.probeEnabled},
        {"tripped", m.ProbeTripped()},
        {"sensitivity", m.probeSensitivity},
        {"max", m.sensitivityMaximum}}},
      {"interrupts",
       {{"video", m.videoArmed}, {"touch", m.touchInterrupt}, {"laser", m.laserInterrupt}}},
      {"laser",
       {{"ready", m.laserReady},
        {"on", m.laserSettings[kLaserOnWord] != 0},
        {"rate", m.laserSettings[kLaserRateWord]},
        {"points", m.laserPointsReady}}},
      {"lights", {{"values", m.lights}, {"maxima", m.lightMaxima}}},
      {"statusLight", m.statusLight},
      {"temperatures", temperatures},
      {"wTemperature", m.wTemperature},
      {"supplies", supplies},
      {"encoders", Encoders(m)},
      {"switches", m.switchesBounce ? "bounce" : "normal"},
  };
}

// The inputs the pendant's buttons b1 to b8 are (-1: none): on the first generation's pendant b1 is
// input 3 and b2 input 2, on the current one b1 to b8 are inputs 0 to 7.
json PendantButtons(const Profile& p) {
  json inputs = json::array();
  const bool firstPendant = p.version.isServo && !IsCurrentServo(p);
  for (int i = 0; i < 8; ++i)
    inputs.push_back(!firstPendant ? i : i == 0 ? 3 : i == 1 ? 2 : -1);
  return inputs;
}

std::string Hex(const std::uint8_t* bytes, std::size_t n) {
  std::string text;
  char pair[4];
  for (std::size_t i = 0; i < n; ++i) {
    std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
    text += pair;
  }
  return text;
}

// What the board took a command for: its form's name in the board's table, if it knows the code.
std::string CommandName(const Transfer& t, const Profile& profile) {
  if (t.code != kNormalCommandCode && t.code != kCapturePositionCode) return {};
  if (t.requestLength == 0) return {};
  const CommandForm* form = FindForm(t.request[0], profile, t.requestLength);
  return form ? form->name : "unknown to this board";
}

json Transfers(const Traffic& traffic, const Profile& profile) {
  json list = json::array();
  const auto& recent = traffic.recent;
  const platform::TimePoint now = platform::Clock::Current().Now();
  for (auto it = recent.rbegin(); it != recent.rend() && list.size() < kTransfersShown; ++it) {
    const Transfer& t = *it;
    const auto agoMs = std::chrono::duration_cast<std::chrono::milliseconds>(now - t.at).count();
    const std::size_t kept = std::min<std::size_t>(t.requestLength, t.request.size());
    list.push_back({{"seq", t.sequence},
                    {"agoMs", agoMs},
                    {"command", CommandName(t, profile)},
                    {"code", t.code},
                    {"length", t.requestLength},
                    {"bytes", Hex(t.request.data(), kept)},
                    {"replyLength", t.replyLength},
                    {"answered", t.answered},
                    {"status", t.status},
                    {"returned", t.bytesReturned}});
  }
  return list;
}

json ScriptState(Simulator& sim) {
  json names = json::array();
  for (const FaultScript& s : FaultScripts())
    names.push_back({{"name", s.name}, {"summary", s.summary}});
  const ScriptRunner::State s = sim.Script();
  return {{"available", names},
          {"running", s.name.empty() ? json(nullptr) : json(s.name)},
          {"step", s.step},
          {"steps", s.steps},
          {"last", s.last}};
}

}  // namespace

std::string PanelState(Simulator& sim) {
  const SimulatorStatus status = sim.Status();
  const Profile profile = sim.CurrentProfile();
  json rules = json::array();
  for (const FaultRule& rule : sim.Faults())
    rules.push_back({{"id", rule.id}, {"text", DescribeFault(rule)}});
  json machine;
  sim.AtMachine([&](Board& board) {
    machine = MachineState(board.machine());
    return std::string();
  });
  const Traffic traffic = sim.TrafficSeen();
  json profiles = json::array();
  for (const Profile& p : Profiles())
    profiles.push_back({{"name", p.name}, {"description", p.description}});
  const json state = {
      {"profile",
       {{"name", profile.name},
        {"description", profile.description},
        {"firmware", ToNarrow(profile.version.firmwareName)},
        {"version", profile.version.firmwareVersion},
        {"protocol", profile.version.protocolVersion}}},
      {"profiles", profiles},
      {"link",
       {{"plugged", status.plugged},
        {"entry", status.entryPath},
        {"connections", status.connections},
        {"requests", status.requests},
        {"describes", status.describes}}},
      {"app", sim.PosingAsApplication()},
      {"buttons", PendantButtons(profile)},
      {"machine", machine},
      {"faults", rules},
      {"script", ScriptState(sim)},
      {"transfers", Transfers(traffic, profile)},
  };
  return state.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace sim
