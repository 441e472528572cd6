#include "sim/Machine.h"

#include <algorithm>
#include <cmath>

namespace sim {

namespace {

// A drive of up to this much (in Mb units) does not overcome the stage's friction.
constexpr double kDeadBand = 200;
// The motor and stage follow a change of drive with this time constant.
constexpr double kLagSeconds = 0.15;
constexpr double kStepSeconds = 0.001;
// After a long time nobody looked, the motion is caught up in at most this many steps.
constexpr int kMaxSteps = 200000;
constexpr double kRestSpeed = 0.01;  // mm/s below which an axis counts as at rest
constexpr double kCountsPerTurn = 4000;

struct StageShape {
  double travel, maxSpeed, mmPerTurn;
};
// X, Y, Z and the zoom slide.
constexpr StageShape kStage[kStageAxes] = {{300, 50, 5}, {200, 50, 5}, {150, 25, 2}, {40, 10, 0.5}};

}  // namespace

double Axis::Drive() const {
  return tuning.OpenLoop() ? tuning.mb : 0.0;
}

bool Axis::Moving() const {
  return std::abs(velocity) > kRestSpeed;
}

bool Axis::Settled() const {
  return !Moving() && std::abs(Drive()) <= kDeadBand;
}

std::int32_t Axis::LinearCounts() const {
  return static_cast<std::int32_t>(std::lround(position * countsPerMm));
}

std::uint32_t Axis::RotaryCounts() const {
  return static_cast<std::uint32_t>(std::llround(position / mmPerTurn * kCountsPerTurn));
}

std::int8_t Channel::Limit() const {
  if (travel <= 0) return 0;
  if (position <= 0) return -1;
  if (position >= travel) return 1;
  return 0;
}

std::uint32_t Channel::Counts() const {
  return static_cast<std::uint32_t>(std::llround(position * countsPerMm));
}

Machine::Machine(const Profile& profile, platform::TimePoint now) : now_(now) {
  for (std::size_t i = 0; i < kStageAxes; ++i) {
    Axis& a = axes[i];
    const AxisSetup& s = profile.axes[i];
    a.travel = kStage[i].travel;
    a.maxSpeed = kStage[i].maxSpeed;
    a.mmPerTurn = kStage[i].mmPerTurn;
    a.countsPerMm = s.countsPerMm > 0 ? s.countsPerMm : 1000;
    a.motorMaximum = s.motorMaximum > 0 ? s.motorMaximum : 10000;
    a.tuning = {s.kp, s.ki, s.kd, s.dt, s.kaff, s.kvff, s.kout, s.mb, s.il, s.fe};
    a.position = a.travel / 2;
    a.lastTurn = static_cast<std::int64_t>(std::floor(a.position / a.mmPerTurn));
  }
  w.fitted = profile.version.hasWAxis;
  w.travel = 0;  // the W axis turns without end switches
  w.countsPerMm = 1000;
  w.position = w.target = 12.5;
  platen.fitted = profile.version.platenFitted;
  platen.travel = 80;
  platen.speed = 25;
  platen.countsPerMm = 500;
  laserSettings = {1, 3, 100, 2000, 50, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  SetLightChannels(profile.version.hasLightChannels ? profile.version.lightChannelCount : 0);
}

void Machine::SetLightChannels(std::size_t count) {
  lights.resize(count, 0);
}

double Machine::Noise(double amplitude) {
  // xorshift32: cheap, and the same numbers every run.
  noise_ ^= noise_ << 13;
  noise_ ^= noise_ >> 17;
  noise_ ^= noise_ << 5;
  return amplitude * (static_cast<double>(noise_ % 2001) / 1000.0 - 1.0);
}

void Machine::Advance(platform::TimePoint now) {
  if (now <= now_) return;
  const double elapsed = std::chrono::duration<double>(now - now_).count();
  now_ = now;
  const int steps = std::min(kMaxSteps, std::max(1, static_cast<int>(elapsed / kStepSeconds)));
  const double dt = elapsed / steps;
  for (int i = 0; i < steps; ++i)
    Step(dt);
  laserTime += static_cast<std::uint32_t>(elapsed * 1000);
}

void Machine::Step(double dt) {
  for (Axis& a : axes) {
    const double drive = a.Drive();
    const double excess = std::max(0.0, std::abs(drive) - kDeadBand);
    const double span = std::max(1.0, a.motorMaximum - kDeadBand);
    double target = std::copysign(std::min(1.0, excess / span) * a.maxSpeed, drive);
    if (excess == 0 || a.blocked || estop) target = 0;
    a.velocity += (target - a.velocity) * std::min(1.0, dt / kLagSeconds);
    if (a.blocked || estop) a.velocity = 0;
    a.position += a.velocity * dt;
    a.limit = 0;
    if (a.position >= a.travel) {
      a.position = a.travel;
      a.velocity = std::min(0.0, a.velocity);
      a.limit = 1;
    } else if (a.position <= 0) {
      a.position = 0;
      a.velocity = std::max(0.0, a.velocity);
      a.limit = -1;
    }
    // Driven against an end switch or a blockage, the motor stalls.
    const bool intoLimit =
        (a.limit > 0 && drive > kDeadBand) || (a.limit < 0 && -drive > kDeadBand);
    a.stalled = intoLimit || (a.blocked && excess > 0);
    const auto turn = static_cast<std::int64_t>(std::floor(a.position / a.mmPerTurn));
    if (turn != a.lastTurn) {
      // The index mark sits at the start of every motor turn.
      a.indexValid = true;
      a.indexCount = static_cast<std::uint32_t>(
          std::llround(static_cast<double>(std::max(turn, a.lastTurn)) * kCountsPerTurn));
      a.lastTurn = turn;
    }
  }
  for (Channel* c : {&w, &platen}) {
    if (!c->Moving() || estop) continue;
    const double step = c->speed * dt;
    if (std::abs(c->target - c->position) <= step) {
      c->position = c->target;
    } else {
      c->position += std::copysign(step, c->target - c->position);
    }
  }
}

void Machine::TripProbe() {
  if (probeTripped) return;
  probeTripped = true;
  probeCaptured = true;
  for (std::size_t i = 0; i < kStageAxes; ++i)
    probeTrip[i] = static_cast<std::uint32_t>(axes[i].LinearCounts());
}

void Machine::ReleaseProbe() {
  if (!probeTripped) return;
  probeTripped = false;
  for (std::size_t i = 0; i < kStageAxes; ++i)
    probeRelease[i] = static_cast<std::uint32_t>(axes[i].LinearCounts());
}

}  // namespace sim
