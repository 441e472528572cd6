#include "sim/Machine.h"

#include <algorithm>
#include <cmath>

#include "wire/WireFormat.h"

namespace sim {

namespace {

// The motor and stage follow a change of drive with this time constant.
constexpr double kLagSeconds = 0.15;
constexpr double kStepSeconds = 0.001;
// After a long time nobody looked, the motion is caught up in at most this many steps.
constexpr int kMaxSteps = 200000;
constexpr double kRestSpeed = 0.01;  // mm/s below which an axis counts as at rest
// The camera's frame trigger while video capture is armed.
constexpr double kFrameSeconds = 0.25;

struct StageShape {
  double travel;     // mm between the end switches
  double fullSpeed;  // mm/s at MotorMaximum
  double mmPerTurn;  // of the motor
  double jogSpeed;   // mm/s at full joystick deflection
};
// X, Y, Z and the zoom slide. Full speed is what MotorMaximum would give; the motion tests keep
// well below it, and the Standard voltage limit (a quarter of MotorMaximum) reaches about 35 mm/s
// on X, Y and Z, above the band that the limit test regulates to.
constexpr StageShape kStage[kStageAxes] = {
    {.travel = 300, .fullSpeed = 160, .mmPerTurn = 5, .jogSpeed = 25},
    {.travel = 200, .fullSpeed = 160, .mmPerTurn = 5, .jogSpeed = 25},
    {.travel = 150, .fullSpeed = 160, .mmPerTurn = 2, .jogSpeed = 10},
    {.travel = 40, .fullSpeed = 40, .mmPerTurn = 0.5, .jogSpeed = 5}};

std::int64_t TurnOf(double mm, double mmPerTurn) {
  return static_cast<std::int64_t>(std::floor(mm / mmPerTurn));
}

// Noise seed from the profile's name, so that each profile has its own repeatable sequence.
std::uint32_t Seed(const std::string& name) {
  std::uint32_t h = 2166136261u;
  for (char c : name)
    h = (h ^ static_cast<std::uint8_t>(c)) * 16777619u;
  return h == 0 ? 0x2545F491 : h;
}

// The laser's settings as built: word 1 its rate exponent, word 19 on.
constexpr std::array<std::uint32_t, kLaserSettings> kBuiltLaserSettings = {
    1, 3, 100, 2000, 50, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0};

// A channel's tuning record from the factory, the longs from byte 2 in this order.
struct ChannelTuning {
  std::uint32_t kp, ki, kd, dt, kaff, kvff, kout, mb, il, fe;
  std::array<std::uint32_t, 10> Longs() const {
    return {kp, ki, kd, dt, kaff, kvff, kout, mb, il, fe};
  }
};

// The longs of a channel's definition record from the factory, from byte 2 in this order; the
// gear is a fixed-point number (16.16).
struct ChannelDefinition {
  std::uint32_t speed, slowSpeed, accel, jerk, rotaryEncoderRes, gear, current, settleWindow,
      settleTime, motorPoles, motorSaturationCounter;
  std::array<std::uint32_t, 11> Longs() const {
    return {speed,   slowSpeed,    accel,      jerk,       rotaryEncoderRes,      gear,
            current, settleWindow, settleTime, motorPoles, motorSaturationCounter};
  }
};

// Records a channel's controller holds from the factory: tuning, definition, the platen's extra
// record and the serial record, so that a read before any write shows believable values.
void InitChannelRecords(Channel& c, bool platen) {
  const std::uint32_t base = platen ? 2 : 1;
  const ChannelTuning tuning = {.kp = 150 * base,
                                .ki = 3,
                                .kd = 800 * base,
                                .dt = 2,
                                .kaff = 40,
                                .kvff = 25,
                                .kout = 65000,
                                .mb = 0,
                                .il = 30000,
                                .fe = 5000};
  const ChannelDefinition define = {.speed = 20000 * base,
                                    .slowSpeed = 4000,
                                    .accel = 50000,
                                    .jerk = 200000,
                                    .rotaryEncoderRes = 4000,
                                    .gear = platen ? 0x00028000u : 0x00010000u,  // 2.5 or 1.0
                                    .current = 1200,
                                    .settleWindow = 20,
                                    .settleTime = 50,
                                    .motorPoles = 4,
                                    .motorSaturationCounter = 3000};
  const auto pid = tuning.Longs();
  for (std::size_t i = 0; i < pid.size(); ++i)
    wire::PutLong(c.pid, 2 + 4 * i, pid[i]);
  const auto longs = define.Longs();
  for (std::size_t i = 0; i < longs.size(); ++i)
    wire::PutLong(c.define, 2 + 4 * i, longs[i]);
  wire::PutFlag(c.define, 46, false);
  wire::PutFlag(c.define, 47, platen);
  wire::PutByte(c.define, 48, platen ? 2 : 0);  // the platen has no index input of its own
  if (platen) {
    for (std::size_t i = 0; i < 3; ++i) {
      wire::PutWord(c.extra, 1 + 2 * i, static_cast<std::uint16_t>(300 + 20 * i));
      wire::PutWord(c.extra, 7 + 2 * i, static_cast<std::uint16_t>(-5 + 5 * static_cast<int>(i)));
    }
    wire::PutWord(c.extra, 13, 3);
  }
  wire::PutWideText(c.serial, 1, platen ? u"PL-18-00221" : u"WX-20-01310");
  wire::PutWideText(c.serial, 33, platen ? u"Platen" : u"W axis");
  wire::PutWideText(c.serial, 65, platen ? u"PL80" : u"WR360");
}

}  // namespace

double Axis::Drive() const {
  return tuning.OpenLoop() ? tuning.mb : 0.0;
}

bool Axis::Moving() const {
  return std::abs(velocity) > kRestSpeed;
}

bool Axis::Settled() const {
  return !Moving() && std::abs(Drive()) <= DeadBand();
}

void Axis::PlaceObstacle(double mm) {
  obstacle = mm;
  obstacleSide = mm < 0 ? 0 : position <= mm ? 1 : -1;
}

void Axis::SetTuning(const AxisTuning& record) {
  if (record.OpenLoop() && !tuning.OpenLoop()) openedAt = position;
  tuning = record;
}

std::int32_t Axis::LinearCounts() const {
  if (linearFrozen) return frozenCounts;
  const double mm = countsReversed ? travel - position : position;
  return static_cast<std::int32_t>(std::lround(mm * countsPerMm));
}

std::uint32_t Axis::RotaryCounts() const {
  const double mm = countsReversed ? travel - position : position;
  return static_cast<std::uint32_t>(std::llround(mm / mmPerTurn * kRotaryCountsPerTurn));
}

void Axis::PlaceAt(double mm) {
  position = std::clamp(mm, 0.0, travel);
  velocity = 0;
  limit = position <= 0 ? -1 : position >= travel ? 1 : 0;
  lastTurn = TurnOf(position, mmPerTurn);
  openedAt = position;
  if (obstacle >= 0) obstacleSide = position <= obstacle ? 1 : -1;
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

std::uint32_t Channel::TargetCounts() const {
  return static_cast<std::uint32_t>(std::llround(target * countsPerMm));
}

void Channel::PlaceAt(double mm) {
  position = target = travel > 0 ? std::clamp(mm, 0.0, travel) : mm;
  lastTurn = TurnOf(position, mmPerTurn);
}

Machine::Machine(const Profile& profile, platform::TimePoint now)
    : poweredAt_(now), now_(now), noise_(Seed(profile.name)) {
  servoMachine_ = profile.version.isServo;
  for (std::size_t i = 0; i < kStageAxes; ++i) {
    Axis& a = axes[i];
    const AxisSetup& s = profile.axes[i];
    a.travel = kStage[i].travel;
    a.fullSpeed = kStage[i].fullSpeed;
    a.mmPerTurn = kStage[i].mmPerTurn;
    a.jogSpeed = kStage[i].jogSpeed;
    a.countsPerMm = s.countsPerMm > 0 ? s.countsPerMm : 1000;
    a.motorMaximum = s.motorMaximum > 0 ? s.motorMaximum : 10000;
    a.SetTuning({.kp = s.kp,
                 .ki = s.ki,
                 .kd = s.kd,
                 .dt = s.dt,
                 .kaff = s.kaff,
                 .kvff = s.kvff,
                 .kout = s.kout,
                 .mb = s.mb,
                 .il = s.il,
                 .fe = s.fe});
    a.PlaceAt(a.travel / 2);
  }
  w.fitted = profile.version.hasWAxis;
  w.travel = 0;  // the W axis turns without end switches
  w.speed = 10;
  w.countsPerMm = 1000;
  w.mmPerTurn = 5;
  w.PlaceAt(12.5);
  platen.fitted = profile.version.platenFitted;
  platen.travel = 80;  // a little over 3 s from end to end
  platen.speed = 25;
  platen.countsPerMm = 500;
  platen.mmPerTurn = 40;  // one index mark, half way
  platen.PlaceAt(0);
  InitChannelRecords(w, false);
  InitChannelRecords(platen, true);
  laserSettings = kBuiltLaserSettings;
  SetLightChannels(profile.version.hasLightChannels ? profile.version.lightChannelCount : 0);
}

namespace {
std::uint32_t BuiltLightMaximum(std::size_t channel) {
  return 4095 - 5 * static_cast<std::uint32_t>(channel);
}
}  // namespace

void Machine::SetLightChannels(std::size_t count) {
  lights.resize(count, 0);
  const std::size_t had = lightMaxima.size();
  lightMaxima.resize(count);
  for (std::size_t i = had; i < count; ++i)
    lightMaxima[i] = BuiltLightMaximum(i);
}

std::uint32_t Machine::LightMaximum(std::size_t channel) const {
  return channel < lightMaxima.size() ? lightMaxima[channel] : BuiltLightMaximum(channel);
}

std::uint32_t Machine::Millis() const {
  return static_cast<std::uint32_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now_ - poweredAt_).count());
}

