// The gates of the machine's forms, the reply lengths that depend on the request, and the axis or
// channel a request names.
#include <algorithm>

#include "sim/MachineForms.h"

namespace sim::forms {

bool OldDriver(const Profile& p) {
  const auto third = static_cast<std::int8_t>((p.driverWord >> 16) & 0xFF);
  return third < 3 && (p.driverWord >> 24) < 2;
}

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

namespace {

constexpr LaserForm kLaserPacked = {.limit = 6,
                                    .head = 0,
                                    .stride = 0,
                                    .valid = -1,
                                    .time = 7,
                                    .position = 31,
                                    .extra = -1,
                                    .pendingWord = false};
constexpr LaserForm kLaser20 = {.limit = 30,
                                .head = 1,
                                .stride = 20,
                                .valid = -1,
                                .time = 2,
                                .position = 6,
                                .extra = -1,
                                .pendingWord = true};
constexpr LaserForm kLaser21 = {.limit = 30,
                                .head = 3,
                                .stride = 21,
                                .valid = 0,
                                .time = 5,
                                .position = 9,
                                .extra = 1,
                                .pendingWord = true};
constexpr LaserForm kLaser17 = {.limit = 30,
                                .head = 3,
                                .stride = 17,
                                .valid = 0,
                                .time = 1,
                                .position = 5,
                                .extra = -1,
                                .pendingWord = true};

}  // namespace

const LaserForm& LaserFormOf(const Profile& p) {
  if (Mv(p)) return Pv(p) >= 5 ? kLaser21 : kLaser17;
  if (Fw(p) < 1.819) return kLaserPacked;
  if (Fw(p) < 1.839) return kLaser20;
  return CurrentServo(p) ? kLaser21 : kLaser17;
}

std::uint16_t LaserPointsLength(const Profile& p, wire::Bytes q) {
  const LaserForm& f = LaserFormOf(p);
  if (f.stride == 0) return 127;
  const std::uint16_t asked = std::min<std::uint16_t>(GetByte(q, 1), f.limit);
  return static_cast<std::uint16_t>(f.head + f.stride * asked);
}

// ---- what a request names -----------------------------------------------------------------------

bool StageAxis(wire::Bytes q) {
  return GetByte(q, 1) < kStageAxes;
}

bool NoMotorRecords(Board& board, wire::Bytes q) {
  return StageAxis(q) && Mv(board.profile());
}

Channel* ChannelOf(Board& board, wire::Bytes q, std::size_t at) {
  Machine& m = M(board);
  const std::uint8_t n = GetByte(q, at);
  if (n == kWChannel && m.w.fitted) return &m.w;
  if (n == kPlatenChannel && m.platen.fitted) return &m.platen;
  return nullptr;
}

}  // namespace sim::forms
