// The machine image of a servo board and the commands that only serve it: the named record
// (0x72), the machine data (0x31) and the per-axis definition (0x62).
#include <cmath>
#include <cstring>

#include "link/CTavroUsbServo.h"
#include "util/Text.h"

namespace {

using wire::GetByte;
using wire::GetFlag;
using wire::GetLong;
using wire::GetWord;

constexpr std::uint8_t kAxisDefineCode = 0x62;
constexpr std::uint32_t kAxisDefineReply = 47;
constexpr std::uint8_t kNamedRecordCode = 0x72;
constexpr std::uint32_t kNamedRecordReply = 65;
constexpr std::uint8_t kMachineDataCode = 0x31;
constexpr std::uint32_t kMachineDataReply = 32;

// Writes host-order fields into one section of an image being put together; offsets count from
// the section's start and arrays of four are indexed by axis.
class SectionWriter {
 public:
  SectionWriter(EepromImage& image, std::size_t section)
      : s_(image.bytes.data() + kImageSectionPlaces[section].offset) {}

  template <typename T>
  void Put(std::size_t at, T value) {
    std::memcpy(s_ + at, &value, sizeof value);
  }
  void Flag(std::size_t at, bool value) { s_[at] = value ? 1 : 0; }
  // Up to 16 UTF-16 units, little-endian, zero-filled behind.
  void Text(std::size_t at, const std::string& utf8) {
    const std::u16string units = text::ToUtf16(utf8);
    std::memset(s_ + at, 0, wire::kWideTextBytes);
    for (std::size_t i = 0; i < units.size() && i < wire::kWideTextUnits; ++i) {
      s_[at + 2 * i] = static_cast<std::uint8_t>(units[i] & 0xFF);
      s_[at + 2 * i + 1] = static_cast<std::uint8_t>(units[i] >> 8);
    }
  }
  void Sign() {
    s_[0] = kOlderLayout[0];
    s_[1] = kOlderLayout[1];
  }

 private:
  std::uint8_t* s_;
};

void PutAxisDefineFirstHalf(SectionWriter& s, std::size_t axis, const AxisDefine& d) {
  s.Put(2 + 4 * axis, d.AxisReal);
  s.Put(18 + 2 * axis, d.AxisWord1);
  s.Put(26 + 2 * axis, d.AxisWord2);
  s.Put(34 + 2 * axis, d.AxisWord3);
  s.Put(42 + 2 * axis, d.AxisWord4);
  s.Put(50 + 2 * axis, d.AxisWord5);
  s.Put(58 + 4 * axis, d.AxisLong1);
  s.Put(74 + 2 * axis, d.MotorMaximum);
  s.Put(82 + 2 * axis, d.AxisWord6);
  s.Put(90 + 2 * axis, d.AxisWord7);
  s.Flag(98 + axis, d.AxisFlag1);
  s.Flag(102 + axis, d.AxisFlag2);
  s.Flag(106 + axis, d.AxisFlag3);
  s.Flag(110 + axis, d.AxisFlag4);
  s.Flag(114 + axis, d.AxisFlag5);
  s.Flag(118 + axis, d.AxisFlag6);
  s.Put(122 + 4 * axis, d.AxisLong2);
  s.Flag(138 + axis, d.AxisFlag7);
  s.Put(142 + 2 * axis, d.AxisWord8);
  s.Put<std::uint8_t>(150 + axis, 0);  // AxisByte1
}

void PutAxisDefineSecondHalf(SectionWriter& s, std::size_t axis, const AxisDefine& d) {
  s.Put(2 + 4 * axis, d.CountsPerMm);
  s.Flag(18 + axis, d.AxisFlag9);
  s.Flag(22 + axis, d.AxisFlag10);
  s.Flag(26 + axis, d.AxisFlag6);
  s.Put(30 + axis, d.AxisByte2);
  s.Flag(34 + axis, d.AxisFlag11);
}

void PutAxisPid(SectionWriter& s, std::size_t axis, const AxisPid& p) {
  s.Put(2 + 2 * axis, p.Kp);
  s.Put(10 + 2 * axis, p.Kd);
  s.Put(18 + 2 * axis, p.Ki);
  s.Put(26 + 4 * axis, p.Il);
  s.Put(42 + 4 * axis, p.Fe);
  s.Put(58 + 2 * axis, p.Kvff);
  s.Put(66 + 2 * axis, p.Kaff);
  s.Put(74 + 2 * axis, p.Dt);
  s.Put(82 + 2 * axis, p.Kout);
  s.Put(90 + 2 * axis, p.Mb);
}

}  // namespace

bool CTavroUsbServo::GetAxisDefine(std::uint16_t axis, AxisDefine& out) {
  if (axis >= kAxisCount) return false;
  ReplyBuffer reply(kAxisDefineReply);
  if (!Send(Packet(kAxisDefineCode, 2).Byte(1, static_cast<std::uint8_t>(axis)), reply)) {
    return false;
  }
  const wire::Bytes r = reply.Bytes();
  out.AxisReal = wire::GetReal(r, 2);
  out.AxisWord1 = GetWord(r, 6);
  out.AxisWord2 = GetWord(r, 8);
  out.AxisWord3 = GetWord(r, 10);
  out.AxisWord4 = GetWord(r, 12);
  out.AxisWord5 = GetWord(r, 14);
  out.AxisLong1 = GetLong(r, 16);
  out.MotorMaximum = GetWord(r, 20);
  out.AxisWord6 = GetWord(r, 22);
  out.AxisWord7 = GetWord(r, 24);
  out.AxisFlag1 = GetFlag(r, 26);
  out.AxisFlag2 = GetFlag(r, 27);
  out.AxisFlag3 = GetFlag(r, 28);
  out.AxisFlag4 = GetFlag(r, 29);
  out.AxisFlag5 = GetFlag(r, 30);
  out.CountsPerMm = GetLong(r, 31);
  out.AxisFlag9 = GetFlag(r, 35);
  out.AxisFlag10 = GetFlag(r, 36);
  out.AxisFlag6 = GetFlag(r, 37);
  out.AxisByte2 = GetByte(r, 38);
  out.AxisFlag11 = GetFlag(r, 39);
  out.AxisLong2 = GetLong(r, 40);
  out.AxisFlag7 = GetFlag(r, 44);
  out.AxisWord8 = generation::DefinesAxisWord8(versionInfo) ? GetWord(r, 45) : 0;
  return true;
}

