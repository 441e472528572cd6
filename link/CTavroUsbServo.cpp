#include "link/CTavroUsbServo.h"

#include <algorithm>

#include "util/Text.h"

namespace {

using wire::GetFlag;
using wire::GetLong;
using wire::GetWord;

// ---- axis commands: code, axis.
constexpr std::uint8_t kRotaryCode = 0x63;
constexpr std::uint32_t kRotaryReply = 6;
constexpr std::uint8_t kGetAxisPidCode = 0x74;
constexpr std::uint8_t kSetAxisPidCode = 0x73;
constexpr std::uint32_t kAxisPidBytes = 26;
constexpr std::uint8_t kSyncCode = 0x3A;

// The tuning record's words on the wire, in wire order, then the two longs.
struct PidWord {
  std::size_t at;
  std::uint16_t AxisPid::*field;
};
constexpr PidWord kAxisPidWords[] = {
    {2, &AxisPid::Kp},    {4, &AxisPid::Ki},    {6, &AxisPid::Kd},   {8, &AxisPid::Dt},
    {10, &AxisPid::Kaff}, {12, &AxisPid::Kvff}, {14, &AxisPid::Kout}};
constexpr std::size_t kAxisPidMbAt = 16;
constexpr std::size_t kAxisPidIlAt = 18;
constexpr std::size_t kAxisPidFeAt = 22;
static_assert(kAxisPidFeAt + 4 == kAxisPidBytes);

// ---- machine status and board data.
constexpr std::uint8_t kClearSleepCode = 0x5A;
constexpr std::uint8_t kExtentsCode = 0x5E;
constexpr std::uint8_t kPmdVersionCode = 0x2C;
constexpr std::uint32_t kPmdVersionReply = 32;
constexpr std::uint8_t kBoardDataCode = 0x57;
constexpr std::uint16_t kSelectPendant = 1;
constexpr std::uint8_t kStatusLightCode = 0x55;

// ---- probe sensitivity.
constexpr std::uint8_t kSetSensitivityCode = 0x77;
constexpr std::uint8_t kGetSensitivityCode = 0x78;
constexpr std::uint8_t kGetSensitivityMaxCode = 0x79;

}  // namespace

CTavroUsbServo::CTavroUsbServo(const CTavroUsb& link)
    : CTavroUsbController(link, Dialect::Servo),
      WAxisBridge(static_cast<CTavroUsbController&>(*this)),
      PlatenBridge(static_cast<CTavroUsbController&>(*this)) {
  if (!IsOpen()) return;
  LearnMachineKind();
  WAxisBridge::GetEepromInfo(WEepromInfo);
}

int CTavroUsbServo::Open(bool showErrors, bool skipVersion) {
  const int result = CTavroUsb::Open(showErrors, skipVersion);
  if (result != 0) return result;
  LearnMachineKind();
  WAxisBridge::GetEepromInfo(WEepromInfo);
  return 0;
}

void CTavroUsbServo::LearnMachineKind() {
  if (text::EqualsNoCase(versionInfo.firmwareName, "Auto Vision")) {
    machineKind = MachineKind::AutoVision;
  } else if (text::EqualsNoCase(versionInfo.firmwareName, "Servo")) {
    machineKind = MachineKind::Servo;
  }
}

// ---- axes ------------------------------------------------------------------------------------

bool CTavroUsbServo::GetRotaryPosition(std::uint16_t axis, std::uint32_t& count) {
  if (axis >= kAxisCount) return false;
  ReplyBuffer reply(kRotaryReply);
  if (!Send(Packet(kRotaryCode, 2).Byte(1, static_cast<std::uint8_t>(axis)), reply)) return false;
  count = GetLong(reply.Bytes(), 2);
  return true;
}

bool CTavroUsbServo::GetAxisPid(std::uint16_t axis, AxisPid& out) {
  if (axis >= kAxisCount) return false;
  ReplyBuffer reply(kAxisPidBytes);
  if (!Send(Packet(kGetAxisPidCode, 2).Byte(1, static_cast<std::uint8_t>(axis)), reply)) {
    return false;
  }
  const wire::Bytes r = reply.Bytes();
  for (const PidWord& w : kAxisPidWords)
    out.*w.field = GetWord(r, w.at);
  out.Mb = wire::GetSignedWord(r, kAxisPidMbAt);
  out.Il = GetLong(r, kAxisPidIlAt);
  out.Fe = GetLong(r, kAxisPidFeAt);
  return true;
}

bool CTavroUsbServo::SetAxisPid(std::uint16_t axis, const AxisPid& in) {
  if (axis >= kAxisCount) return false;
  Packet request(kSetAxisPidCode, kAxisPidBytes);
  request.Byte(1, static_cast<std::uint8_t>(axis));
  for (const PidWord& w : kAxisPidWords)
    request.Word(w.at, in.*w.field);
  request.Word(kAxisPidMbAt, static_cast<std::uint16_t>(in.Mb))
      .Long(kAxisPidIlAt, in.Il)
      .Long(kAxisPidFeAt, in.Fe);
  return SendSet(request);
}