double Machine::Noise(double amplitude) {
  // xorshift32: cheap, and the same numbers every run.
  noise_ ^= noise_ << 13;
  noise_ ^= noise_ >> 17;
  noise_ ^= noise_ << 5;
  return amplitude * (static_cast<double>(noise_ % 2001) / 1000.0 - 1.0);
}

std::array<std::uint32_t, kStageAxes> Machine::LinearPositions() const {
  std::array<std::uint32_t, kStageAxes> out{};
  for (std::size_t i = 0; i < kStageAxes; ++i)
    out[i] = static_cast<std::uint32_t>(axes[i].LinearCounts());
  return out;
}

bool Machine::AtRest() const {
  for (const Axis& a : axes) {
    if (a.velocity != 0 || a.stalled || std::abs(a.Drive()) > a.DeadBand()) return false;
  }
  if (servoMachine_ && (joystick[0] != 0 || joystick[1] != 0 || joystick[2] != 0)) return false;
  return !w.Moving() && !platen.Moving();
}

void Machine::Advance(platform::TimePoint now) {
  if (now <= now_) return;
  const double elapsed = std::chrono::duration<double>(now - now_).count();
  now_ = now;
  RunTriggers(elapsed);
  if (AtRest()) return;
  const int steps = std::min(kMaxSteps, std::max(1, static_cast<int>(elapsed / kStepSeconds)));
  const double dt = elapsed / steps;
  for (int i = 0; i < steps; ++i)
    Step(dt);
}

