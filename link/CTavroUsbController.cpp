// The operations both controllers have. Each command with several forms has a chooser that reads
// like the table of its forms; the dialect enters only there.
#include "link/CTavroUsbController.h"

#include <algorithm>
#include <cstring>

#include "util/Text.h"

Packet::Packet(std::uint8_t code, std::uint32_t length)
    : length_(std::min<std::uint32_t>(length, usb::kNormalCommandLimit)) {
  data_[0] = code;
}

Packet& Packet::Text(std::size_t at, const std::string& utf8) {
  wire::PutWideText(Bytes(), at, text::ToUtf16(utf8));
  return *this;
}

namespace {

using wire::GetByte;
using wire::GetFlag;
using wire::GetLong;
using wire::GetWord;

// ---- 0x57 board data, selected by the word at 1: 15-byte request, 63-byte reply.
constexpr std::uint8_t kBoardDataCode = 0x57;
constexpr std::uint32_t kBoardDataRequest = 15;
constexpr std::uint32_t kBoardDataReply = 63;
constexpr std::uint16_t kSelectFpga = 2;
constexpr std::uint16_t kSelectAnalog = 3;

// ---- 0x5D temperature: 2-byte request, 32-byte reply, raw long at 1, scale real at 5.
constexpr std::uint8_t kTemperatureCode = 0x5D;
constexpr std::uint32_t kTemperatureReply = 32;

// ---- 0x4E index capture: 7 bytes; valid at 1, captured at 2, count at 3.
constexpr std::uint8_t kIndexCaptureCode = 0x4E;
constexpr std::uint32_t kIndexCaptureReply = 7;

// ---- 0x70 / 0x6E lights.
constexpr std::uint8_t kLightMaxCode = 0x70;
constexpr std::uint8_t kLightSetCode = 0x6E;

struct LightPackets {
  std::uint32_t perPacket;   // channels one packet carries
  std::uint32_t getReply;    // reply of the read
  std::uint32_t setRequest;  // request of the write
  std::uint8_t getByte2;     // byte 2 of the read's request
};

constexpr LightPackets kOldDriverLights = {21, 86, 86, 0};
constexpr LightPackets kNewDriverLights = {42, 254, 254, 1};
// The one-word form: one maximum for all channels; the write flags at most 42 channels.
constexpr std::uint32_t kOneWordGetReply = 4;
constexpr std::uint32_t kOneWordSetRequest = 127;
constexpr std::uint32_t kOneWordMaxChannels = 42;

// Whether the packet from channel `first` goes out for `n` channels. A split form has two
// packets: the first always goes, the second only for channels left over. A board that reports
// more channels than the two carry gets its first ones and no third packet.
constexpr bool LightPacketDue(const LightPackets& p, std::uint32_t first, std::uint32_t n) {
  return first == 0 || (first == p.perPacket && first < n);
}

// ---- 0x32 touch probe enable, 0x36 touch probe capture (62 bytes: longs from 4 and 20).
constexpr std::uint8_t kTouchEnableCode = 0x32;
constexpr std::uint8_t kTouchCaptureCode = 0x36;
constexpr std::uint32_t kTouchCaptureReply = 62;

// ---- 0x6B probe capture: 9-byte request; 92 or 76 bytes from byte 0.
constexpr std::uint8_t kProbeCaptureCode = 0x6B;
constexpr std::uint32_t kProbeCaptureLong = 92;
constexpr std::uint32_t kProbeCaptureShort = 76;

// ---- 0x5F laser points: 16-byte request with the count at 1; four forms.
constexpr std::uint8_t kLaserPointsCode = 0x5F;

struct LaserLayout {
  std::uint16_t limit;      // most points one request may ask for
  std::uint32_t stride;     // bytes per point; 0 for the fixed layout of form A
  std::uint32_t head;       // bytes before the first point
  int valid = -1;           // offset of the Valid flag in a point, -1: always true
  int time;                 // offset of Time in a point
  int position;             // offset of Position[0] in a point
  int extra = -1;           // offset of Extra in a point, -1: 0
  bool pendingWord = true;  // Pending is the word at 1, else the byte at 1
};

// Form A packs the fields by kind: six times at 7, then six positions of 16 bytes at 31.
constexpr LaserLayout kLaserA = {
    .limit = 6, .stride = 0, .head = 0, .time = 7, .position = 31, .pendingWord = false};
constexpr LaserLayout kLaserB = {.limit = 30, .stride = 20, .head = 1, .time = 2, .position = 6};
constexpr LaserLayout kLaserC = {
    .limit = 30, .stride = 21, .head = 3, .valid = 0, .time = 5, .position = 9, .extra = 1};
constexpr LaserLayout kLaserD = {
    .limit = 30, .stride = 17, .head = 3, .valid = 0, .time = 1, .position = 5};
constexpr std::uint32_t kLaserAReply = 127;

// nullptr: the board has no laser points command.
const LaserLayout* ChooseLaserLayout(bool manualVision, const BoardVersionInfo& v,
                                     MachineKind kind) {
  using generation::LaserPointForm;
  LaserPointForm form = generation::ServoLaserPointForm(v, kind);
  // Manual-vision boards have the command whatever their firmware, in form C or D.
  if (manualVision) {
    form = generation::ManualVisionHasLongForms(v) ? LaserPointForm::C : LaserPointForm::D;
  }
  switch (form) {
    case LaserPointForm::A:
      return &kLaserA;
    case LaserPointForm::B:
      return &kLaserB;
    case LaserPointForm::C:
      return &kLaserC;
    case LaserPointForm::D:
      return &kLaserD;
    case LaserPointForm::None:
      break;
  }
  return nullptr;
}

// ---- 0x2A laser settings: 21 longs from 2 in a 126-byte reply (and request).
constexpr std::uint8_t kLaserSettingsCode = 0x2A;
constexpr std::uint32_t kLaserSettingsBytes = 126;

// ---- interrupts: one-byte codes of old firmware, or one 16-byte 0x69 with a flag byte.
constexpr std::uint8_t kInterruptCode = 0x69;

bool LaserReady(const BoardVersionInfo& v) {
  return v.laserType > 0 && !v.laserNotReady;
}

// Manual-vision boards have the laser settings whatever their firmware.
bool LaserSettingsAnswered(bool manualVision, const BoardVersionInfo& v) {
  return LaserReady(v) && (manualVision || generation::HasLaserSettings(v));
}

enum class LightForm : std::uint8_t { OneWord, OldDriver, NewDriver };

LightForm ChooseLightForm(bool manualVision, const BoardVersionInfo& v, std::uint32_t driverWord) {
  // Manual-vision boards never had the one-word form.
  if (!manualVision && generation::HasOneWordLightForm(v)) return LightForm::OneWord;
  return generation::IsOldDriver(driverWord) ? LightForm::OldDriver : LightForm::NewDriver;
}

}  // namespace

