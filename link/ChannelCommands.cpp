// The W axis and platen commands. Each request carries the channel number in byte 1 unless told
// otherwise; the servo and manual-vision differences are tested where they apply.
#include "link/ChannelCommands.h"

#include <algorithm>
#include <cstring>

#include "link/Generations.h"
#include "platform/Clock.h"
#include "util/Text.h"

namespace {

using wire::GetFlag;
using wire::GetLong;
using wire::GetWord;

// ---- 0x74 / 0x73 tuning record: 42 bytes of longs, in the wire order below.
constexpr std::uint32_t kPidBytes = 42;

struct PidField {
  std::size_t at;
  std::uint32_t ChannelPid::*field;
};

// Mb is signed; it travels with the same bits as the others.
constexpr PidField kPidLayout[] = {
    {2, &ChannelPid::Kp},    {6, &ChannelPid::Ki},    {10, &ChannelPid::Kd},
    {14, &ChannelPid::Dt},   {18, &ChannelPid::Kaff}, {22, &ChannelPid::Kvff},
    {26, &ChannelPid::Kout}, {34, &ChannelPid::Il},   {38, &ChannelPid::Fe}};
constexpr std::size_t kPidMbAt = 30;

// ---- 0x62 / 0x61 definition record, 60 bytes.
constexpr std::uint32_t kDefineBytes = 60;

struct DefineLong {
  std::size_t at;
  std::uint32_t ChannelDefine::*field;
};

constexpr DefineLong kDefineLongs[] = {{2, &ChannelDefine::Speed},
                                       {6, &ChannelDefine::SlowSpeed},
                                       {10, &ChannelDefine::Accel},
                                       {14, &ChannelDefine::Jerk},
                                       {18, &ChannelDefine::RotaryEncoderRes},
                                       {26, &ChannelDefine::Current},
                                       {30, &ChannelDefine::SettleWindow},
                                       {34, &ChannelDefine::SettleTime},
                                       {38, &ChannelDefine::MotorPoles},
                                       {42, &ChannelDefine::MotorSaturationCounter}};
constexpr std::size_t kGearAt = 22;
constexpr std::size_t kEncoderSwapAt = 46;
constexpr std::size_t kMotorSwapAt = 47;
constexpr std::size_t kIndexTypeAt = 48;

// The platen's extra record (0x68 read, 0x48 write), 32 bytes without a channel number:
// Size words from 1, Offset words from 7, SlowSpeedTurns at 13.
constexpr std::uint8_t kExtraGetCode = 0x68;
constexpr std::uint8_t kExtraSetCode = 0x48;
constexpr std::uint32_t kExtraBytes = 32;

// ---- 0x7D / 0x7B serial record: texts at 1, 33, 65; in the extended form the identity fields
// at 97 to 107 and (in the write) the channel at 108.
constexpr std::uint32_t kSerialLong = 126;
constexpr std::uint32_t kSerialShort = 97;

// ---- 0x65 EEPROM description: 32-byte request, 18-byte reply.
constexpr std::uint8_t kEepromInfoCode = 0x65;
constexpr std::uint32_t kEepromInfoReply = 18;

// ---- 0x66 / 0x67 EEPROM blocks. Byte 1 is 2 in both, not the channel.
constexpr std::uint8_t kEepromReadCode = 0x66;
constexpr std::uint8_t kEepromWriteCode = 0x67;
// The old form, of servo boards without the block commands.
constexpr std::uint32_t kOldBlockRequest = 5;   // read
constexpr std::uint32_t kOldBlockReply = 68;    // status at 1, data from 4
constexpr std::uint32_t kOldWriteRequest = 69;  // write, data from 5
constexpr std::uint32_t kShortBlock = 96;
constexpr std::uint32_t kLongBlock = 288;
constexpr std::size_t kBlockDataAt = 32;
constexpr std::uint32_t kStatusOutOfRange = 1;
constexpr std::uint32_t kStatusUnavailable = 6;

// Between two looks at a write in progress the thread yields. Through the clock it is a short
// sleep rather than a bare yield, so that a write on a simulated board also ends in virtual time.
constexpr auto kWriteYield = std::chrono::microseconds(100);

void DecodeDefine(wire::Bytes r, ChannelDefine& out) {
  for (const DefineLong& f : kDefineLongs)
    out.*f.field = GetLong(r, f.at);
  out.Gear = wire::GetFixed(r, kGearAt);
  out.EncoderSwap = GetFlag(r, kEncoderSwapAt);
  out.MotorSwap = GetFlag(r, kMotorSwapAt);
  out.IndexType = wire::GetByte(r, kIndexTypeAt);
}

}  // namespace