// What happens by the clock rather than by motion: frame triggers and laser samples.
void Machine::RunTriggers(double elapsed) {
  if (videoArmed) {
    videoClock_ -= elapsed;
    if (videoClock_ <= 0) {
      videoClock_ = kFrameSeconds;
      videoCapture = {.pending = true, .position = LinearPositions(), .time = Millis()};
    }
  }
  const bool laserOn = laserReady && laserSettings[kLaserOnWord] != 0;
  if (laserOn && laserInterrupt) {
    const double rate = 2500.0 / std::ldexp(1.0, static_cast<int>(laserSettings[1] % 16));
    laserClock_ += elapsed * rate;
    const auto fresh = static_cast<std::uint32_t>(laserClock_);
    laserClock_ -= fresh;
    laserPointsReady =
        static_cast<std::uint16_t>(std::min<std::uint32_t>(laserPointsReady + fresh, 1000));
  }
}

void Machine::Step(double dt) {
  for (std::size_t i = 0; i < kStageAxes; ++i)
    StepAxis(axes[i], servoMachine_ && i < 3 ? joystick[i] : 0.0, dt);
  StepChannel(w, dt);
  StepChannel(platen, dt);
}

void Machine::StepAxis(Axis& a, double jog, double dt) {
  const double drive = a.Drive();
  const double deadBand = a.DeadBand();
  const double excess = std::max(0.0, std::abs(drive) - deadBand);
  const double span = std::max(1.0, a.motorMaximum - deadBand);
  // Above the dead band the speed rises in proportion to the drive; a closed loop holds the
  // axis where it is, unless the pendant's joystick jogs it.
  double target = excess > 0 ? std::copysign(std::min(1.0, excess / span) * a.fullSpeed, drive)
                             : (a.tuning.OpenLoop() ? 0.0 : jog * a.jogSpeed);
  if (a.blocked || estop) target = 0;
  a.velocity += (target - a.velocity) * std::min(1.0, dt / kLagSeconds);
  if (target == 0 && std::abs(a.velocity) < 1e-4) a.velocity = 0;
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
  const bool intoObstacle = StopAtObstacle(a) && excess > 0 && drive * a.obstacleSide > 0;
  // Driven against an end switch, an obstacle or a blockage, the motor stalls; held there, it
  // fails.
  const bool intoLimit = (a.limit > 0 && drive > deadBand) || (a.limit < 0 && -drive > deadBand);
  a.stalled = !estop && (intoLimit || intoObstacle || (a.blocked && excess > 0));
  a.stalledFor = a.stalled ? a.stalledFor + dt : 0;
  a.failed = a.stalledFor >= kFailAfterSeconds;
  const std::int64_t turn = TurnOf(a.position, a.mmPerTurn);
  if (turn != a.lastTurn) {
    // The mark sits at the start of every motor turn, whichever way the axis crosses it.
    a.indexSeen = a.indexCaptured = true;
    a.indexCount = static_cast<std::uint32_t>(
        std::llround(static_cast<double>(std::max(turn, a.lastTurn)) * kRotaryCountsPerTurn));
    a.lastTurn = turn;
  }
}

