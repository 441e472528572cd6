#include "sim/Commands.h"

#include <cstring>

namespace sim {

namespace {

using wire::PutByte;
using wire::PutFlag;
using wire::PutLong;
using wire::PutWideText;
using wire::PutWord;

// ---- gates ------------------------------------------------------------------------------------

// The host widens firmwareVersion to double and compares it against a number just below a
// release; the board's firmware makes the same test, so the two agree on every form.
double Firmware(const Profile& p) {
  return static_cast<double>(p.version.firmwareVersion);
}

bool Always(const Profile&) {
  return true;
}
// The W axis's and the platen's sync reaches manual-vision boards too.
bool IsController(const Profile& p) {
  return p.version.isServo || p.version.isManualVision;
}
bool ProtocolBelow2(const Profile& p) {
  return p.version.protocolVersion < 2;
}
bool ProtocolFrom2(const Profile& p) {
  return p.version.protocolVersion >= 2;
}
bool LongEepromInfo(const Profile& p) {
  return p.version.eepromInfoLong;
}
bool OneByteEepromInfo(const Profile& p) {
  return !p.version.eepromInfoLong && Firmware(p) <= 1.109;
}
bool ShortEepromInfo(const Profile& p) {
  return !p.version.eepromInfoLong && Firmware(p) > 1.109;
}
bool ShortEepromBlock(const Profile& p) {
  return ProtocolFrom2(p) && p.eeprom.maxReadWrite <= 64;
}
bool LongEepromBlock(const Profile& p) {
  return ProtocolFrom2(p) && p.eeprom.maxReadWrite > 64;
}

// ---- fill routines ------------------------------------------------------------------------------

std::int8_t FillVersion(Board& board, wire::Bytes, wire::MutableBytes r) {
  const VersionRecord& v = board.profile().version;
  PutWideText(r, 1, v.firmwareName);
  wire::PutReal(r, 33, v.firmwareVersion);
  PutByte(r, 37, v.byte37);
  PutFlag(r, 39, v.isServo);
  PutFlag(r, 40, v.hasLightChannels);
  PutByte(r, 41, v.lightChannelCount);
  PutFlag(r, 42, v.flag42);
  PutFlag(r, 43, v.isManualVision);
  PutByte(r, 44, v.word44);
  PutFlag(r, 48, v.flag48);
  for (std::size_t i = 0; i < v.flags50.size(); ++i)
    PutFlag(r, 50 + i, v.flags50[i]);
  PutFlag(r, 55, v.hasCommand72);
  PutByte(r, 56, v.boardRevision);
  PutFlag(r, 57, v.hasWAxis);
  PutFlag(r, 58, v.platenFitted);
  PutFlag(r, 59, v.flag59);
  PutFlag(r, 60, v.hasTouchProbe);
  PutWord(r, 61, v.protocolVersion);
  PutByte(r, 63, v.laserType);
  PutFlag(r, 64, v.flag64);
  PutFlag(r, 65, v.laserNotReady);
  PutFlag(r, 66, v.eepromInfoLong);
  return 0;
}

std::int8_t FillInfoLong(Board& board, wire::Bytes, wire::MutableBytes r) {
  const EepromGeometry& e = board.profile().eeprom;
  PutFlag(r, 1, e.present);
  PutByte(r, 2, e.kind);
  PutLong(r, 3, e.userSize);
  PutLong(r, 7, e.machineSize);
  PutLong(r, 11, e.updateSize);
  PutLong(r, 15, e.pageSize);
  PutLong(r, 19, e.maxReadWrite);
  PutFlag(r, 23, e.hasCopy);
  return 0;
}

// The short form reports sizes as words; the machine size and the copy flag came with protocol 2.
std::int8_t FillInfoShort(Board& board, wire::Bytes, wire::MutableBytes r) {
  const Profile& p = board.profile();
  PutFlag(r, 1, p.eeprom.present);
  PutWord(r, 2, static_cast<std::uint16_t>(p.eeprom.userSize));
  PutByte(r, 4, p.eeprom.kind);
  if (ProtocolFrom2(p)) {
    PutWord(r, 5, static_cast<std::uint16_t>(p.eeprom.machineSize));
    PutFlag(r, 7, p.eeprom.hasCopy);
  }
  return 0;
}

std::int8_t FillIdentity(Board& board, wire::Bytes, wire::MutableBytes r) {
  const Profile& p = board.profile();
  PutWideText(r, 1, p.identity.serialNumber);
  PutWideText(r, 33, p.identity.machineName);
  PutWideText(r, 65, p.identity.modelName);
  if (ProtocolFrom2(p)) {
    PutWord(r, 97, p.identity.identityWord);
    PutLong(r, 99, p.identity.identityLong1);
    PutLong(r, 103, p.identity.identityLong2);
    PutFlag(r, 107, p.identity.identityFlag);
  }
  return 0;
}

// Text from byte 0, always ended by a zero within the reply; what does not fit stays pending.
std::int8_t FillDiagText(Board& board, wire::Bytes, wire::MutableBytes r) {
  std::memset(r.data(), 0, r.size());
  const std::string text = board.TakeDiagText(r.size() - 1);
  std::memcpy(r.data(), text.data(), text.size());
  return 0;
}

// Both forms echo area, address and length where the request had them, so that a capture of the
// traffic reads well; the host looks only at the status byte and the data.
std::int8_t FillEepromBlock(Board& board, wire::MutableBytes r, std::uint8_t area,
                            std::uint32_t address, std::uint32_t length) {
  PutByte(r, 1, area);
  const std::size_t room = r.size() - kBlockDataAt;
  std::uint8_t status = kEepromTooLong;
  if (length <= room) status = board.ReadEeprom(area, address, length, &r[kBlockDataAt]);
  PutByte(r, 2, status);
  return 0;
}

std::int8_t FillBlockShort(Board& board, wire::Bytes q, wire::MutableBytes r) {
  const std::uint16_t address = wire::GetWord(q, 3);
  const std::uint16_t length = wire::GetWord(q, 5);
  PutWord(r, 3, address);
  PutWord(r, 5, length);
  return FillEepromBlock(board, r, wire::GetByte(q, 2), address, length);
}

std::int8_t FillBlockLong(Board& board, wire::Bytes q, wire::MutableBytes r) {
  const std::uint32_t address = wire::GetLong(q, 7);
  const std::uint32_t length = wire::GetLong(q, 11);
  PutLong(r, 7, address);
  PutLong(r, 11, length);
  return FillEepromBlock(board, r, wire::GetByte(q, 2), address, length);
}

// Axes 0 to 3, and the channels of the W axis (16) and the platen (17) when they are fitted.
bool AxisFitted(const Profile& p, std::uint8_t axis) {
  return axis < 4 || (axis == 16 && p.version.hasWAxis) || (axis == 17 && p.version.platenFitted);
}

std::int8_t FillSyncAxis(Board& board, wire::Bytes q, wire::MutableBytes) {
  return AxisFitted(board.profile(), wire::GetByte(q, 1)) ? 0 : kReasonBadArgument;
}

// clang-format off
constexpr CommandForm kCommands[] = {
  {.code = 0x22, .name = "diagnostic text", .gate = ProtocolFrom2, .request = {1}, .reply = kDiagTextReply, .fill = FillDiagText},
  {.code = 0x28, .name = "EEPROM info long", .gate = LongEepromInfo, .request = {32}, .reply = kEepromInfoLongBytes, .fill = FillInfoLong, .zeroFrom = 1},
  {.code = 0x28, .name = "EEPROM info short", .gate = OneByteEepromInfo, .request = {1}, .reply = kEepromInfoShortReply, .fill = FillInfoShort},
  {.code = 0x28, .name = "EEPROM info short", .gate = ShortEepromInfo, .request = {32}, .reply = kEepromInfoShortReply, .fill = FillInfoShort, .zeroFrom = 1},
  {.code = 0x29, .name = "EEPROM read short", .gate = ShortEepromBlock, .request = {32}, .reply = kBlockShortReply, .fill = FillBlockShort, .fixed = {{{.at = 1, .value = 0}}}, .zeroFrom = 7},
  {.code = 0x29, .name = "EEPROM read long", .gate = LongEepromBlock, .request = {32}, .reply = kBlockLongReply, .fill = FillBlockLong, .fixed = {{{.at = 1, .value = 0}, {.at = 3, .value = 0}}}, .zeroFrom = 15},
  {.code = 0x2B, .name = "version", .gate = Always, .request = {1}, .reply = kVersionReply, .fill = FillVersion},
  {.code = 0x3A, .name = "sync axis", .gate = IsController, .request = {2}, .reply = kSetReply, .fill = FillSyncAxis},
  {.code = 0x60, .name = "identity", .gate = ProtocolBelow2, .request = {1}, .reply = kIdentityReply, .fill = FillIdentity},
  {.code = 0x60, .name = "identity long", .gate = ProtocolFrom2, .request = {1}, .reply = kIdentityLongReply, .fill = FillIdentity},
};
// clang-format on

}  // namespace

std::span<const CommandForm> CommandTable() {
  return kCommands;
}

const CommandForm* FindForm(std::uint8_t code, const Profile& profile, std::size_t length) {
  const CommandForm* first = nullptr;
  for (std::span<const CommandForm> table :
       {CommandTable(), StatusCommandTable(), AxisCommandTable(), LightProbeLaserCommandTable(),
        ChannelCommandTable()}) {
    for (const CommandForm& form : table) {
      if (form.code != code || !form.gate(profile)) continue;
      if (AcceptsRequestLength(form, length)) return &form;
      if (!first) first = &form;
    }
  }
  return first;
}

std::uint16_t ReplyLength(const CommandForm& form, const Profile& profile, wire::Bytes request) {
  if (form.length) return form.length(profile, request);
  if (form.reply != kSetReply) return form.reply;
  // Manual-vision boards answer every set command with two bytes, whatever their protocol.
  return profile.version.protocolVersion >= 1 || profile.version.isManualVision ? 2 : 0;
}

bool AcceptsRequestLength(const CommandForm& form, std::size_t length) {
  for (std::uint16_t accepted : form.request) {
    if (accepted != 0 && accepted == length) return true;
  }
  return false;
}

bool FixedBytesHold(const CommandForm& form, wire::Bytes request) {
  for (const FixedByte& fixed : form.fixed) {
    if (fixed.at != 0 && wire::GetByte(request, fixed.at) != fixed.value) return false;
  }
  for (std::size_t i = form.zeroFrom; form.zeroFrom != 0 && i < request.size(); ++i) {
    if (request[i] != 0) return false;
  }
  return true;
}

}  // namespace sim
