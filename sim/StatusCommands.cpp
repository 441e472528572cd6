// The status family: the status poll in its three forms, clear sleep, the board data (pendant,
// FPGA, analog inputs), the temperatures and the status light.
#include <algorithm>
#include <cmath>

#include "sim/MachineForms.h"

namespace sim::forms {

namespace {

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
// Where each form of the poll puts its fields (-1: the form has none); arrays of four are the
// stage axes from that byte on.
struct PollPlace {
  int sleep = -1;
  int moving = -1;
  int limit = -1;
  int settled = -1;
  int stalled = -1;
  int failed = -1;
  int linear = -1;
  int inputs = -1;
  int footswitch = -1;
  int w = -1;
  int platen = -1;
};
constexpr PollPlace kOldestPlace = {
    .moving = 8, .limit = 12, .settled = 16, .stalled = 20, .failed = 24};
constexpr PollPlace kCompactPlace = {.moving = 8,
                                     .limit = 12,
                                     .settled = 16,
                                     .stalled = 20,
                                     .failed = 24,
                                     .linear = 46,
                                     .inputs = 28,
                                     .footswitch = 32,
                                     .w = 34,
                                     .platen = 34};
constexpr PollPlace kLongPlace = {.sleep = 7,
                                  .moving = 23,
                                  .limit = 27,
                                  .settled = 31,
                                  .stalled = 35,
                                  .failed = 39,
                                  .linear = 59,
                                  .inputs = 75,
                                  .footswitch = 107,
                                  .w = 127,
                                  .platen = 163};

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
    PutFlag(r, 5, m.ProbeTripped());
  }
  // Firmware before 1.119 had no failure detection; the manual-vision boards always had it.
  const bool reportsFailure = Mv(board.profile()) || Fw(board.profile()) >= 1.119;
  if (f.sleep >= 0) PutFlag(r, f.sleep, m.sleep);
  for (std::size_t i = 0; i < kStageAxes; ++i) {
    const Axis& a = m.axes[i];
    PutFlag(r, f.moving + i, a.Moving());
    PutByte(r, f.limit + i, static_cast<std::uint8_t>(m.LimitReading(i)));
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

// clang-format off
constexpr CommandForm kForms[] = {
  {.code = 0x59, .name = "status poll, oldest", .gate = OldestPoll, .request = {16}, .reply = 28, .fill = FillPoll, .fixed = {{{.at = 2, .value = 0}}}, .zeroFrom = 3},
  {.code = 0x59, .name = "status poll, long", .gate = LongPoll, .request = {16}, .reply = 221, .fill = FillPoll, .zeroFrom = 3},
  {.code = 0x59, .name = "status poll, compact", .gate = AnyController, .request = {16}, .reply = 62, .fill = FillPoll, .zeroFrom = 3},
  {.code = 0x5A, .name = "clear sleep", .gate = ClearSleepGate, .request = {16}, .reply = kTwoReply, .fill = FillClearSleep, .fixed = {{{.at = 1, .value = 1}}}, .zeroFrom = 2},
  {.code = 0x57, .name = "board data", .gate = BoardData, .request = {15}, .reply = 63, .fill = FillBoardData},
  {.code = 0x5D, .name = "temperature", .gate = Temperature, .request = {2}, .reply = 32, .fill = FillTemperature},
  {.code = 0x55, .name = "status light", .gate = StatusLight, .request = {16}, .reply = kSetReply, .fill = FillStatusLight, .zeroFrom = 7},
};
// clang-format on

}  // namespace

}  // namespace sim::forms

namespace sim {

std::span<const CommandForm> StatusCommandTable() {
  return forms::kForms;
}

}  // namespace sim