CTavroUsbController::CTavroUsbController(const CTavroUsb& link, Dialect d)
    : CTavroUsb(link), dialect(d) {
  if (IsOpen() && !CheckFirmware(true)) Close();
  WEepromInfo = EepromInfo{};
}

bool CTavroUsbController::Send(const Packet& request, ReplyBuffer& reply) {
  return SendNormalCommand(request.data(), request.size(), reply.data(), reply.size());
}

bool CTavroUsbController::SendCapture(const Packet& request, ReplyBuffer& reply) {
  return GetCapturePosition(request.data(), request.size(), reply.data(), reply.size());
}

bool CTavroUsbController::SendSet(const Packet& request, bool twoAlways) {
  ReplyBuffer reply(twoAlways || generation::AnswersSetCommands(versionInfo) ? 2 : 0);
  return Send(request, reply);
}

std::uint16_t CTavroUsbController::GetLightChannelCount() const {
  return versionInfo.hasLightChannels ? versionInfo.lightChannelCount : 0;
}

bool CTavroUsbController::GetIndexCapture(std::uint16_t axis, bool& valid, bool& captured,
                                          std::uint32_t& count) {
  if (axis >= kAxisCount) return false;
  Packet request(kIndexCaptureCode, 2);
  request.Byte(1, static_cast<std::uint8_t>(axis));
  ReplyBuffer reply(kIndexCaptureReply);
  if (!Send(request, reply)) return false;
  // The oldest servo boards have no valid flag: their capture is always valid.
  valid =
      (!ManualVision() && !generation::HasIndexValidFlag(versionInfo)) || GetFlag(reply.Bytes(), 1);
  captured = GetFlag(reply.Bytes(), 2);
  count = GetLong(reply.Bytes(), 3);
  return true;
}