bool ChannelCommands::ReadA(std::uint32_t& out) {
  ReplyBuffer reply(6);
  if (!owner_.Send(Packet(0x41, 2).Byte(1, channel_), reply)) return false;
  out = GetLong(reply.Bytes(), 2);
  return true;
}

bool ChannelCommands::ReadB(std::uint32_t& out) {
  ReplyBuffer reply(6);
  if (!owner_.Send(Packet(0x42, 2).Byte(1, channel_), reply)) return false;
  out = GetLong(reply.Bytes(), 2);
  return true;
}

bool ChannelCommands::GetPosition(std::uint32_t& count, std::uint32_t& second) {
  ReplyBuffer reply(10);
  if (!owner_.Send(Packet(0x43, 2).Byte(1, channel_), reply)) return false;
  count = GetLong(reply.Bytes(), 2);
  second = GetLong(reply.Bytes(), 6);
  return true;
}

bool ChannelCommands::ReadLowerC(std::uint32_t& first, std::uint32_t& second) {
  ReplyBuffer reply(10);
  if (!owner_.Send(Packet(0x63, 2).Byte(1, channel_), reply)) return false;
  first = GetLong(reply.Bytes(), 2);
  second = GetLong(reply.Bytes(), 6);
  return true;
}

bool ChannelCommands::ReadD(bool& out) {
  ReplyBuffer reply(3);
  if (!owner_.Send(Packet(0x44, 2).Byte(1, channel_), reply)) return false;
  out = GetFlag(reply.Bytes(), 2);
  return true;
}

bool ChannelCommands::ReadJ(std::uint32_t& out) {
  ReplyBuffer reply(16);
  if (!owner_.Send(Packet(0x4A, 2).Byte(1, channel_), reply)) return false;
  out = GetLong(reply.Bytes(), 2);
  return true;
}

bool ChannelCommands::GetIndexCapture(bool& valid, std::uint32_t& state, std::uint32_t& count) {
  ReplyBuffer reply(7);
  if (!owner_.Send(Packet(0x4E, 2).Byte(1, channel_), reply)) return false;
  valid = GetFlag(reply.Bytes(), 1);
  const std::uint8_t raw = wire::GetByte(reply.Bytes(), 2);
  state = raw == 1 || raw == 2 ? raw : 0;
  count = GetLong(reply.Bytes(), 3);
  return true;
}

// 0x4C is two commands told apart by length: 31 bytes carry four longs, 32 bytes move the platen.
bool ChannelCommands::CommandL(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  return SendSet(Packet(0x4C, 31).Byte(1, channel_).Long(2, a).Long(6, b).Long(10, c).Long(14, d));
}

bool ChannelCommands::MovePlaten(std::uint8_t open) {
  return SendSet(Packet(0x4C, 32).Byte(1, channel_).Byte(2, open));
}

bool ChannelCommands::CommandM(std::uint32_t value) {
  return SendSet(Packet(0x4D, 6).Byte(1, channel_).Long(2, value));
}

bool ChannelCommands::CommandZ() {
  return SendSet(Packet(0x7A, 2).Byte(1, channel_));
}

bool ChannelCommands::CommandO(bool on) {
  return SendSet(Packet(0x4F, 3).Byte(1, channel_).Flag(2, on));
}

bool ChannelCommands::SyncAxis() {
  return SendSet(Packet(0x3A, 2).Byte(1, channel_));
}

bool ChannelCommands::GetPid(ChannelPid& out) {
  ReplyBuffer reply(kPidBytes);
  if (!owner_.Send(Packet(0x74, 2).Byte(1, channel_), reply)) return false;
  for (const PidField& f : kPidLayout)
    out.*f.field = GetLong(reply.Bytes(), f.at);
  out.Mb = wire::GetSignedLong(reply.Bytes(), kPidMbAt);
  return true;
}

