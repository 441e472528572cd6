// The commands the base controller owns: version record, EEPROM information, identity,
// diagnostic text and EEPROM reads. Each wire layout sits beside the operation that uses it.
#include <algorithm>
#include <array>
#include <cstring>

#include "link/CTavroUsb.h"
#include "link/Generations.h"
#include "util/Text.h"
#include "wire/WireFormat.h"

namespace {

using Reply = std::span<const std::uint8_t>;

std::string WideText(Reply r, std::size_t at) {
  return text::ToUtf8(wire::GetWideText(r, at));
}

// ---- 0x2B version record: 1-byte request, 69-byte reply.
constexpr std::uint8_t kVersionCode = 0x2B;
constexpr std::uint32_t kVersionReply = 69;

void DecodeVersion(Reply r, BoardVersionInfo& out) {
  out.firmwareName = WideText(r, 1);
  out.firmwareVersion = wire::GetReal(r, 33);
  out.byte37 = wire::GetByte(r, 37);
  out.isServo = wire::GetFlag(r, 39);
  out.hasLightChannels = wire::GetFlag(r, 40);
  out.lightChannelCount = wire::GetByte(r, 41);
  out.flag42 = wire::GetFlag(r, 42);
  out.isManualVision = wire::GetFlag(r, 43);
  out.word44 = wire::GetByte(r, 44);
  out.flag48 = wire::GetFlag(r, 48);
  for (std::size_t i = 0; i < 4; ++i)
    out.flags50[i] = wire::GetFlag(r, 50 + i);
  out.hasCommand72 = wire::GetFlag(r, 55);
  out.boardRevision = wire::GetByte(r, 56);
  out.hasWAxis = wire::GetFlag(r, 57);
  out.platenFitted = wire::GetFlag(r, 58);
  out.flag59 = wire::GetFlag(r, 59);
  out.hasTouchProbe = wire::GetFlag(r, 60);
  out.protocolVersion = wire::GetWord(r, 61);
  out.laserType = wire::GetByte(r, 63);
  out.flag64 = wire::GetFlag(r, 64);
  out.laserNotReady = wire::GetFlag(r, 65);
  out.eepromInfoLong = wire::GetFlag(r, 66);
}

// ---- 0x28 EEPROM information, three forms.
constexpr std::uint8_t kEepromInfoCode = 0x28;

struct EepromInfoForm {
  std::uint32_t requestLength;
  std::uint32_t replyLength;
  bool longLayout;
};

EepromInfoForm ChooseEepromInfoForm(const BoardVersionInfo& v) {
  if (v.eepromInfoLong) return {32, 32, true};
  if (generation::AsksEepromInfoInOneByte(v)) return {1, 18, false};
  return {32, 18, false};
}

void DecodeEepromInfo(Reply r, const EepromInfoForm& form, const BoardVersionInfo& v,
                      EepromInfo& out) {
  out = EepromInfo{};
  out.present = wire::GetFlag(r, 1);
  if (form.longLayout) {
    out.kind = wire::GetByte(r, 2);
    out.userSize = wire::GetLong(r, 3);
    out.machineSize = wire::GetLong(r, 7);
    out.updateSize = wire::GetLong(r, 11);
    out.pageSize = wire::GetLong(r, 15);
    out.maxReadWrite = wire::GetLong(r, 19);
    out.hasCopy = wire::GetFlag(r, 23);
    return;
  }
  out.userSize = wire::GetWord(r, 2);
  out.kind = wire::GetByte(r, 4);
  // A 32-byte request to boards that know it also gets the machine area and copy flag.
  if (form.requestLength == 32 && generation::EepromInfoHasMachineArea(v)) {
    out.machineSize = wire::GetWord(r, 5);
    out.hasCopy = wire::GetFlag(r, 7);
  }
  // Such boards do not report their page and transfer sizes; these are what they all have.
  out.pageSize = 32;
  out.maxReadWrite = 64;
}

// ---- 0x60 identity: 97 bytes, or 126 in the extended form.
constexpr std::uint8_t kIdentityCode = 0x60;

// ---- 0x22 diagnostic text: 100 bytes of single-byte text from byte 0.
constexpr std::uint8_t kDiagTextCode = 0x22;
constexpr std::uint32_t kDiagTextReply = 100;

std::string Latin1ToUtf8(const std::uint8_t* bytes, std::size_t n) {
  std::u16string wide(bytes, bytes + n);
  return text::ToUtf8(wide);
}

// ---- 0x29 EEPROM block read: 32-byte request; short form (96-byte reply) for boards that read
// at most 64 bytes at once, long form (288) for the rest. Status at 2, data from 32.
constexpr std::uint8_t kEepromBlockCode = 0x29;
constexpr std::size_t kEepromBlockData = 32;
constexpr std::uint32_t kShortBlockReply = 96;
constexpr std::uint32_t kLongBlockReply = 288;

}  // namespace