// Keeps the axis on its side of an obstacle; true while it rests against it.
bool Machine::StopAtObstacle(Axis& a) {
  if (a.obstacleSide == 0) return false;
  const double past = (a.position - a.obstacle) * a.obstacleSide;
  if (past < 0) return false;
  a.position = a.obstacle;
  a.velocity = a.obstacleSide > 0 ? std::min(0.0, a.velocity) : std::max(0.0, a.velocity);
  return true;
}

void Machine::StepChannel(Channel& c, double dt) {
  if (!c.Moving() || estop) return;
  const double step = c.speed * dt;
  if (std::abs(c.target - c.position) <= step) {
    c.position = c.target;
  } else {
    c.position += std::copysign(step, c.target - c.position);
  }
  const std::int64_t turn = TurnOf(c.position, c.mmPerTurn);
  if (turn != c.lastTurn) {
    c.indexSeen = c.indexCaptured = true;
    c.indexCount = static_cast<std::uint32_t>(std::llround(
        static_cast<double>(std::max(turn, c.lastTurn)) * c.mmPerTurn * c.countsPerMm));
    c.lastTurn = turn;
  }
}

void Machine::TripProbe() {
  if (probeTouching) return;
  probeTouching = true;
  if (probeEnabled && touchInterrupt) {
    touchCapture = {.pending = true, .position = LinearPositions(), .time = Millis()};
  }
}

void Machine::ReleaseProbe() {
  if (!probeTouching) return;
  probeTouching = false;
  if (probeEnabled) probeRelease = LinearPositions();
}

void Machine::Restart(platform::TimePoint now) {
  Advance(now);
  poweredAt_ = now;
  for (Axis& a : axes) {
    a.SetTuning({});
    a.failed = false;
    a.stalledFor = 0;
    a.indexSeen = a.indexCaptured = false;
  }
  for (Channel* c : {&w, &platen}) {
    c->target = c->position;
    c->indexSeen = c->indexCaptured = false;
    InitChannelRecords(*c, c == &platen);
  }
  std::fill(lights.begin(), lights.end(), 0);
  ArmInterrupts(false, false, false);
  touchCapture = videoCapture = {};
  probeEnabled = true;
  probeSensitivity = 512;
  sleep = false;
  statusLight = 0;
  ledWords = {};
  laserPointsReady = 0;
  laserSettings = kBuiltLaserSettings;
}

bool Machine::DrivenFurtherThan(double mm) const {
  return std::any_of(axes.begin(), axes.end(), [mm](const Axis& a) {
    return a.tuning.OpenLoop() && std::abs(a.position - a.openedAt) >= mm;
  });
}

std::int8_t Machine::LimitReading(std::size_t axis) const {
  const Axis& a = axes[axis];
  if (!switchesBounce || a.limit != 0) return a.limit;
  const std::int8_t near = a.position < kBounceZone              ? -1
                           : a.position > a.travel - kBounceZone ? 1
                                                                 : 0;
  const bool closed =
      (std::chrono::duration_cast<std::chrono::milliseconds>(now_ - poweredAt_).count() % 40) < 20;
  return closed ? near : 0;
}

void Machine::ArmInterrupts(bool video, bool touch, bool laser) {
  videoArmed = video;
  touchInterrupt = touch;
  laserInterrupt = laser;
}

}  // namespace sim
