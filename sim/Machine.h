// The machine behind the board: four stage axes (X, Y, Z, Zoom), the W axis, the platen, and
// everything a person touches or the board measures. Time only moves through Advance, which
// integrates the motion in steps of a millisecond of machine time up to the clock's `now`, so a
// minute of machine time costs a few milliseconds and tests run it in virtual time. A machine at
// rest is not integrated at all.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "platform/Clock.h"
#include "sim/Profiles.h"
#include "sim/Supplies.h"

namespace sim {

inline constexpr std::size_t kStageAxes = 4;
inline constexpr std::size_t kInputs = 16;
inline constexpr std::size_t kTemperatureSensors = 8;
inline constexpr std::size_t kLaserSettings = 21;
inline constexpr std::size_t kLaserRateWord = 1;  // samples per second: 2500 / 2^word
inline constexpr std::size_t kLaserOnWord = 19;
inline constexpr std::uint16_t kMaxLaserPoints = 30;
// Open-loop drive (Mb) up to this much does not overcome the stage's friction.
inline constexpr double kDeadBand = 200;
// A stage axis that stays stalled this long trips its amplifier and reports itself failed.
inline constexpr double kFailAfterSeconds = 2.0;
// Motor counts of one turn of a stage axis's rotary encoder.
inline constexpr double kRotaryCountsPerTurn = 4000;
// How far before a bouncing end switch it starts to chatter.
inline constexpr double kBounceZone = 5;

// The tuning record of a stage axis as the board keeps it.
struct AxisTuning {
  std::uint16_t kp = 0, ki = 0, kd = 0, dt = 0, kaff = 0, kvff = 0, kout = 0;
  std::int16_t mb = 0;
  std::uint32_t il = 0, fe = 0;

  // Without gains the servo loop is open and Mb drives the motor directly.
  bool OpenLoop() const { return kp == 0 && ki == 0 && kd == 0; }
};

struct Axis {
  // Fixed by the machine.
  double travel = 0;     // mm between the negative and the positive end switch
  double fullSpeed = 0;  // mm/s at a drive of MotorMaximum
  double mmPerTurn = 0;  // of the motor, through the screw or, for Zoom, the gear
  double countsPerMm = 0;
  double jogSpeed = 0;  // mm/s at full joystick deflection (servo machines)
  std::uint16_t motorMaximum = 0;
  // State.
  AxisTuning tuning;
  double position = 0;  // mm from the negative end switch
  double velocity = 0;  // mm/s
  bool blocked = false;
  // Something in the way at `obstacle` mm (none below 0): the axis comes to rest against it from
  // the side it stood on when it was put there (`obstacleSide` 1: from below, -1: from above)
  // and, driven on, stalls with no end switch to say why.
  double obstacle = -1;
  int obstacleSide = 0;
  // A factor on the drive that friction takes (the dead band): above 1 the axis is harder to
  // start.
  double friction = 1;
  bool stalled = false;
  bool failed = false;
  double stalledFor = 0;  // seconds
  std::int8_t limit = 0;  // -1 at the negative switch, 1 at the positive one
  // Where the axis stood when its loop was last opened: how far a test has driven it since.
  double openedAt = 0;
  // Encoder faults: the linear scale stands at `frozenCounts` (the rotary counts on), or both
  // encoders count the other way (from the positive end).
  bool linearFrozen = false;
  std::int32_t frozenCounts = 0;
  bool countsReversed = false;
  // The index mark passes once a motor turn; the board latches the rotary count there. Until a
  // mark has passed since power-up the latched count means nothing, and the board says so.
  bool indexSeen = false;
  bool indexCaptured = false;
  std::uint32_t indexCount = 0;
  std::int64_t lastTurn = 0;

  double Drive() const;  // the open-loop drive, 0 when the loop is closed
  // Takes a new tuning record; an axis whose loop it opens starts counting its drive from here.
  void SetTuning(const AxisTuning& record);
  double DeadBand() const { return kDeadBand * friction; }
  // Puts something in the way at `mm` (below 0: takes it away).
  void PlaceObstacle(double mm);
  bool Moving() const;
  bool Settled() const;
  std::int32_t LinearCounts() const;
  std::uint32_t RotaryCounts() const;
  void PlaceAt(double mm);
};

// The channel of the W axis or the platen: a motor that runs to a target at a fixed speed, an
// encoder, an index mark once a turn, and its records kept as the bytes the host wrote.
struct Channel {
  bool fitted = false;
  double position = 0;  // mm (platen: 0 closed)
  double target = 0;
  double speed = 0;   // mm/s while moving
  double travel = 0;  // 0: no end switches (the W axis turns without end)
  double countsPerMm = 0;
  double mmPerTurn = 0;
  bool blocked = false;
  // Stuck: it stays where it is without a stall, so a move never reaches its switch.
  bool stuck = false;
  bool indexSeen = false;  // as for an axis
  bool indexCaptured = false;
  std::uint32_t indexCount = 0;
  std::int64_t lastTurn = 0;
  std::vector<std::uint8_t> pid = std::vector<std::uint8_t>(42, 0);
  std::vector<std::uint8_t> define = std::vector<std::uint8_t>(60, 0);
  std::vector<std::uint8_t> extra = std::vector<std::uint8_t>(32, 0);
  std::vector<std::uint8_t> serial = std::vector<std::uint8_t>(126, 0);