bool CTavroUsbServo::GetNamedRecord(bool& valid, NamedRecord& out) {
  if (!versionInfo.hasCommand72) {
    out = NamedRecord{};
    valid = false;
    return true;
  }
  ReplyBuffer reply(kNamedRecordReply);
  if (!Send(Packet(kNamedRecordCode, 1), reply)) return false;
  const wire::Bytes r = reply.Bytes();
  // An erased name (first unit 0 or 0xFFFF) marks the record as never written.
  const auto firstUnit = static_cast<std::uint16_t>(r[2] | (r[3] << 8));
  valid = GetFlag(r, 1) && firstUnit != 0 && firstUnit != 0xFFFF;
  out = NamedRecord{};
  if (!valid) return true;
  out.Name = text::ToUtf8(wire::GetWideText(r, 2));
  out.Value1 = wire::GetReal(r, 34);
  out.Value2 = wire::GetReal(r, 38);
  out.Value3 = wire::GetReal(r, 42);
  out.Byte1 = GetByte(r, 46);
  out.Byte2 = GetByte(r, 47);
  return true;
}

bool CTavroUsbServo::GetMachineData(MachineData& out) {
  if (!generation::HasMachineData(versionInfo)) {
    out = MachineData{};
    out.Real = -1.0f;
    return true;
  }
  ReplyBuffer reply(kMachineDataReply);
  if (!Send(Packet(kMachineDataCode, 1), reply)) return false;
  const wire::Bytes r = reply.Bytes();
  out.Flag1 = GetFlag(r, 1);
  out.Real = wire::GetReal(r, 6);
  if (std::isnan(out.Real)) out.Real = -1.0f;
  out.Flag2 = GetFlag(r, 10);
  out.Long1 = GetLong(r, 11);
  out.Long2 = GetLong(r, 15);
  out.Byte = GetByte(r, 19);
  return true;
}

bool CTavroUsbServo::GetEepromImage(EepromImage& out, std::uint32_t& status, bool upgrade) {
  if (generation::KeepsMachineImage(versionInfo)) {
    if (!CTavroUsb::ReadEeprom(0, kEepromImageBytes, status, out.bytes.data(), false)) {
      return false;
    }
    // A nonzero status does not end the read: the caller looks at it.
    image::ToHostForm(out);
  } else {
    status = 0;
    out = EepromImage{};
    if (!AssembleOlderImage(out)) return false;
  }
  if (upgrade) image::Upgrade(out);
  return true;
}

// Boards that keep no image get one put together from the per-axis commands, in the older layout.
bool CTavroUsbServo::AssembleOlderImage(EepromImage& out) {
  BoardIdentity identity;
  if (!ReadBoardIdentity(identity)) return false;
  SectionWriter s0(out, 0);
  s0.Text(2, identity.serialNumber);
  s0.Text(34, identity.machineName);
  s0.Text(66, identity.modelName);
  s0.Put(98, identity.identityWord);
  s0.Put(100, identity.identityLong1);
  s0.Put(104, identity.identityLong2);
  s0.Flag(108, identity.identityFlag);
  s0.Sign();

  if (versionInfo.hasCommand72) {
    bool valid = false;
    NamedRecord named;
    if (!GetNamedRecord(valid, named) || !valid) return false;
    SectionWriter s1(out, 1);
    s1.Text(2, named.Name);
    s1.Put(34, named.Value1);
    s1.Put(38, named.Value2);
    s1.Put(42, named.Value3);
    s1.Put(46, named.Byte1);
    s1.Put(47, named.Byte2);
    s1.Sign();
  }

  SectionWriter s2(out, 2);
  SectionWriter s3(out, 3);
  AxisDefine define;
  for (std::uint16_t axis = 0; axis < kAxisCount; ++axis) {
    if (!GetAxisDefine(axis, define)) return false;
    PutAxisDefineFirstHalf(s2, axis, define);
  }
  s2.Sign();
  for (std::uint16_t axis = 0; axis < kAxisCount; ++axis) {
    if (!GetAxisDefine(axis, define)) return false;
    PutAxisDefineSecondHalf(s3, axis, define);
  }
  s3.Sign();

  MachineData machine;
  if (!GetMachineData(machine)) return false;
  SectionWriter s4(out, 4);
  s4.Flag(2, machine.Flag1);
  s4.Put(7, machine.Real);
  s4.Sign();

  SectionWriter s6(out, 6);
  AxisPid pid;
  for (std::uint16_t axis = 0; axis < kAxisCount; ++axis) {
    if (!GetAxisPid(axis, pid)) return false;
    PutAxisPid(s6, axis, pid);
  }
  s6.Sign();
  return true;
}