bool ChannelCommands::SetPid(const ChannelPid& in) {
  Packet request(0x73, kPidBytes);
  request.Byte(1, channel_);
  for (const PidField& f : kPidLayout)
    request.Long(f.at, in.*f.field);
  request.Long(kPidMbAt, static_cast<std::uint32_t>(in.Mb));
  return SendSet(request);
}

bool ChannelCommands::GetDefine(ChannelDefine& out) {
  ReplyBuffer reply(kDefineBytes);
  if (!owner_.Send(Packet(0x62, 2).Byte(1, channel_), reply)) return false;
  DecodeDefine(reply.Bytes(), out);
  // The W axis has no extra record; older platen firmware neither.
  if (!Platen() || !generation::HasPlatenExtraRecord(owner_.versionInfo)) {
    std::fill_n(out.Size, 3, std::uint16_t{0});
    std::fill_n(out.Offset, 3, std::int16_t{0});
    out.SlowSpeedTurns = 0;
    return true;
  }
  ReplyBuffer extra(kExtraBytes);
  if (!owner_.Send(Packet(kExtraGetCode, 2), extra)) return false;
  for (std::size_t i = 0; i < 3; ++i) {
    out.Size[i] = GetWord(extra.Bytes(), 1 + 2 * i);
    out.Offset[i] = wire::GetSignedWord(extra.Bytes(), 7 + 2 * i);
  }
  out.SlowSpeedTurns = GetWord(extra.Bytes(), 13);
  return true;
}

bool ChannelCommands::SetDefine(const ChannelDefine& in) {
  Packet request(0x61, kDefineBytes);
  request.Byte(1, channel_);
  for (const DefineLong& f : kDefineLongs)
    request.Long(f.at, in.*f.field);
  request.Fixed(kGearAt, in.Gear)
      .Flag(kEncoderSwapAt, in.EncoderSwap)
      .Flag(kMotorSwapAt, in.MotorSwap)
      .Byte(kIndexTypeAt, in.IndexType);
  if (!SendSet(request)) return false;
  if (!Platen() || !generation::HasPlatenExtraRecord(owner_.versionInfo)) return true;
  Packet extra(kExtraSetCode, kExtraBytes);
  for (std::size_t i = 0; i < 3; ++i) {
    extra.Word(1 + 2 * i, in.Size[i]).Word(7 + 2 * i, static_cast<std::uint16_t>(in.Offset[i]));
  }
  extra.Word(13, in.SlowSpeedTurns);
  return owner_.SendSet(extra, true);
}

bool ChannelCommands::GetSerial(BoardIdentity& out) {
  // Manual-vision boards always speak the later form.
  const bool extended = ManualVision() || generation::HasExtendedIdentity(owner_.versionInfo);
  const Packet request = extended ? Packet(0x7D, 16).Byte(1, channel_) : Packet(0x7D, 1);
  ReplyBuffer reply(extended ? kSerialLong : kSerialShort);
  if (!owner_.Send(request, reply)) return false;
  const wire::Bytes r = reply.Bytes();
  out = BoardIdentity{};
  out.serialNumber = text::ToUtf8(wire::GetWideText(r, 1));
  out.machineName = text::ToUtf8(wire::GetWideText(r, 33));
  out.modelName = text::ToUtf8(wire::GetWideText(r, 65));
  if (extended) {
    out.identityWord = GetWord(r, 97);
    out.identityLong1 = GetLong(r, 99);
    out.identityLong2 = GetLong(r, 103);
    out.identityFlag = GetFlag(r, 107);
  }
  return true;
}

bool ChannelCommands::SetSerial(const BoardIdentity& in) {
  const bool extended = ManualVision() || generation::HasExtendedIdentity(owner_.versionInfo);
  Packet request(0x7B, extended ? kSerialLong : kSerialShort);
  request.Text(1, in.serialNumber).Text(33, in.machineName).Text(65, in.modelName);
  if (extended) {
    request.Word(97, in.identityWord)
        .Long(99, in.identityLong1)
        .Long(103, in.identityLong2)
        .Flag(107, in.identityFlag)
        .Byte(108, channel_);
  }
  return SendSet(request);
}