  bool Moving() const { return position != target && !blocked && !stuck; }
  bool Stalled() const { return blocked && position != target; }
  std::int8_t Limit() const;
  std::uint32_t Counts() const;
  std::uint32_t TargetCounts() const;
  void PlaceAt(double mm);
};

// The W axis's own EEPROM; a write keeps it busy for a while and leaves its result in `kind`.
struct WEeprom {
  std::vector<std::uint8_t> user = std::vector<std::uint8_t>(4096, 0xFF);
  std::vector<std::uint8_t> machine = std::vector<std::uint8_t>(512, 0xFF);
  platform::TimePoint busyUntil{};
  std::uint8_t kind = 0;
};

// A capture latches the four linear positions at one moment.
struct Capture {
  bool pending = false;
  std::array<std::uint32_t, kStageAxes> position{};
  std::uint32_t time = 0;  // ms since power-up
};

class Machine {
 public:
  explicit Machine(const Profile& profile, platform::TimePoint now);

  // Integrates the motion up to `now` (earlier times are ignored).
  void Advance(platform::TimePoint now);
  platform::TimePoint Now() const { return now_; }
  std::uint32_t Millis() const;
  double Seconds() const { return Millis() / 1000.0; }

  std::array<Axis, kStageAxes> axes;
  Channel w;
  Channel platen;
  WEeprom wEeprom;

  bool estop = false;
  bool switchesBounce = false;  // see LimitReading
  bool footswitch = false;
  bool sleep = false;
  // The probe touches (what the person does), and the board listens to it (command 0x32; on at
  // power-up): a disabled probe reports no trip and latches nothing.
  bool probeTouching = false;
  bool probeEnabled = true;
  Capture touchCapture;                         // latched where the probe tripped
  std::array<std::uint32_t, 4> probeRelease{};  // and where it let go
  Capture videoCapture;                         // latched by the camera's frame trigger
  std::uint16_t probeSensitivity = 512;
  // The most the sensitivity takes (command 0x79); 0: the probe has no sensitivity to set.
  std::uint16_t sensitivityMaximum = 1023;
  std::array<bool, kInputs> inputs{};  // pendant buttons and machine inputs
  std::array<double, 3> joystick{};    // -1 to 1
  std::array<double, 3> accel{};       // g
  // Sensors 0 to 7; a sensor below -100 °C is not fitted and reads 0.
  std::array<double, kTemperatureSensors> temperatures{24.5, 31.0, 38.5, 27.0,
                                                       26.0, 33.5, -273, -273};
  double wTemperature = 29.5;
  std::array<SupplyRail, kSupplyChannels> supplies{};

  bool laserReady = true;
  std::uint16_t laserPointsReady = 0;
  std::array<std::uint32_t, kLaserSettings> laserSettings{};
  // The armed interrupt sources. The camera's frame trigger latches only while video is armed, the
  // touch probe only while touch is.
  bool videoArmed = false;
  bool touchInterrupt = false;
  bool laserInterrupt = false;

  std::vector<std::uint32_t> lights;  // set values, one per channel
  // Each channel's largest value; a set value is bounded by it. As built they differ a little
  // (4095 - 5 x channel) so that a channel mixed up shows.
  std::vector<std::uint32_t> lightMaxima;
  std::uint8_t statusLight = 0;
  std::array<std::uint16_t, 4> ledWords{};

  // A little measurement noise, the same sequence for every run of a profile.
  double Noise(double amplitude);

  // The probe touches or lets go. Enabled, a touch latches where it touched while the touch
  // interrupt is armed.
  void TripProbe();
  void ReleaseProbe();
  // The board restarts: it forgets every record the host gave it (the axes come up without tuning,
  // the channels with their factory records), lights go dark, interrupts and captures are gone.
  // What is physical stays: where the axes stand, the EEPROM, a pressed e-stop.
  void Restart(platform::TimePoint now);
  // A stage axis that a test drives (its loop open) has moved at least `mm` since.
  bool DrivenFurtherThan(double mm) const;
  // The end switches as the poll reports them: while `switchesBounce`, a switch chatters (closed 20
  // ms of every 40 of machine time) over the last kBounceZone mm before it.
  std::int8_t LimitReading(std::size_t axis) const;
  bool ProbeTripped() const { return probeTouching && probeEnabled; }
  // Arms exactly the sources named (none: every source disarmed).
  void ArmInterrupts(bool video, bool touch, bool laser);
  // A new channel starts dark at its built maximum; the others keep value and maximum.
  void SetLightChannels(std::size_t count);
  // The maximum of `channel`; the built one for a channel the board does not have.
  std::uint32_t LightMaximum(std::size_t channel) const;
  std::array<std::uint32_t, kStageAxes> LinearPositions() const;

 private:
  bool AtRest() const;
  void Step(double seconds);
  void StepAxis(Axis& a, double jog, double dt);
  void StepChannel(Channel& c, double dt);
  static bool StopAtObstacle(Axis& a);
  void RunTriggers(double elapsed);

  platform::TimePoint poweredAt_;
  platform::TimePoint now_;
  bool servoMachine_ = false;
  double videoClock_ = 0;  // seconds to the next frame trigger
  double laserClock_ = 0;  // seconds to the next laser sample
  std::uint32_t noise_ = 0x2545F491;
};

}  // namespace sim
