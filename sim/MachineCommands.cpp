// The machine's commands: status, axes, lights, probes, laser, interrupts, the W axis and platen
// channels and the older per-axis records. Each form is gated on what the board's generation
// speaks, so a host that sends the wrong form is refused or gets a reply of another length.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "sim/Commands.h"
#include "sim/Machine.h"
#include "sim/MachineImage.h"

namespace sim {

namespace {

using wire::GetByte;
using wire::GetLong;
using wire::GetWord;
using wire::PutByte;
using wire::PutFlag;
using wire::PutLong;
using wire::PutSignedLong;
using wire::PutWord;

constexpr std::uint8_t kWChannel = 16;
constexpr std::uint8_t kPlatenChannel = 17;
constexpr std::uint16_t kTwoReply = 2;  // set commands that answer two bytes on every board

// ---- what a board is ----------------------------------------------------------------------------

double Fw(const Profile& p) {
  return static_cast<double>(p.version.firmwareVersion);
}
std::uint16_t Pv(const Profile& p) {
  return p.version.protocolVersion;
}
bool Mv(const Profile& p) {
  return p.version.isManualVision;
}
bool CurrentServo(const Profile& p) {
  return IsCurrentServo(p);
}
bool Controller(const Profile& p) {
  return p.version.isServo || p.version.isManualVision;
}
bool OldDriver(const Profile& p) {
  const auto third = static_cast<std::int8_t>((p.driverWord >> 16) & 0xFF);
  return third < 3 && (p.driverWord >> 24) < 2;
}
bool LaserFitted(const Profile& p) {
  return p.version.laserType > 0;
}

// ---- gates --------------------------------------------------------------------------------------

bool Servo(const Profile& p) {
  return p.version.isServo;
}
bool AnyController(const Profile& p) {
  return Controller(p);
}
bool BoardData(const Profile& p) {
  return (CurrentServo(p) && Fw(p) >= 2.0799) || (Mv(p) && Pv(p) >= 5);
}
// The status poll: 28 bytes on the first servo boards, 221 on the current ones and on manual
// vision from protocol 5, 62 on every other controller.
bool OldestPoll(const Profile& p) {
  return Servo(p) && Pv(p) == 0;
}
bool LongPoll(const Profile& p) {
  return (CurrentServo(p) && Pv(p) >= 1) || (Mv(p) && Pv(p) >= 5);
}
bool Temperature(const Profile& p) {
  return CurrentServo(p) || Mv(p) || (Servo(p) && Fw(p) >= 1.729);
}
bool OneWordLights(const Profile& p) {
  return Servo(p) && Pv(p) < 3;
}
bool PacketLights(const Profile& p) {
  return Controller(p) && !OneWordLights(p);
}
// Behind the first driver a packet carries 21 channels; behind the newer one 42.
bool PacketLightsOldDriver(const Profile& p) {
  return PacketLights(p) && OldDriver(p);
}
bool PacketLightsNewDriver(const Profile& p) {
  return PacketLights(p) && !OldDriver(p);
}
bool TouchProbe(const Profile& p) {
  return Mv(p) || (Servo(p) && Pv(p) >= 1);
}
bool LaserPoints(const Profile& p) {
  return Controller(p) && LaserFitted(p) && (Mv(p) || Fw(p) >= 1.809);
}
bool LaserSettings(const Profile& p) {
  return Controller(p) && LaserFitted(p) && (Mv(p) || Fw(p) >= 1.829);
}
bool OneByteInterrupts(const Profile& p) {
  return Servo(p) && Fw(p) < 1.829;
}
bool InterruptPacket(const Profile& p) {
  return Controller(p) && !OneByteInterrupts(p);
}
bool ClearSleepGate(const Profile& p) {
  return CurrentServo(p) && Fw(p) >= 2.219;
}
bool StatusLight(const Profile& p) {
  return CurrentServo(p) && Fw(p) >= 2.179;
}
bool PmdVersion(const Profile& p) {
  return Servo(p) && Fw(p) >= 1.509;
}
bool NamedRecordGate(const Profile& p) {
  return Servo(p) && p.version.hasCommand72;
}
bool MachineDataGate(const Profile& p) {
  return Servo(p) && Fw(p) >= 1.139;
}
bool PlatenExtra(const Profile& p) {
  return Servo(p) && Fw(p) > 1.619;
}
bool SerialShort(const Profile& p) {
  return Servo(p) && Pv(p) < 2;
}
bool SerialLong(const Profile& p) {
  return Mv(p) || (Servo(p) && Pv(p) >= 2);
}
bool ReadQGate(const Profile& p) {
  return Mv(p) || (Servo(p) && Fw(p) >= 1.779);
}
bool HashGate(const Profile& p) {
  return Mv(p) || (Servo(p) && Pv(p) >= 2);
}
bool WEepromGate(const Profile& p) {
  return p.version.hasWAxis && (Mv(p) || (Servo(p) && Fw(p) > 1.519));
}
bool WEepromOld(const Profile& p) {
  return WEepromGate(p) && !Mv(p) && Pv(p) < 2;
}
bool WEepromNew(const Profile& p) {
  return WEepromGate(p) && (Mv(p) || Pv(p) >= 2);
}

// ---- reply lengths that depend on the request ---------------------------------------------------

bool IsChannel(std::uint8_t n) {
  return n == kWChannel || n == kPlatenChannel;
}

std::uint16_t RotaryOrLowerC(const Profile&, wire::Bytes q) {
  return IsChannel(GetByte(q, 1)) ? 10 : 6;
}
std::uint16_t PidLength(const Profile&, wire::Bytes q) {
  return IsChannel(GetByte(q, 1)) ? 42 : 26;
}
std::uint16_t DefineLength(const Profile&, wire::Bytes q) {
  return IsChannel(GetByte(q, 1)) ? 60 : 47;
}
std::uint16_t ExtentsLength(const Profile& p, wire::Bytes) {
  return Pv(p) < 4 ? 37 : 120;
}
std::uint16_t ProbeCaptureLength(const Profile& p, wire::Bytes) {
  return CurrentServo(p) || (Mv(p) && Pv(p) >= 5) ? 92 : 76;
}

// The laser point forms: bytes before the first point, bytes per point (0: the packed form).
struct LaserForm {
  std::uint16_t limit, head, stride;
  int valid, time, position, extra;
  bool pendingWord;
};
constexpr LaserForm kLaserA = {6, 0, 0, -1, 7, 31, -1, false};
constexpr LaserForm kLaserB = {30, 1, 20, -1, 2, 6, -1, true};
constexpr LaserForm kLaserC = {30, 3, 21, 0, 5, 9, 1, true};
constexpr LaserForm kLaserD = {30, 3, 17, 0, 1, 5, -1, true};

const LaserForm& LaserFormOf(const Profile& p) {
  if (Mv(p)) return Pv(p) >= 5 ? kLaserC : kLaserD;
  if (Fw(p) < 1.819) return kLaserA;
  if (Fw(p) < 1.839) return kLaserB;
  return CurrentServo(p) ? kLaserC : kLaserD;
}
std::uint16_t LaserPointsLength(const Profile& p, wire::Bytes q) {
  const LaserForm& f = LaserFormOf(p);
  if (f.stride == 0) return 127;
  const std::uint16_t asked = std::min<std::uint16_t>(GetByte(q, 1), f.limit);
  return static_cast<std::uint16_t>(f.head + f.stride * asked);
}

// ---- fills: status ------------------------------------------------------------------------------

Machine& M(Board& b) {
  return b.machine();
}

// The supply rails as the converter sees them: full scale (65535) is the nominal voltage over the
// channel's divider, and each rail sits where its SupplyRail says (as built a little below
// nominal). The manual-vision board's last eight channels are spare inputs near zero.
std::uint16_t AnalogWord(Machine& m, bool manualVision, std::size_t channel) {
  static constexpr double kServoDivider[16] = {1,      0.9324, 0.7576, 0.8503, 0.3636, 0.7576,
                                               0.9186, 1,      0.9324, 0.9324, 0.9324, 0.9324,
                                               0.9324, 0.9324, 0.9324, 0.9324};
  static constexpr double kManualDivider[8] = {0.852, 0.788, 0.852, 0.88, 0.912, 0.852, 0.48, 0.88};
  if (manualVision && channel >= 8) return static_cast<std::uint16_t>(std::lround(12 + m.Noise(4)));
  const double divider = manualVision ? kManualDivider[channel] : kServoDivider[channel];
  const double share = m.supplies[channel].Share(m.Seconds()) + m.Noise(0.004);
  return static_cast<std::uint16_t>(std::lround(std::min(65535.0, 65535.0 * divider * share)));
}

// The 47-byte axis definition is a view of the machine image's sections 2 and 3: each field of
// the reply is the axis's element of one image array. Reading it from the image keeps the older
// boards' per-axis answers and the image of the newer ones the same machine.
struct DefineField {
  std::uint8_t at;        // reply offset
  std::uint16_t imageAt;  // the array's offset in the image
  std::uint8_t width;     // bytes per element
};
constexpr std::uint16_t kSection2 = 232;
constexpr std::uint16_t kSection3 = 484;
constexpr DefineField kDefineFields[] = {
    {2, kSection2 + 2, 4},    {6, kSection2 + 18, 2},   {8, kSection2 + 26, 2},
    {10, kSection2 + 34, 2},  {12, kSection2 + 42, 2},  {14, kSection2 + 50, 2},
    {16, kSection2 + 58, 4},  {20, kSection2 + 74, 2},  {22, kSection2 + 82, 2},
    {24, kSection2 + 90, 2},  {26, kSection2 + 98, 1},  {27, kSection2 + 102, 1},
    {28, kSection2 + 106, 1}, {29, kSection2 + 110, 1}, {30, kSection2 + 114, 1},
    {31, kSection3 + 2, 4},   {35, kSection3 + 18, 1},  {36, kSection3 + 22, 1},
    {37, kSection2 + 118, 1}, {38, kSection3 + 30, 1},  {39, kSection3 + 34, 1},
    {40, kSection2 + 122, 4}, {44, kSection2 + 138, 1}, {45, kSection2 + 142, 2},
};
constexpr std::uint8_t kDefineRealAt = 2;
constexpr std::uint8_t kDefineKeepRealAt = 28;  // AxisFlag3: the real is kept as it is
constexpr std::uint8_t kDefineLastWordAt = 45;  // only from firmware 1.139

void PutAxisDefine(Board& board, std::size_t axis, wire::MutableBytes r) {
  const std::vector<std::uint8_t>& image = board.machineArea();
  const Profile& p = board.profile();
  for (const DefineField& f : kDefineFields) {
    if (f.at == kDefineLastWordAt && Fw(p) < 1.139) continue;
    std::copy_n(image.begin() + f.imageAt + f.width * axis, f.width, r.begin() + f.at);
  }
  // The older boards keep the axis real as its reciprocal in inches, which the host's upgrade
  // of the image turns back (1 / real x 25.4), except on axes that keep it as it is.
  if (Pv(p) < 2 && GetByte(r, kDefineKeepRealAt) == 0) {
    const float real = wire::GetReal(r, kDefineRealAt);
    if (real != 0.0f) wire::PutReal(r, kDefineRealAt, 25.4f / real);
  }
}

struct PollPlace {
  int sleep, moving, limit, settled, stalled, failed, linear, inputs, footswitch, w, platen;
};
constexpr PollPlace kOldestPlace = {-1, 8, 12, 16, 20, 24, -1, -1, -1, -1, -1};
constexpr PollPlace kCompactPlace = {-1, 8, 12, 16, 20, 24, 46, 28, 32, 34, 34};
constexpr PollPlace kLongPlace = {7, 23, 27, 31, 35, 39, 59, 75, 107, 127, 163};

void PutChannel(wire::MutableBytes r, int at, const Channel& c) {
  // The long form keeps three entries per W array (W and two channels that no machine has).
  PutFlag(r, at, c.Moving());
  PutFlag(r, at + 3, !c.Moving());
  PutFlag(r, at + 6, c.Stalled());
  PutByte(r, at + 9, static_cast<std::uint8_t>(c.Limit()));
  PutLong(r, at + 12, c.Counts());
  PutLong(r, at + 24, c.TargetCounts());
}

void PutPlaten(wire::MutableBytes r, int at, const Channel& c) {
  PutFlag(r, at, c.Moving());
  PutFlag(r, at + 1, !c.Moving());
  PutFlag(r, at + 2, c.Stalled());
  PutByte(r, at + 3, static_cast<std::uint8_t>(c.Limit()));
  PutLong(r, at + 4, c.Counts());
  PutLong(r, at + 8, c.TargetCounts());
}

std::int8_t FillPoll(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Machine& m = M(board);
  const PollPlace& f = r.size() == 221 ? kLongPlace : r.size() == 62 ? kCompactPlace : kOldestPlace;
  // A capture is announced only to a host that asks for capture data; byte 4 says it is the
  // touch probe's.
  const bool wantCapture = GetByte(q, 1) != 0;
  PutFlag(r, 1, m.estop);
  PutFlag(r, 3, wantCapture && (m.touchCapture.pending || m.videoCapture.pending));
  if (r.size() > 28) {
    PutByte(r, 4, m.touchCapture.pending ? 1 : 0);
    PutFlag(r, 5, m.probeTripped);
  }
  // Firmware before 1.119 had no failure detection; the manual-vision boards always had it.
  const bool reportsFailure = Mv(board.profile()) || Fw(board.profile()) >= 1.119;
  if (f.sleep >= 0) PutFlag(r, f.sleep, m.sleep);
  for (std::size_t i = 0; i < kStageAxes; ++i) {
    const Axis& a = m.axes[i];
    PutFlag(r, f.moving + i, a.Moving());
    PutByte(r, f.limit + i, static_cast<std::uint8_t>(a.limit));
    PutFlag(r, f.settled + i, a.Settled());
    PutFlag(r, f.stalled + i, a.stalled);
    PutFlag(r, f.failed + i, reportsFailure && a.failed);
    if (f.linear >= 0) PutSignedLong(r, f.linear + 4 * i, a.LinearCounts());
  }
  if (f.inputs >= 0) {
    const bool longForm = r.size() == 221;
    if (longForm) {
      for (std::size_t i = 0; i < kInputs; ++i)
        PutFlag(r, f.inputs + i, m.inputs[i]);
    } else {
      // The compact form carries inputs 2 and 3 only, a byte apart.
      PutFlag(r, f.inputs, m.inputs[2]);
      PutFlag(r, f.inputs + 2, m.inputs[3]);
    }
    PutFlag(r, f.footswitch, m.footswitch);
    if (longForm) {
      if (m.w.fitted) PutChannel(r, f.w, m.w);
      if (m.platen.fitted) PutPlaten(r, f.platen, m.platen);
    } else if (m.platen.fitted || m.w.fitted) {
      // One set of bytes serves both: the platen where one is fitted, else W.
      PutPlaten(r, f.w, m.platen.fitted ? m.platen : m.w);
    }
  }
  return 0;
}

std::int8_t FillClearSleep(Board& board, wire::Bytes, wire::MutableBytes) {
  M(board).sleep = false;
  return 0;
}

// 0x57: 1 pendant, 2 FPGA version, 3 analog inputs.
std::int8_t FillBoardData(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Machine& m = M(board);
  const Profile& p = board.profile();
  switch (GetWord(q, 1)) {
    case 1:
      if (!CurrentServo(p)) return kReasonBadArgument;
      // Raw joystick readings around mid-scale of a 12-bit converter, the deflection in
      // percent, and the accelerometer in milli-g (the host shows the word as signed).
      for (std::size_t i = 0; i < 4; ++i) {
        const double deflection = i < 3 ? m.joystick[i] : 0.0;
        const double g = i < 3 ? m.accel[i] : 0.0;
        PutSignedLong(r, 1 + 4 * i,
                      static_cast<std::int32_t>(std::lround(2048 + deflection * 2047)));
        PutSignedLong(r, 17 + 4 * i, static_cast<std::int32_t>(std::lround(deflection * 100)));
        PutWord(r, 33 + 2 * i, static_cast<std::uint16_t>(std::lround(g * 1000 + m.Noise(3))));
      }
      return 0;
    case 2:
      PutWord(r, 1, p.fpgaWord);
      return 0;
    case 3:
      if (Mv(p) && Fw(p) < 2.0199) return kReasonUnknownCommand;
      for (std::size_t i = 0; i < 16; ++i)
        PutWord(r, 1 + 2 * i, AnalogWord(m, Mv(p), i));
      return 0;
    default:
      return kReasonBadArgument;
  }
}

// Sensors 0 to 7 of the board and the W axis's own (channel 16), in hundredths of a degree.
std::int8_t FillTemperature(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Machine& m = M(board);
  const std::uint8_t sensor = GetByte(q, 1);
  double celsius = 0;
  if (sensor == kWChannel) {
    if (!m.w.fitted) return kReasonBadArgument;
    celsius = m.wTemperature;
  } else if (sensor < m.temperatures.size()) {
    celsius = m.temperatures[sensor];
  } else {
    return kReasonBadArgument;
  }
  // A sensor that is not fitted reads 0, which the host shows as no reading.
  const bool fitted = celsius > -100;
  const double reading = fitted ? celsius + m.Noise(0.05) : 0.0;
  PutSignedLong(r, 1, static_cast<std::int32_t>(std::lround(reading * 100)));
  wire::PutReal(r, 5, 0.01f);
  return 0;
}

// ---- fills: axes ----------------------------------------------------------------------------

bool StageAxis(wire::Bytes q) {
  return GetByte(q, 1) < kStageAxes;
}

// Manual-vision boards drive no stage motor: they keep no tuning, definition or rotary encoder
// of the axes 0 to 3, only their linear encoders and index marks.
bool NoMotorRecords(Board& board, wire::Bytes q) {
  return StageAxis(q) && Mv(board.profile());
}

Channel* ChannelOf(Board& board, wire::Bytes q, std::size_t at = 1) {
  Machine& m = M(board);
  const std::uint8_t n = GetByte(q, at);
  if (n == kWChannel && m.w.fitted) return &m.w;
  if (n == kPlatenChannel && m.platen.fitted) return &m.platen;
  return nullptr;
}

// The latched count stays; `captured` says a mark went by since the last look.
std::int8_t FillIndexCapture(Board& board, wire::Bytes q, wire::MutableBytes r) {
  bool* captured = nullptr;
  bool seen = false;
  std::uint32_t count = 0;
  if (StageAxis(q)) {
    Axis& a = M(board).axes[GetByte(q, 1)];
    captured = &a.indexCaptured;
    seen = a.indexSeen;
    count = a.indexCount;
  } else if (Channel* c = ChannelOf(board, q)) {
    captured = &c->indexCaptured;
    seen = c->indexSeen;
    count = c->indexCount;
  } else {
    return kReasonBadArgument;
  }
  // The first servo boards (protocol 0) have no valid flag and leave the byte at 0; a host takes
  // their count as valid regardless.
  const bool hasValidFlag = Mv(board.profile()) || Pv(board.profile()) >= 1;
  PutFlag(r, 1, hasValidFlag && seen);
  PutByte(r, 2, *captured ? 1 : 0);
  PutLong(r, 3, count);
  *captured = false;
  return 0;
}

std::int8_t FillRotaryOrLowerC(Board& board, wire::Bytes q, wire::MutableBytes r) {
  if (NoMotorRecords(board, q)) return kReasonBadArgument;
  if (StageAxis(q)) {
    PutLong(r, 2, M(board).axes[GetByte(q, 1)].RotaryCounts());
    return 0;
  }
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  PutLong(r, 2, c->Counts());
  PutLong(r, 6, static_cast<std::uint32_t>(c->target * c->countsPerMm));
  return 0;
}

std::int8_t FillGetPid(Board& board, wire::Bytes q, wire::MutableBytes r) {
  if (NoMotorRecords(board, q)) return kReasonBadArgument;
  if (StageAxis(q)) {
    const AxisTuning& t = M(board).axes[GetByte(q, 1)].tuning;
    PutWord(r, 2, t.kp);
    PutWord(r, 4, t.ki);
    PutWord(r, 6, t.kd);
    PutWord(r, 8, t.dt);
    PutWord(r, 10, t.kaff);
    PutWord(r, 12, t.kvff);
    PutWord(r, 14, t.kout);
    PutWord(r, 16, static_cast<std::uint16_t>(t.mb));
    PutLong(r, 18, t.il);
    PutLong(r, 22, t.fe);
    return 0;
  }
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  std::copy(c->pid.begin() + 2, c->pid.end(), r.begin() + 2);
  PutByte(r, 1, GetByte(q, 1));
  return 0;
}

std::int8_t FillSetPid(Board& board, wire::Bytes q, wire::MutableBytes) {
  if (NoMotorRecords(board, q)) return kReasonBadArgument;
  // The stage axes take the 26-byte record, the channels the 42-byte one.
  if ((q.size() == 26) != StageAxis(q))
    return IsChannel(GetByte(q, 1)) || StageAxis(q) ? kReasonBadRequest : kReasonBadArgument;
  if (StageAxis(q)) {
    Axis& a = M(board).axes[GetByte(q, 1)];
    a.tuning = {GetWord(q, 2),  GetWord(q, 4),  GetWord(q, 6),  GetWord(q, 8),
                GetWord(q, 10), GetWord(q, 12), GetWord(q, 14), wire::GetSignedWord(q, 16),
                GetLong(q, 18), GetLong(q, 22)};
    // A new record resets the amplifier of an axis that had failed.
    a.failed = false;
    a.stalledFor = 0;
    return 0;
  }
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  std::copy(q.begin(), q.end(), c->pid.begin());
  return 0;
}

std::int8_t FillAxisDefine(Board& board, wire::Bytes q, wire::MutableBytes r) {
  if (NoMotorRecords(board, q)) return kReasonBadArgument;
  if (StageAxis(q)) {
    PutAxisDefine(board, GetByte(q, 1), r);
    return 0;
  }
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  std::copy(c->define.begin() + 2, c->define.end(), r.begin() + 2);
  PutByte(r, 1, GetByte(q, 1));
  return 0;
}

std::int8_t FillSetDefine(Board& board, wire::Bytes q, wire::MutableBytes) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  std::copy(q.begin(), q.end(), c->define.begin());
  return 0;
}

std::int8_t FillGetExtra(Board& board, wire::Bytes, wire::MutableBytes r) {
  Machine& m = M(board);
  if (!m.platen.fitted) return kReasonBadArgument;
  std::copy(m.platen.extra.begin() + 1, m.platen.extra.end(), r.begin() + 1);
  return 0;
}

std::int8_t FillSetExtra(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  if (!m.platen.fitted) return kReasonBadArgument;
  std::copy(q.begin(), q.end(), m.platen.extra.begin());
  return 0;
}

// Extents 1 and 2 are the end switches; 3 and 4, where the limit test expects them, sit a
// millimetre inside. The short form has room for one pair only: the expected places.
std::int8_t FillExtents(Board& board, wire::Bytes, wire::MutableBytes r) {
  const Machine& m = M(board);
  const bool longForm = r.size() == 120;
  for (std::size_t i = 0; i < kStageAxes; ++i) {
    const Axis& a = m.axes[i];
    const auto end = static_cast<std::uint32_t>(std::lround(a.travel * a.countsPerMm));
    const auto inside = static_cast<std::uint32_t>(std::lround(a.countsPerMm));
    PutFlag(r, 1 + i, true);
    PutLong(r, 5 + 4 * i, longForm ? 0 : inside);
    PutLong(r, 21 + 4 * i, longForm ? end : end - inside);
    if (longForm) {
      PutLong(r, 37 + 4 * i, inside);
      PutLong(r, 53 + 4 * i, end - inside);
    }
  }
  return 0;
}

std::int8_t FillPmd(Board& board, wire::Bytes q, wire::MutableBytes r) {
  const std::uint8_t chip = GetByte(q, 2);
  if (chip > (CurrentServo(board.profile()) ? 1 : 0)) return kReasonBadArgument;
  const auto& words = board.profile().chips[chip];
  for (std::size_t i = 0; i < words.size(); ++i)
    PutWord(r, 2 * i, words[i]);
  return 0;
}

std::int8_t FillStatusLight(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  const std::uint8_t selector = GetByte(q, 1);
  if (selector == 0) {
    m.statusLight = GetByte(q, 2);
  } else if (selector == 129 || selector == 130) {
    if (Fw(board.profile()) < 2.249) return kReasonBadArgument;
    const std::size_t at = selector == 129 ? 0 : 2;
    m.ledWords[at] = GetWord(q, 3);
    m.ledWords[at + 1] = GetWord(q, 5);
  } else {
    return kReasonBadArgument;
  }
  return 0;
}

constexpr std::uint16_t kSensitivityMaximum = 1023;

std::int8_t FillSetSensitivity(Board& board, wire::Bytes q, wire::MutableBytes) {
  // Like the slider that sets it, the probe takes anything and stops at its maximum.
  M(board).probeSensitivity = std::min(GetWord(q, 1), kSensitivityMaximum);
  return 0;
}

std::int8_t FillGetSensitivity(Board& board, wire::Bytes, wire::MutableBytes r) {
  PutWord(r, 1, M(board).probeSensitivity);
  return 0;
}

std::int8_t FillSensitivityMax(Board&, wire::Bytes, wire::MutableBytes r) {
  PutWord(r, 1, kSensitivityMaximum);
  return 0;
}

std::int8_t FillNamedRecord(Board& board, wire::Bytes, wire::MutableBytes r) {
  const NamedRecord& n = board.profile().namedRecord;
  PutFlag(r, 1, true);
  wire::PutWideText(r, 2, n.name);
  for (std::size_t i = 0; i < 3; ++i)
    wire::PutReal(r, 34 + 4 * i, n.values[i]);
  PutByte(r, 46, n.byte1);
  PutByte(r, 47, n.byte2);
  return 0;
}

// The same values the machine image's section 4 holds.
std::int8_t FillMachineData(Board&, wire::Bytes, wire::MutableBytes r) {
  PutFlag(r, 1, true);
  wire::PutReal(r, 6, 0.25f);
  PutFlag(r, 10, false);
  PutLong(r, 11, 0x00012345);
  PutLong(r, 15, 0x00067890);
  return 0;
}

// ---- fills: lights, probes, laser, interrupts ---------------------------------------------------

// The one-word form's single maximum is channel 0's, as much of it as a word holds.
std::uint32_t OneWordMaximum(const Machine& m) {
  return std::min<std::uint32_t>(m.LightMaximum(0), 0xFFFF);
}

std::int8_t FillLightMaxOneWord(Board& board, wire::Bytes, wire::MutableBytes r) {
  PutWord(r, 2, static_cast<std::uint16_t>(OneWordMaximum(M(board))));
  return 0;
}

// Behind the first driver a packet carries 21 channels; behind the newer one 42. Byte 2 of the
// request names the packet size the host expects (0: 21, 1: 42).
std::size_t ChannelsPerPacket(const Profile& p) {
  return OldDriver(p) ? 21 : 42;
}

bool PacketSizeAgrees(const Profile& p, wire::Bytes q) {
  return GetByte(q, 2) == (OldDriver(p) ? 0 : 1);
}

std::int8_t FillLightMax(Board& board, wire::Bytes q, wire::MutableBytes r) {
  const Profile& p = board.profile();
  if (!PacketSizeAgrees(p, q)) return kReasonBadArgument;
  const std::size_t first = GetByte(q, 1);
  const std::size_t n = M(board).lights.size();
  if (first > n) return kReasonBadArgument;
  for (std::size_t i = 0; i < ChannelsPerPacket(p) && first + i < n; ++i)
    PutLong(r, 2 + 4 * i, M(board).LightMaximum(first + i));
  return 0;
}

// A channel whose byte is set takes the word; the board's one maximum bounds it.
std::int8_t FillSetLightsOneWord(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  auto& lights = m.lights;
  for (std::size_t i = 0; i < lights.size() && i < 42; ++i) {
    if (GetByte(q, 1 + i) != 0)
      lights[i] = std::min<std::uint32_t>(GetWord(q, 43 + 2 * i), OneWordMaximum(m));
  }
  return 0;
}

std::int8_t FillSetLights(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  auto& lights = m.lights;
  const std::size_t first = GetByte(q, 1);
  if (first > lights.size()) return kReasonBadArgument;
  for (std::size_t i = 0; i < ChannelsPerPacket(board.profile()) && first + i < lights.size(); ++i)
    lights[first + i] = std::min(GetLong(q, 2 + 4 * i), m.LightMaximum(first + i));
  return 0;
}

std::int8_t FillTouchEnable(Board& board, wire::Bytes q, wire::MutableBytes) {
  M(board).probeEnabled = wire::GetFlag(q, 1);
  return 0;
}

// Where the probe tripped (the capture) and where it last let go; fetching it ends the capture.
std::int8_t FillTouchCapture(Board& board, wire::Bytes, wire::MutableBytes r) {
  Machine& m = M(board);
  PutFlag(r, 1, m.touchCapture.pending);
  for (std::size_t i = 0; i < 4; ++i) {
    PutLong(r, 4 + 4 * i, m.touchCapture.position[i]);
    PutLong(r, 20 + 4 * i, m.probeRelease[i]);
  }
  m.touchCapture.pending = false;
  return 0;
}

// Four capture sources, fields from byte 0: 0 the camera's frame trigger, 1 the touch probe; the
// laser (2) and the spare input (3) capture nothing here. A source that is asked for and has a
// capture hands it out once.
std::int8_t FillProbeCapture(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Machine& m = M(board);
  Capture* sources[4] = {&m.videoCapture, &m.touchCapture, nullptr, nullptr};
  for (std::size_t i = 0; i < 4; ++i) {
    Capture* c = sources[i];
    const bool available = GetByte(q, 1 + i) != 0 && c && c->pending;
    PutFlag(r, i, available);
    PutFlag(r, 4 + i, available);
    PutByte(r, 8 + i, GetByte(q, 5 + i));
    if (!available) continue;
    for (std::size_t j = 0; j < 4; ++j)
      PutLong(r, 12 + 16 * i + 4 * j, c->position[j]);
    if (r.size() == 92) PutLong(r, 76 + 4 * i, c->time);
    c->pending = false;
  }
  return 0;
}

std::int8_t FillLaserPoints(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Machine& m = M(board);
  const Profile& p = board.profile();
  if (!m.laserReady || p.version.laserNotReady) return kReasonBadArgument;
  const LaserForm& f = LaserFormOf(p);
  const std::uint16_t asked = std::min<std::uint16_t>(GetByte(q, 1), f.limit);
  const std::uint16_t count = std::min(asked, m.laserPointsReady);
  PutByte(r, 0, static_cast<std::uint8_t>(count));
  const auto pending = static_cast<std::uint16_t>(m.laserPointsReady - count);
  if (f.pendingWord) {
    PutWord(r, 1, pending);
  } else {
    PutByte(r, 1, static_cast<std::uint8_t>(std::min<std::uint16_t>(pending, 255)));
  }
  // The oldest point first, one sample period apart, ending now; the laser reads the stage's
  // position with a few counts of its own scatter.
  const double period =
      std::ldexp(1.0, static_cast<int>(m.laserSettings[kLaserRateWord] % 16)) / 2.5;
  for (std::uint16_t i = 0; i < count; ++i) {
    const auto time = static_cast<std::uint32_t>(
        std::max(0.0, m.Millis() - period * (m.laserPointsReady - 1 - i)));
    std::uint32_t position[3];
    for (std::size_t j = 0; j < 3; ++j)
      position[j] = static_cast<std::uint32_t>(m.axes[j].LinearCounts() +
                                               static_cast<std::int32_t>(std::lround(m.Noise(3))));
    if (f.stride == 0) {
      PutLong(r, f.time + 4 * i, time);
      for (std::size_t j = 0; j < 3; ++j)
        PutLong(r, f.position + 16 * i + 4 * j, position[j]);
      continue;
    }
    const std::size_t at = f.head + f.stride * i;
    // A point taken while the laser interrupt is armed is marked as the interrupt's; one read
    // without it is a polled sample.
    if (f.valid >= 0) PutFlag(r, at + f.valid, m.laserInterrupt);
    PutLong(r, at + f.time, time);
    for (std::size_t j = 0; j < 3; ++j)
      PutLong(r, at + f.position + 4 * j, position[j]);
    if (f.extra >= 0) PutLong(r, at + f.extra, 200 + i);  // the return's intensity
  }
  m.laserPointsReady = pending;
  return 0;
}

// Byte 1 tells the two forms apart: 0 asks for the settings, 1 sets them.
std::int8_t FillGetLaserSettings(Board& board, wire::Bytes, wire::MutableBytes r) {
  Machine& m = M(board);
  if (!m.laserReady) return kReasonBadArgument;
  for (std::size_t i = 0; i < kLaserSettings; ++i)
    PutLong(r, 2 + 4 * i, m.laserSettings[i]);
  return 0;
}

std::int8_t FillSetLaserSettings(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  if (!m.laserReady) return kReasonBadArgument;
  for (std::size_t i = 0; i < kLaserSettings; ++i)
    m.laserSettings[i] = GetLong(q, 2 + 4 * i);
  return 0;
}

std::int8_t FillInterruptByte(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  switch (GetByte(q, 0)) {
    case 0x6A:
      m.videoArmed = m.touchInterrupt = m.laserInterrupt = false;
      break;
    case 0x69:
      m.videoArmed = true;
      break;
    default:
      m.touchInterrupt = true;
      break;
  }
  return 0;
}

std::int8_t FillInterruptPacket(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  if (GetByte(q, 1)) m.videoArmed = m.touchInterrupt = m.laserInterrupt = false;
  if (GetByte(q, 3)) m.videoArmed = true;
  if (GetByte(q, 4)) m.touchInterrupt = true;
  if (GetByte(q, 5)) m.laserInterrupt = true;
  return 0;
}

// ---- fills: the W axis and platen channels ------------------------------------------------------

std::int8_t FillChannelLong(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  PutByte(r, 1, GetByte(q, 1));
  PutLong(r, 2, c->Counts());
  if (r.size() >= 10) PutLong(r, 6, static_cast<std::uint32_t>(c->target * c->countsPerMm));
  return 0;
}

std::int8_t FillChannelFlag(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  PutFlag(r, 2, c->Moving());
  return 0;
}

std::int8_t FillChannelSet(Board& board, wire::Bytes q, wire::MutableBytes) {
  return ChannelOf(board, q) ? 0 : kReasonBadArgument;
}

// 0x4C of 32 bytes moves the platen (byte 2: 1 open, 0 closed); of 31 it is the channel's
// command L, which carries four longs that change nothing here.
std::int8_t FillMovePlaten(Board& board, wire::Bytes q, wire::MutableBytes) {
  Channel* c = ChannelOf(board, q);
  if (!c || c != &M(board).platen) return kReasonBadArgument;
  c->target = GetByte(q, 2) != 0 ? c->travel : 0;
  return 0;
}

// Boards before protocol 2 send no channel with the serial record; they answer for the W axis.
std::int8_t FillGetSerial(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Channel* c = q.size() == 1 ? &M(board).w : ChannelOf(board, q);
  if (!c || !c->fitted) return kReasonBadArgument;
  std::copy_n(c->serial.begin() + 1, r.size() - 1, r.begin() + 1);
  return 0;
}

std::int8_t FillSetSerial(Board& board, wire::Bytes q, wire::MutableBytes) {
  constexpr std::size_t kChannelAt = 108;
  Channel* c = q.size() == 97 ? &M(board).w : ChannelOf(board, q, kChannelAt);
  if (!c || !c->fitted) return kReasonBadArgument;
  // The record keeps the identity's fields only; the short form leaves the later ones zero.
  std::fill(c->serial.begin(), c->serial.end(), 0);
  std::copy_n(q.begin() + 1, std::min(q.size(), kChannelAt) - 1, c->serial.begin() + 1);
  return 0;
}

std::int8_t FillReadU(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  PutLong(r, 2, c->Counts());
  PutLong(r, 6, 0);
  PutLong(r, 10, 100);
  PutLong(r, 14, 3);
  return 0;
}

std::int8_t FillReadQ(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  wire::PutReal(r, 2, static_cast<float>(c->position));
  PutLong(r, 6, c->Counts());
  PutLong(r, 10, 1);
  PutLong(r, 18, 2);
  return 0;
}

std::int8_t FillHash(Board& board, wire::Bytes q, wire::MutableBytes) {
  return ChannelOf(board, q, 2) ? 0 : kReasonBadArgument;
}

// The W EEPROM's description: `present` while a write goes on, `kind` its result.
std::int8_t FillWEepromInfo(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Machine& m = M(board);
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  if (c == &m.platen) {
    PutWord(r, 2, 0);
    return 0;
  }
  PutFlag(r, 1, m.Now() < m.wEeprom.busyUntil);
  PutWord(r, 2, static_cast<std::uint16_t>(m.wEeprom.user.size()));
  PutByte(r, 4, m.wEeprom.kind);
  PutWord(r, 5, static_cast<std::uint16_t>(m.wEeprom.machine.size()));
  PutFlag(r, 7, false);
  return 0;
}

std::vector<std::uint8_t>& WArea(Machine& m, bool machineArea) {
  return machineArea ? m.wEeprom.machine : m.wEeprom.user;
}

// Byte 1 of the current forms is 2 (the W axis's EEPROM) rather than a channel number.
std::int8_t FillWRead(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Machine& m = M(board);
  const bool old = q.size() == 5;
  if (!m.w.fitted) return kReasonBadArgument;
  if (!old && GetByte(q, 1) != 2) return kReasonBadArgument;
  const std::uint32_t address = old ? GetWord(q, 1) : GetWord(q, 3);
  const std::uint32_t length = old ? GetWord(q, 3) : GetWord(q, 5);
  const std::size_t dataAt = old ? 4 : 32;
  auto& area = WArea(m, !old && GetByte(q, 2) != 0);
  std::uint8_t status = kEepromOk;
  if (length > r.size() - dataAt) {
    status = kEepromTooLong;
  } else if (std::uint64_t{address} + length > area.size()) {
    status = kEepromOutOfRange;
  } else {
    std::copy_n(area.begin() + address, length, r.begin() + dataAt);
  }
  PutByte(r, old ? 1 : 2, status);
  return 0;
}

// A page of 32 bytes takes 5 ms to write; `present` of the channel's EEPROM info stays set until
// then, and `kind` holds the result (0 written, 1 out of range or too long).
std::int8_t FillWWrite(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  const bool old = q.size() == 69;
  if (!m.w.fitted) return kReasonBadArgument;
  if (!old && GetByte(q, 1) != 2) return kReasonBadArgument;
  const std::uint32_t address = old ? GetWord(q, 1) : GetWord(q, 3);
  const std::uint32_t length = old ? GetWord(q, 3) : GetWord(q, 5);
  const std::size_t dataAt = old ? 5 : 32;
  auto& area = WArea(m, !old && GetByte(q, 2) != 0);
  // A write that comes while one is under way waits behind it, as the channel's queue does.
  const platform::TimePoint start = std::max(m.Now(), m.wEeprom.busyUntil);
  if (length > q.size() - dataAt || std::uint64_t{address} + length > area.size()) {
    m.wEeprom.kind = 1;
    m.wEeprom.busyUntil = start + std::chrono::milliseconds(1);
    return 0;
  }
  std::copy_n(q.begin() + dataAt, length, area.begin() + address);
  const auto pages = static_cast<int>((address % 32 + length + 31) / 32);
  m.wEeprom.busyUntil = start + std::chrono::milliseconds(5 * std::max(1, pages));
  m.wEeprom.kind = 0;
  return 0;
}

// 0x4D: the channel runs to the position given in counts (the W axis has no other move).
std::int8_t FillCommandM(Board& board, wire::Bytes q, wire::MutableBytes) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  const double mm = static_cast<std::int32_t>(GetLong(q, 2)) / c->countsPerMm;
  c->target = c->travel > 0 ? std::clamp(mm, 0.0, c->travel) : mm;
  return 0;
}