bool ChannelCommands::ReadU(std::uint32_t& a, std::uint32_t& b, std::uint32_t& c,
                            std::uint32_t& d) {
  ReplyBuffer reply(18);
  if (!owner_.Send(Packet(0x75, 2).Byte(1, channel_), reply)) return false;
  a = GetLong(reply.Bytes(), 2);
  b = GetLong(reply.Bytes(), 6);
  c = GetLong(reply.Bytes(), 10);
  d = GetLong(reply.Bytes(), 14);
  return true;
}

bool ChannelCommands::ReadQ(float& r, std::uint32_t& a, std::uint32_t& b, std::uint32_t& c) {
  if (!ManualVision() && !generation::AnswersReadQ(owner_.versionInfo)) {
    r = 0;
    a = b = c = 0;
    return true;
  }
  ReplyBuffer reply(32);
  if (!owner_.Send(Packet(0x71, 2).Byte(1, channel_), reply)) return false;
  r = wire::GetReal(reply.Bytes(), 2);
  a = GetLong(reply.Bytes(), 6);
  b = GetLong(reply.Bytes(), 10);
  c = GetLong(reply.Bytes(), 18);
  return true;
}

bool ChannelCommands::GetTemperature(std::int32_t& raw, double& scale) {
  if (!ManualVision() && !generation::HasChannelTemperature(owner_.versionInfo)) {
    raw = 0;
    scale = 0.0;
    return true;
  }
  ReplyBuffer reply(32);
  if (!owner_.Send(Packet(0x5D, 2).Byte(1, channel_), reply)) return false;
  raw = wire::GetSignedLong(reply.Bytes(), 1);
  scale = wire::GetReal(reply.Bytes(), 5);
  return true;
}

bool ChannelCommands::CommandHash() {
  if (!ManualVision() && !generation::HasChannelHash(owner_.versionInfo)) return false;
  return owner_.SendSet(Packet(0x23, 16).Byte(2, channel_), true);
}

bool ChannelCommands::EepromAvailable() const {
  const BoardVersionInfo& v = owner_.versionInfo;
  if (ManualVision()) return v.hasWAxis;
  return v.hasWAxis && generation::HasChannelEepromCommands(v);
}

bool ChannelCommands::GetEepromInfo(EepromInfo& out) {
  if (!EepromAvailable()) {
    out = EepromInfo{};
    return true;
  }
  ReplyBuffer reply(kEepromInfoReply);
  if (!owner_.Send(Packet(kEepromInfoCode, 32).Byte(1, channel_), reply)) return false;
  const wire::Bytes r = reply.Bytes();
  out = EepromInfo{};
  out.present = GetFlag(r, 1);
  out.userSize = GetWord(r, 2);
  out.kind = wire::GetByte(r, 4);
  out.machineSize = GetWord(r, 5);
  out.hasCopy = GetFlag(r, 7);
  // These channels do not report their page and transfer sizes; the W axis has 32 and 64, the
  // platen's description carries none.
  out.pageSize = Platen() ? 0 : 32;
  out.maxReadWrite = Platen() ? 0 : 64;
  EepromInfo& own = owner_.WEepromInfo;
  if (!Platen() && !ManualVision() && &out != &own) {
    // `present` and `kind` follow a write in progress; the record of the last open keeps its own.
    const bool present = own.present;
    const std::uint8_t kind = own.kind;
    own = out;
    own.present = present;
    own.kind = kind;
  }
  return true;
}

