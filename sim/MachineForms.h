// What the machine's command families share: what a board is (its firmware, protocol and kind),
// the gates of their forms, the reply lengths that depend on the request, and the axis or channel
// a request names. Each family keeps its fill routines and its rows of forms in a file of its own:
// StatusCommands (status poll and board data), AxisCommands (the stage axes' records),
// LightProbeLaserCommands (lights, probes, laser, interrupts) and ChannelCommands (the W axis and
// the platen). A form is gated on what the board's generation speaks, so a host that sends the
// wrong form is refused or gets a reply of another length.
#pragma once

#include <cstdint>
#include <span>

#include "sim/Commands.h"
#include "sim/Machine.h"

namespace sim::forms {

using wire::GetByte;
using wire::GetLong;
using wire::GetWord;
using wire::PutByte;
using wire::PutFlag;
using wire::PutLong;
using wire::PutSignedLong;
using wire::PutWord;

inline constexpr std::uint8_t kWChannel = 16;
inline constexpr std::uint8_t kPlatenChannel = 17;
inline constexpr std::uint16_t kTwoReply = 2;  // set commands that answer two bytes on every board

// ---- what a board is ----------------------------------------------------------------------------

inline double Fw(const Profile& p) {
  return static_cast<double>(p.version.firmwareVersion);
}
inline std::uint16_t Pv(const Profile& p) {
  return p.version.protocolVersion;
}
inline bool Mv(const Profile& p) {
  return p.version.isManualVision;
}
inline bool CurrentServo(const Profile& p) {
  return IsCurrentServo(p);
}
inline bool Controller(const Profile& p) {
  return p.version.isServo || p.version.isManualVision;
}
inline bool LaserFitted(const Profile& p) {
  return p.version.laserType > 0;
}
// The first driver: the third byte of its word, signed, below 3 and the fourth below 2.
bool OldDriver(const Profile& p);

// ---- gates (MachineGates.cpp) -------------------------------------------------------------------

bool Servo(const Profile& p);
bool AnyController(const Profile& p);
bool BoardData(const Profile& p);
bool OldestPoll(const Profile& p);
bool LongPoll(const Profile& p);
bool Temperature(const Profile& p);
bool OneWordLights(const Profile& p);
bool PacketLights(const Profile& p);
bool PacketLightsOldDriver(const Profile& p);
bool PacketLightsNewDriver(const Profile& p);
bool TouchProbe(const Profile& p);
bool LaserPoints(const Profile& p);
bool LaserSettings(const Profile& p);
bool OneByteInterrupts(const Profile& p);
bool InterruptPacket(const Profile& p);
bool ClearSleepGate(const Profile& p);
bool StatusLight(const Profile& p);
bool PmdVersion(const Profile& p);
bool NamedRecordGate(const Profile& p);
bool MachineDataGate(const Profile& p);
bool PlatenExtra(const Profile& p);
bool SerialShort(const Profile& p);
bool SerialLong(const Profile& p);
bool ReadQGate(const Profile& p);
bool HashGate(const Profile& p);
bool WEepromGate(const Profile& p);
bool WEepromOld(const Profile& p);
bool WEepromNew(const Profile& p);

// ---- reply lengths that depend on the request (MachineGates.cpp) --------------------------------

bool IsChannel(std::uint8_t n);
std::uint16_t RotaryOrLowerC(const Profile& p, wire::Bytes q);
std::uint16_t PidLength(const Profile& p, wire::Bytes q);
std::uint16_t DefineLength(const Profile& p, wire::Bytes q);
std::uint16_t ExtentsLength(const Profile& p, wire::Bytes q);
std::uint16_t ProbeCaptureLength(const Profile& p, wire::Bytes q);
std::uint16_t LaserPointsLength(const Profile& p, wire::Bytes q);

// A form of the laser points: the most it hands out at once, the bytes before the first point and
// per point (0: the packed form), and where in a point its fields lie (-1: the form has none).
struct LaserForm {
  std::uint16_t limit;
  std::uint16_t head;
  std::uint16_t stride;
  int valid;
  int time;
  int position;
  int extra;
  bool pendingWord;  // the points still waiting are a word at 1, else a byte
};
const LaserForm& LaserFormOf(const Profile& p);

// ---- what a request names (MachineGates.cpp) ----------------------------------------------------

inline Machine& M(Board& b) {
  return b.machine();
}
// Byte 1 names one of the stage axes 0 to 3.
bool StageAxis(wire::Bytes q);
// Manual-vision boards drive no stage motor: they keep no tuning, definition or rotary encoder
// of the axes 0 to 3, only their linear encoders and index marks.
bool NoMotorRecords(Board& board, wire::Bytes q);
// The W axis's or the platen's channel named at byte `at`, when it is fitted; else null.
Channel* ChannelOf(Board& board, wire::Bytes q, std::size_t at = 1);

}  // namespace sim::forms