bool CTavroUsbController::GetFpgaVersion(std::uint16_t& out) {
  const bool answers = ManualVision() ? generation::ManualVisionHasLongForms(versionInfo)
                                      : generation::HasBoardDataCommand(versionInfo, machineKind);
  if (!answers) {
    out = 0;
    return true;
  }
  Packet request(kBoardDataCode, kBoardDataRequest);
  request.Word(1, kSelectFpga);
  ReplyBuffer reply(kBoardDataReply);
  if (!Send(request, reply)) return false;
  out = GetWord(reply.Bytes(), 1);
  return true;
}

bool CTavroUsbController::GetAnalogInputs(std::uint16_t out[16]) {
  const bool answers = ManualVision() ? generation::ManualVisionHasAnalogInputs(versionInfo)
                                      : generation::HasBoardDataCommand(versionInfo, machineKind);
  if (!answers) {
    std::fill_n(out, 16, std::uint16_t{0});
    return true;
  }
  Packet request(kBoardDataCode, kBoardDataRequest);
  request.Word(1, kSelectAnalog);
  ReplyBuffer reply(kBoardDataReply);
  if (!Send(request, reply)) return false;
  for (std::size_t i = 0; i < 16; ++i)
    out[i] = GetWord(reply.Bytes(), 1 + 2 * i);
  return true;
}

bool CTavroUsbController::GetTemperature(std::uint32_t sensor, std::int32_t& raw, double& scale) {
  if (!ManualVision() && !generation::HasBoardTemperature(machineKind)) {
    raw = 0;
    scale = 0.0;
    return true;
  }
  Packet request(kTemperatureCode, 2);
  request.Byte(1, static_cast<std::uint8_t>(sensor));
  ReplyBuffer reply(kTemperatureReply);
  if (!Send(request, reply)) return false;
  raw = wire::GetSignedLong(reply.Bytes(), 1);
  scale = wire::GetReal(reply.Bytes(), 5);
  return true;
}

// ---- lights ----------------------------------------------------------------------------------

bool CTavroUsbController::GetLightMaxValues(std::span<std::uint32_t> out) {
  const auto n =
      static_cast<std::uint32_t>(std::min<std::size_t>(GetLightChannelCount(), out.size()));
  const LightForm form = ChooseLightForm(ManualVision(), versionInfo, DriverWord());
  if (form == LightForm::OneWord) {
    Packet request(kLightMaxCode, 2);
    ReplyBuffer reply(kOneWordGetReply);
    if (!Send(request, reply)) return false;
    std::fill_n(out.begin(), n, GetWord(reply.Bytes(), 2));
    return true;
  }
  const LightPackets& p = form == LightForm::OldDriver ? kOldDriverLights : kNewDriverLights;
  for (std::uint32_t first = 0; LightPacketDue(p, first, n); first += p.perPacket) {
    Packet request(kLightMaxCode, 16);
    request.Byte(1, static_cast<std::uint8_t>(first)).Byte(2, p.getByte2);
    ReplyBuffer reply(p.getReply);
    if (!Send(request, reply)) return false;
    const std::uint32_t count = std::min(p.perPacket, n - std::min(first, n));
    for (std::uint32_t i = 0; i < count; ++i)
      out[first + i] = GetLong(reply.Bytes(), 2 + 4 * i);
  }
  return true;
}