bool CTavroUsbServo::SyncAxis(std::uint16_t axis) {
  if (axis >= kAxisCount) return false;
  if (!generation::SyncsAxes(versionInfo)) return true;
  return SendSet(Packet(kSyncCode, 2).Byte(1, static_cast<std::uint8_t>(axis)));
}

// ---- machine status and board data -------------------------------------------------------------

bool CTavroUsbServo::ClearSleep() {
  if (!generation::ClearsSleep(versionInfo, machineKind)) return true;
  return SendSet(Packet(kClearSleepCode, 16).Byte(1, 1), true);
}

bool CTavroUsbServo::GetAxisExtents(AxisExtents& out) {
  const bool twoArrays = !generation::ReportsFourExtents(versionInfo);
  ReplyBuffer reply(twoArrays ? 37 : 120);
  if (!Send(Packet(kExtentsCode, 1), reply)) return false;
  const wire::Bytes r = reply.Bytes();
  for (std::size_t axis = 0; axis < kAxisCount; ++axis) {
    out.Valid[axis] = GetFlag(r, 1 + axis);
    if (!out.Valid[axis]) continue;
    out.Extent1[axis] = GetLong(r, 5 + 4 * axis);
    out.Extent2[axis] = GetLong(r, 21 + 4 * axis);
    // Boards that report two extents repeat them as the other two.
    out.Extent3[axis] = twoArrays ? out.Extent1[axis] : GetLong(r, 37 + 4 * axis);
    out.Extent4[axis] = twoArrays ? out.Extent2[axis] : GetLong(r, 53 + 4 * axis);
  }
  return true;
}

bool CTavroUsbServo::GetPmdVersion(PmdVersion& out, std::uint32_t chip) {
  if (!generation::AnswersPmdVersion(versionInfo, machineKind, chip)) {
    out = PmdVersion{};
    return true;
  }
  ReplyBuffer reply(kPmdVersionReply);
  if (!Send(Packet(kPmdVersionCode, 16).Byte(1, 1).Byte(2, static_cast<std::uint8_t>(chip)),
            reply)) {
    return false;
  }
  // Seven words from byte 0, with no leading byte: a family of 0x3Fxx reads as a refusal.
  const wire::Bytes r = reply.Bytes();
  out = {GetWord(r, 0), GetWord(r, 2),  GetWord(r, 4), GetWord(r, 6),
         GetWord(r, 8), GetWord(r, 10), GetWord(r, 12)};
  return true;
}

bool CTavroUsbServo::GetPendant(PendantState& out) {
  if (!generation::HasBoardDataCommand(versionInfo, machineKind)) {
    out = PendantState{};
    return true;
  }
  ReplyBuffer reply(63);
  if (!Send(Packet(kBoardDataCode, 15).Word(1, kSelectPendant), reply)) return false;
  const wire::Bytes r = reply.Bytes();
  for (std::size_t i = 0; i < 4; ++i) {
    out.PendantRead[i] = wire::GetSignedLong(r, 1 + 4 * i);
    out.PendantPos[i] = wire::GetSignedLong(r, 17 + 4 * i);
    out.Accelerometer[i] = GetWord(r, 33 + 2 * i);
  }
  return true;
}

bool CTavroUsbServo::SetStatusLight(std::uint8_t colour) {
  if (!generation::HasStatusLight(versionInfo, machineKind)) return true;
  return SendSet(Packet(kStatusLightCode, 16).Byte(1, 0).Byte(2, colour));
}

bool CTavroUsbServo::SetLedWords(std::uint32_t which, std::uint16_t a, std::uint16_t b) {
  if (!generation::HasLedWords(versionInfo, machineKind) || which > 1) return true;
  const std::uint8_t selector = which == 0 ? 129 : 130;
  return SendSet(Packet(kStatusLightCode, 16).Byte(1, selector).Word(3, a).Word(5, b));
}

// ---- probe sensitivity -------------------------------------------------------------------------

bool CTavroUsbServo::SetTouchProbeSensitivity(std::uint16_t value) {
  return SendSet(Packet(kSetSensitivityCode, 3).Word(1, value));
}

bool CTavroUsbServo::GetTouchProbeSensitivity(std::uint16_t& out) {
  ReplyBuffer reply(3);
  if (!Send(Packet(kGetSensitivityCode, 1), reply)) return false;
  out = GetWord(reply.Bytes(), 1);
  return true;
}

bool CTavroUsbServo::GetTouchProbeSensitivityMax(std::uint16_t& out) {
  ReplyBuffer reply(3);
  if (!Send(Packet(kGetSensitivityMaxCode, 1), reply)) return false;
  out = GetWord(reply.Bytes(), 1);
  return true;
}