bool CTavroUsb::ReadBoardVersion(BoardVersionInfo& out) {
  const std::uint8_t request[1] = {kVersionCode};
  std::array<std::uint8_t, kVersionReply> reply{};
  if (!SendNormalCommand(request, 1, reply.data(), kVersionReply)) return false;
  DecodeVersion(reply, out);
  if (&out != &versionInfo) {
    versionInfo.laserType = out.laserType;
    versionInfo.laserNotReady = out.laserNotReady;
    versionInfo.hasWAxis = out.hasWAxis;
    versionInfo.platenFitted = out.platenFitted;
  }
  return true;
}

bool CTavroUsb::ReadEepromInfo(EepromInfo& out) {
  const EepromInfoForm form = ChooseEepromInfoForm(versionInfo);
  std::array<std::uint8_t, 32> request{};
  request[0] = kEepromInfoCode;
  std::array<std::uint8_t, 32> reply{};
  if (!SendNormalCommand(request.data(), form.requestLength, reply.data(), form.replyLength)) {
    return false;
  }
  DecodeEepromInfo(Reply(reply.data(), form.replyLength), form, versionInfo, out);
  return true;
}

bool CTavroUsb::ReadBoardIdentity(BoardIdentity& out) {
  const bool extended = generation::HasExtendedIdentity(versionInfo);
  const std::uint32_t length = extended ? 126 : 97;
  const std::uint8_t request[1] = {kIdentityCode};
  std::array<std::uint8_t, 126> reply{};
  if (!SendNormalCommand(request, 1, reply.data(), length)) return false;
  const Reply r(reply.data(), length);
  out = BoardIdentity{};
  out.serialNumber = WideText(r, 1);
  out.machineName = WideText(r, 33);
  out.modelName = WideText(r, 65);
  if (extended) {
    out.identityWord = wire::GetWord(r, 97);
    out.identityLong1 = wire::GetLong(r, 99);
    out.identityLong2 = wire::GetLong(r, 103);
    out.identityFlag = wire::GetFlag(r, 107);
  }
  return true;
}

bool CTavroUsb::ReadDiagText(std::string& out) {
  if (!generation::HasDiagText(versionInfo)) {
    out.clear();
    return true;
  }
  const std::uint8_t request[1] = {kDiagTextCode};
  std::array<std::uint8_t, kDiagTextReply> reply{};
  if (!SendNormalCommand(request, 1, reply.data(), kDiagTextReply)) return false;
  reply[kDiagTextReply - 1] = 0;
  const auto end = std::find(reply.begin(), reply.end(), 0);
  out = Latin1ToUtf8(reply.data(), static_cast<std::size_t>(end - reply.begin()));
  return true;
}

bool CTavroUsb::ReadEepromBlock(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                                std::uint8_t* destination, bool area) {
  const bool shortForm = eepromInfo.maxReadWrite <= 64;
  const std::uint32_t replyLength = shortForm ? kShortBlockReply : kLongBlockReply;
  // A board may claim a larger transfer than one long reply can carry; such a piece is refused
  // here like one above maxReadWrite rather than read past the reply.
  if (length > eepromInfo.maxReadWrite || length > replyLength - kEepromBlockData) {
    status = 1;
    return false;
  }
  if (!generation::HasEepromBlockCommands(versionInfo)) return false;

  std::array<std::uint8_t, 32> request{};
  request[0] = kEepromBlockCode;
  request[1] = 0;
  request[2] = area ? 1 : 0;
  if (shortForm) {
    wire::PutWord(request, 3, static_cast<std::uint16_t>(address));
    wire::PutWord(request, 5, static_cast<std::uint16_t>(length));
  } else {
    wire::PutLong(request, 7, address);
    wire::PutLong(request, 11, length);
  }
  std::array<std::uint8_t, kLongBlockReply> reply{};
  if (!SendNormalCommand(request.data(), 32, reply.data(), replyLength)) return false;
  status = reply[2];
  if (status == 0 && length > 0) std::memcpy(destination, &reply[kEepromBlockData], length);
  return true;
}

bool CTavroUsb::ReadEeprom(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                           std::uint8_t* destination, bool area) {
  if (!generation::HasEepromBlockCommands(versionInfo)) return false;
  if (std::uint64_t{address} + length > eepromInfo.machineSize) {
    status = 1;
    return true;
  }
  const std::uint32_t maxRw = eepromInfo.maxReadWrite;
  const std::uint32_t pageMask = eepromInfo.pageSize ? eepromInfo.pageSize - 1 : 0;
  status = 0;
  while (length > 0) {
    if (maxRw == 0) {
      status = 1;
      return false;
    }
    // No piece reaches past maxReadWrite bytes from the start of its page. A board whose page
    // is larger than its transfer size would make that negative; such pieces are cut at the
    // next multiple of maxReadWrite instead.
    std::uint32_t offset = address & pageMask;
    if (offset >= maxRw) offset %= maxRw;
    const std::uint32_t piece = std::min(maxRw - offset, length);
    if (!ReadEepromBlock(address, piece, status, destination, area)) return false;
    if (status != 0) return true;
    address += piece;
    destination += piece;
    length -= piece;
  }
  return true;
}