bool CTavroUsbController::SetLightValues(std::span<const std::uint32_t> in) {
  const auto n =
      static_cast<std::uint32_t>(std::min<std::size_t>(GetLightChannelCount(), in.size()));
  const LightForm form = ChooseLightForm(ManualVision(), versionInfo, DriverWord());
  if (form == LightForm::OneWord) {
    Packet request(kLightSetCode, kOneWordSetRequest);
    for (std::uint32_t i = 0; i < std::min(n, kOneWordMaxChannels); ++i) {
      request.Byte(1 + i, 1).Word(43 + 2 * i, static_cast<std::uint16_t>(in[i]));
    }
    return SendSet(request);
  }
  const LightPackets& p = form == LightForm::OldDriver ? kOldDriverLights : kNewDriverLights;
  for (std::uint32_t first = 0; LightPacketDue(p, first, n); first += p.perPacket) {
    Packet request(kLightSetCode, p.setRequest);
    request.Byte(1, static_cast<std::uint8_t>(first));
    const std::uint32_t count = std::min(p.perPacket, n - std::min(first, n));
    for (std::uint32_t i = 0; i < count; ++i)
      request.Long(2 + 4 * i, in[first + i]);
    if (!SendSet(request, true)) return false;
  }
  return true;
}

// ---- probes ----------------------------------------------------------------------------------

bool CTavroUsbController::SetTouchProbeEnable(bool on) {
  if (!ManualVision() && !generation::HasTouchProbeCommands(versionInfo)) return false;
  Packet request(kTouchEnableCode, 16);
  request.Flag(1, on);
  return SendSet(request, ManualVision());
}

bool CTavroUsbController::GetTouchProbeCapture(std::uint32_t a[4], std::uint32_t b[4]) {
  if (!ManualVision() && !generation::HasTouchProbeCommands(versionInfo)) return false;
  Packet request(kTouchCaptureCode, 1);
  ReplyBuffer reply(kTouchCaptureReply);
  if (!Send(request, reply)) return false;
  for (std::size_t i = 0; i < 4; ++i) {
    a[i] = GetLong(reply.Bytes(), 4 + 4 * i);
    b[i] = GetLong(reply.Bytes(), 20 + 4 * i);
  }
  return true;
}

bool CTavroUsbController::GetProbeCapture(const std::uint8_t want[4], const std::uint16_t select[4],
                                          ProbeCapture& out) {
  const bool longForm = ManualVision() ? generation::ManualVisionHasLongForms(versionInfo)
                                       : generation::ProbeCaptureHasExtra(machineKind);
  Packet request(kProbeCaptureCode, 9);
  for (std::size_t i = 0; i < 4; ++i) {
    request.Byte(1 + i, want[i]).Byte(5 + i, static_cast<std::uint8_t>(select[i]));
  }
  ReplyBuffer reply(longForm ? kProbeCaptureLong : kProbeCaptureShort);
  if (!SendCapture(request, reply)) return false;
  const wire::Bytes r = reply.Bytes();
  // Fields start at byte 0 here, unlike most replies.
  for (std::size_t i = 0; i < 4; ++i) {
    out.Available[i] = GetFlag(r, i);
    out.Valid[i] = GetFlag(r, 4 + i);
    out.Kind[i] = GetByte(r, 8 + i);
    if (out.Available[i] && out.Valid[i]) {
      for (std::size_t j = 0; j < 4; ++j)
        out.Position[i][j] = GetLong(r, 12 + 16 * i + 4 * j);
    }
    out.Extra[i] = longForm ? GetLong(r, 76 + 4 * i) : 0;
  }
  return true;
}