bool ChannelCommands::ReadEepromBlock(std::uint32_t address, std::uint32_t length,
                                      std::uint32_t& status, std::uint8_t* out, bool area) {
  const EepromInfo& info = owner_.WEepromInfo;
  const bool oldForm = !ManualVision() && !generation::HasEepromBlockCommands(owner_.versionInfo);
  const bool longForm = info.maxReadWrite > 64;
  const std::uint32_t replyLength = oldForm ? kOldBlockReply : longForm ? kLongBlock : kShortBlock;
  const std::size_t dataAt = oldForm ? 4 : kBlockDataAt;
  // A piece that one reply cannot carry is refused like one above maxReadWrite.
  if (length > info.maxReadWrite || length > replyLength - dataAt) {
    status = kStatusOutOfRange;
    return false;
  }
  if (!EepromAvailable()) {
    std::fill_n(out, length, std::uint8_t{0xFF});
    status = kStatusUnavailable;
    return true;
  }
  Packet request(kEepromReadCode, oldForm ? kOldBlockRequest : 32);
  if (oldForm) {
    request.Word(1, static_cast<std::uint16_t>(address))
        .Word(3, static_cast<std::uint16_t>(length));
  } else if (longForm) {
    request.Byte(1, 2).Flag(2, area).Long(7, address).Long(11, length);
  } else {
    request.Byte(1, 2).Flag(2, area).Word(3, static_cast<std::uint16_t>(address));
    request.Word(5, static_cast<std::uint16_t>(length));
  }
  ReplyBuffer reply(replyLength);
  if (!owner_.Send(request, reply)) return false;
  status = wire::GetByte(reply.Bytes(), oldForm ? 1 : 2);
  if (status == 0 && length > 0) std::memcpy(out, reply.data() + dataAt, length);
  return true;
}

bool ChannelCommands::ReadEeprom(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                                 std::uint8_t* out, bool area) {
  const EepromInfo& info = owner_.WEepromInfo;
  if (std::uint64_t{address} + length > info.userSize) {
    status = kStatusOutOfRange;
    return true;
  }
  status = 0;
  while (length > 0) {
    // No alignment to pages here: every piece is maxReadWrite long but the last.
    const std::uint32_t piece = std::min(info.maxReadWrite, length);
    if (piece == 0) {
      status = kStatusOutOfRange;
      return false;
    }
    if (!ReadEepromBlock(address, piece, status, out, area)) return false;
    if (status != 0) return true;
    address += piece;
    out += piece;
    length -= piece;
  }
  return true;
}

bool ChannelCommands::WriteEepromBlock(std::uint32_t address, std::uint32_t length,
                                       const std::uint8_t* in, bool area) {
  const EepromInfo& info = owner_.WEepromInfo;
  const bool oldForm = !ManualVision() && !generation::HasEepromBlockCommands(owner_.versionInfo);
  const bool longForm = info.maxReadWrite > 64;
  const std::uint32_t requestLength = oldForm    ? kOldWriteRequest
                                      : longForm ? kLongBlock
                                                 : kShortBlock;
  const std::size_t dataAt = oldForm ? 5 : kBlockDataAt;
  if (length > info.maxReadWrite || length > requestLength - dataAt) return false;
  if (!EepromAvailable()) return true;
  Packet request(kEepromWriteCode, requestLength);
  if (oldForm) {
    request.Word(1, static_cast<std::uint16_t>(address))
        .Word(3, static_cast<std::uint16_t>(length));
  } else if (longForm) {
    // The long address stands at byte 3 here, not at 7 as in the read.
    request.Byte(1, 2).Flag(2, area).Long(3, address).Long(7, length);
  } else {
    request.Byte(1, 2).Flag(2, area).Word(3, static_cast<std::uint16_t>(address));
    request.Word(5, static_cast<std::uint16_t>(length));
  }
  if (length > 0) std::memcpy(request.Bytes().data() + dataAt, in, length);
  return oldForm ? owner_.SendSet(request) : owner_.SendSet(request, true);
}

bool ChannelCommands::WriteEeprom(std::uint32_t address, std::uint32_t length,
                                  std::uint32_t& status, const std::uint8_t* in, bool area) {
  const EepromInfo& own = owner_.WEepromInfo;
  if (std::uint64_t{address} + length > own.userSize) {
    status = kStatusOutOfRange;
    return true;
  }
  status = 0;
  platform::Clock& clock = platform::Clock::Current();
  while (length > 0) {
    const std::uint32_t piece = std::min(own.maxReadWrite, length);
    if (piece == 0 || !WriteEepromBlock(address, piece, in, area)) {
      status = kStatusUnavailable;
      return false;
    }
    // The channel reports `present` while the write goes on and its result in `kind` after it.
    EepromInfo progress;
    for (;;) {
      if (!GetEepromInfo(progress) || !progress.present) break;
      clock.SleepFor(kWriteYield);
    }
    status = progress.kind;
    if (status != 0) return true;
    address += piece;
    in += piece;
    length -= piece;
  }
  return true;
}