// clang-format off
constexpr CommandForm kMachineCommands[] = {
  {.code = 0x59, .name = "status poll, oldest", .gate = OldestPoll, .request = {16}, .reply = 28, .fill = FillPoll, .fixed = {{{2, 0}}}, .zeroFrom = 3},
  {.code = 0x59, .name = "status poll, long", .gate = LongPoll, .request = {16}, .reply = 221, .fill = FillPoll, .zeroFrom = 3},
  {.code = 0x59, .name = "status poll, compact", .gate = AnyController, .request = {16}, .reply = 62, .fill = FillPoll, .zeroFrom = 3},
  {.code = 0x5A, .name = "clear sleep", .gate = ClearSleepGate, .request = {16}, .reply = kTwoReply, .fill = FillClearSleep, .fixed = {{{1, 1}}}, .zeroFrom = 2},
  {.code = 0x57, .name = "board data", .gate = BoardData, .request = {15}, .reply = 63, .fill = FillBoardData},
  {.code = 0x5D, .name = "temperature", .gate = Temperature, .request = {2}, .reply = 32, .fill = FillTemperature},
  {.code = 0x4E, .name = "index capture", .gate = AnyController, .request = {2}, .reply = 7, .fill = FillIndexCapture},
  {.code = 0x63, .name = "rotary / channel C", .gate = AnyController, .request = {2}, .fill = FillRotaryOrLowerC, .length = RotaryOrLowerC},
  {.code = 0x74, .name = "get tuning", .gate = AnyController, .request = {2}, .fill = FillGetPid, .length = PidLength},
  {.code = 0x73, .name = "set tuning", .gate = AnyController, .request = {26, 42}, .reply = kSetReply, .fill = FillSetPid},
  {.code = 0x62, .name = "get definition", .gate = AnyController, .request = {2}, .fill = FillAxisDefine, .length = DefineLength},
  {.code = 0x61, .name = "set definition", .gate = AnyController, .request = {60}, .reply = kSetReply, .fill = FillSetDefine},
  {.code = 0x68, .name = "get platen extra", .gate = PlatenExtra, .request = {2}, .reply = 32, .fill = FillGetExtra, .fixed = {{{1, 0}}}},
  {.code = 0x48, .name = "set platen extra", .gate = PlatenExtra, .request = {32}, .reply = kTwoReply, .fill = FillSetExtra, .zeroFrom = 15},
  {.code = 0x5E, .name = "axis extents", .gate = Servo, .request = {1}, .fill = FillExtents, .length = ExtentsLength},
  {.code = 0x2C, .name = "motion chip version", .gate = PmdVersion, .request = {16}, .reply = 32, .fill = FillPmd, .fixed = {{{1, 1}}}, .zeroFrom = 3},
  {.code = 0x55, .name = "status light", .gate = StatusLight, .request = {16}, .reply = kSetReply, .fill = FillStatusLight, .zeroFrom = 7},
  {.code = 0x77, .name = "set sensitivity", .gate = Servo, .request = {3}, .reply = kSetReply, .fill = FillSetSensitivity},
  {.code = 0x78, .name = "get sensitivity", .gate = Servo, .request = {1}, .reply = 3, .fill = FillGetSensitivity},
  {.code = 0x79, .name = "sensitivity maximum", .gate = Servo, .request = {1}, .reply = 3, .fill = FillSensitivityMax},
  {.code = 0x72, .name = "named record", .gate = NamedRecordGate, .request = {1}, .reply = 65, .fill = FillNamedRecord},
  {.code = 0x31, .name = "machine data", .gate = MachineDataGate, .request = {1}, .reply = 32, .fill = FillMachineData},
  {.code = 0x70, .name = "light maxima", .gate = OneWordLights, .request = {2}, .reply = 4, .fill = FillLightMaxOneWord, .fixed = {{{1, 0}}}},
  {.code = 0x70, .name = "light maxima", .gate = PacketLightsOldDriver, .request = {16}, .reply = 86, .fill = FillLightMax, .fixed = {{{2, 0}}}, .zeroFrom = 3},
  {.code = 0x70, .name = "light maxima", .gate = PacketLightsNewDriver, .request = {16}, .reply = 254, .fill = FillLightMax, .fixed = {{{2, 1}}}, .zeroFrom = 3},
  {.code = 0x6E, .name = "set lights", .gate = OneWordLights, .request = {127}, .reply = kSetReply, .fill = FillSetLightsOneWord},
  {.code = 0x6E, .name = "set lights", .gate = PacketLightsOldDriver, .request = {86}, .reply = kTwoReply, .fill = FillSetLights},
  {.code = 0x6E, .name = "set lights", .gate = PacketLightsNewDriver, .request = {254}, .reply = kTwoReply, .fill = FillSetLights},
  {.code = 0x32, .name = "touch probe enable", .gate = TouchProbe, .request = {16}, .reply = kSetReply, .fill = FillTouchEnable, .zeroFrom = 2},
  {.code = 0x36, .name = "touch probe capture", .gate = TouchProbe, .request = {1}, .reply = 62, .fill = FillTouchCapture},
  {.code = 0x6B, .name = "probe capture", .gate = AnyController, .request = {9}, .fill = FillProbeCapture, .length = ProbeCaptureLength, .pipe = Pipe::kCapture},
  {.code = 0x5F, .name = "laser points", .gate = LaserPoints, .request = {16}, .fill = FillLaserPoints, .length = LaserPointsLength, .pipe = Pipe::kCapture, .zeroFrom = 2},
  {.code = 0x2A, .name = "get laser settings", .gate = LaserSettings, .request = {2}, .reply = 126, .fill = FillGetLaserSettings, .fixed = {{{1, 0}}}},
  {.code = 0x2A, .name = "set laser settings", .gate = LaserSettings, .request = {126}, .reply = kSetReply, .fill = FillSetLaserSettings, .fixed = {{{1, 1}}}},
  {.code = 0x6A, .name = "disable interrupts", .gate = OneByteInterrupts, .request = {1}, .reply = kSetReply, .fill = FillInterruptByte},
  {.code = 0x64, .name = "touch interrupt", .gate = OneByteInterrupts, .request = {1}, .reply = kSetReply, .fill = FillInterruptByte},
  {.code = 0x69, .name = "video interrupt", .gate = OneByteInterrupts, .request = {1}, .reply = kSetReply, .fill = FillInterruptByte},
  {.code = 0x69, .name = "interrupts", .gate = InterruptPacket, .request = {16}, .reply = kTwoReply, .fill = FillInterruptPacket, .zeroFrom = 6},
  {.code = 0x41, .name = "channel A", .gate = AnyController, .request = {2}, .reply = 6, .fill = FillChannelLong},
  {.code = 0x42, .name = "channel B", .gate = AnyController, .request = {2}, .reply = 6, .fill = FillChannelLong},
  {.code = 0x43, .name = "channel position", .gate = AnyController, .request = {2}, .reply = 10, .fill = FillChannelLong},
  {.code = 0x44, .name = "channel D", .gate = AnyController, .request = {2}, .reply = 3, .fill = FillChannelFlag},
  {.code = 0x4A, .name = "channel J", .gate = AnyController, .request = {2}, .reply = 16, .fill = FillChannelLong},
  {.code = 0x4C, .name = "channel L", .gate = AnyController, .request = {31}, .reply = kSetReply, .fill = FillChannelSet},
  {.code = 0x4C, .name = "move platen", .gate = AnyController, .request = {32}, .reply = kSetReply, .fill = FillMovePlaten, .zeroFrom = 3},
  {.code = 0x4D, .name = "channel M", .gate = AnyController, .request = {6}, .reply = kSetReply, .fill = FillCommandM},
  {.code = 0x7A, .name = "channel Z", .gate = AnyController, .request = {2}, .reply = kSetReply, .fill = FillChannelSet},
  {.code = 0x4F, .name = "channel O", .gate = AnyController, .request = {3}, .reply = kSetReply, .fill = FillChannelSet},
  {.code = 0x7D, .name = "channel serial", .gate = SerialShort, .request = {1}, .reply = 97, .fill = FillGetSerial},
  {.code = 0x7D, .name = "channel serial", .gate = SerialLong, .request = {16}, .reply = 126, .fill = FillGetSerial, .zeroFrom = 2},
  {.code = 0x7B, .name = "set channel serial", .gate = SerialShort, .request = {97}, .reply = kSetReply, .fill = FillSetSerial},
  {.code = 0x7B, .name = "set channel serial", .gate = SerialLong, .request = {126}, .reply = kSetReply, .fill = FillSetSerial},
  {.code = 0x75, .name = "channel U", .gate = AnyController, .request = {2}, .reply = 18, .fill = FillReadU},
  {.code = 0x71, .name = "channel Q", .gate = ReadQGate, .request = {2}, .reply = 32, .fill = FillReadQ},
  {.code = 0x23, .name = "channel hash", .gate = HashGate, .request = {16}, .reply = kTwoReply, .fill = FillHash, .fixed = {{{1, 0}}}, .zeroFrom = 3},
  {.code = 0x65, .name = "W EEPROM info", .gate = WEepromGate, .request = {32}, .reply = 18, .fill = FillWEepromInfo, .zeroFrom = 2},
  {.code = 0x66, .name = "W EEPROM read", .gate = WEepromOld, .request = {5}, .reply = 68, .fill = FillWRead},
  {.code = 0x66, .name = "W EEPROM read", .gate = WEepromNew, .request = {32}, .reply = 96, .fill = FillWRead, .fixed = {{{1, 2}}}, .zeroFrom = 7},
  {.code = 0x67, .name = "W EEPROM write", .gate = WEepromOld, .request = {69}, .reply = kSetReply, .fill = FillWWrite},
  {.code = 0x67, .name = "W EEPROM write", .gate = WEepromNew, .request = {96}, .reply = kTwoReply, .fill = FillWWrite, .fixed = {{{1, 2}}}},
};
// clang-format on

}  // namespace

std::span<const CommandForm> MachineCommandTable() {
  return kMachineCommands;
}

}  // namespace sim