bool CTavroUsbController::GetLaserPoints(std::uint16_t wanted, LaserPoints& out) {
  out = LaserPoints{};
  const LaserLayout* form = ChooseLaserLayout(ManualVision(), versionInfo, machineKind);
  if (!LaserReady(versionInfo) || form == nullptr) return true;
  const std::uint16_t asked = std::min(wanted, form->limit);
  Packet request(kLaserPointsCode, 16);
  request.Byte(1, static_cast<std::uint8_t>(asked));
  ReplyBuffer reply(form->stride == 0 ? kLaserAReply : form->stride * asked + form->head);
  if (!SendCapture(request, reply)) return false;
  const wire::Bytes r = reply.Bytes();
  out.Count = GetByte(r, 0);
  out.Pending = form->pendingWord ? GetWord(r, 1) : GetByte(r, 1);
  // A Count above what was asked is not followed: the reply holds only the asked points.
  const std::uint32_t filled =
      form->stride == 0 ? asked : std::min<std::uint32_t>(out.Count, asked);
  for (std::uint32_t i = 0; i < filled; ++i) {
    LaserPoint& point = out.Points[i];
    if (form->stride == 0) {
      point.Valid = true;
      point.Time = GetLong(r, form->time + 4 * i);
      for (std::size_t j = 0; j < 3; ++j)
        point.Position[j] = GetLong(r, form->position + 16 * i + 4 * j);
      continue;
    }
    const std::size_t at = form->head + form->stride * i;
    point.Valid = form->valid < 0 || GetFlag(r, at + form->valid);
    point.Time = GetLong(r, at + form->time);
    for (std::size_t j = 0; j < 3; ++j)
      point.Position[j] = GetLong(r, at + form->position + 4 * j);
    point.Extra = form->extra < 0 ? 0 : GetLong(r, at + form->extra);
  }
  return true;
}

bool CTavroUsbController::GetLaserSettings(std::uint32_t out[kLaserSettingsWords]) {
  if (!LaserSettingsAnswered(ManualVision(), versionInfo)) {
    std::fill_n(out, kLaserSettingsWords, 0u);
    return true;
  }
  Packet request(kLaserSettingsCode, 2);
  ReplyBuffer reply(kLaserSettingsBytes);
  if (!Send(request, reply)) return false;
  for (std::size_t i = 0; i < kLaserSettingsWords; ++i)
    out[i] = GetLong(reply.Bytes(), 2 + 4 * i);
  return true;
}

bool CTavroUsbController::SetLaserSettings(const std::uint32_t in[kLaserSettingsWords]) {
  if (!LaserSettingsAnswered(ManualVision(), versionInfo)) return true;
  Packet request(kLaserSettingsCode, kLaserSettingsBytes);
  request.Byte(1, 1);
  for (std::size_t i = 0; i < kLaserSettingsWords; ++i)
    request.Long(2 + 4 * i, in[i]);
  return SendSet(request, ManualVision());
}

// ---- interrupts ------------------------------------------------------------------------------

// Older firmware has a one-byte command per operation (`oneByteCode` 0: the operation does not
// exist there); later firmware has one 16-byte command with a flag byte per operation.
bool CTavroUsbController::SendInterrupt(std::uint8_t oneByteCode, std::size_t flagByte) {
  if (!ManualVision() && !generation::HasInterruptCommand(versionInfo)) {
    if (oneByteCode == 0) return false;
    return SendSet(Packet(oneByteCode, 1));
  }
  Packet request(kInterruptCode, 16);
  request.Byte(flagByte, 1);
  return SendSet(request, true);
}

bool CTavroUsbController::DisableInterrupts() {
  return SendInterrupt(0x6A, 1);
}

bool CTavroUsbController::EnableVideoInterrupt() {
  return SendInterrupt(0x69, 3);
}

bool CTavroUsbController::EnableTouchProbeInterrupt() {
  return SendInterrupt(0x64, 4);
}

bool CTavroUsbController::EnableLaserInterrupt() {
  return SendInterrupt(0, 5);
}
