#include "sim/Profiles.h"

#include <string_view>

namespace sim {

namespace {

// Driver words: the newer driver reports 2.4, the first one 1.2 (see Profile::driverWord).
constexpr std::uint32_t kNewDriverWord = 0x02040000;
constexpr std::uint32_t kOldDriverWord = 0x01020000;

// Axis tuning that a commissioned stage of the current generation carries. The four axes differ
// in every field so that an axis index mixed up anywhere reads as a wrong value.
std::array<AxisSetup, 4> StageAxes() {
  std::array<AxisSetup, 4> axes{};
  const std::int32_t counts[4] = {2000, 2000, 2500, 400};
  const std::uint16_t maxima[4] = {12000, 12000, 9000, 6000};
  for (std::size_t i = 0; i < axes.size(); ++i) {
    AxisSetup& a = axes[i];
    const auto n = static_cast<std::uint16_t>(i);
    a.countsPerMm = counts[i];
    a.motorMaximum = maxima[i];
    a.axisReal = 0.0005f * static_cast<float>(i + 1);
    a.kp = static_cast<std::uint16_t>(180 + 10 * n);
    a.kd = static_cast<std::uint16_t>(900 + 20 * n);
    a.ki = static_cast<std::uint16_t>(4 + n);
    a.il = 20000 + 1000 * i;
    a.fe = 8000 + 500 * i;
    a.kvff = static_cast<std::uint16_t>(30 + n);
    a.kaff = static_cast<std::uint16_t>(60 + n);
    a.dt = static_cast<std::uint16_t>(2 + n);
    a.kout = static_cast<std::uint16_t>(65000 - 100 * n);
    a.mb = static_cast<std::int16_t>(-12 + 5 * n);
  }
  return axes;
}

Profile AutoVision() {
  Profile p;
  p.name = "autovision";
  p.description = "current servo board of an Auto Vision machine";
  VersionRecord& v = p.version;
  v.firmwareName = u"Auto Vision";
  v.firmwareVersion = 2.30f;
  v.byte37 = 0x25;
  v.isServo = true;
  v.hasLightChannels = true;
  // More channels than one packet carries, so lights take two.
  v.lightChannelCount = 48;
  v.flag42 = true;
  v.word44 = 0x2C;
  v.flag48 = true;
  v.flags50 = {true, false, true, false};
  v.hasCommand72 = true;
  v.boardRevision = 4;
  v.hasWAxis = true;
  v.hasTouchProbe = true;
  v.protocolVersion = 5;
  v.laserType = 1;
  v.flag64 = true;
  v.eepromInfoLong = true;
  p.eeprom = {.present = true,
              .kind = 2,
              .userSize = 4096,
              .machineSize = 2048,
              .updateSize = 65536,
              .pageSize = 64,
              .maxReadWrite = 256,
              .hasCopy = true};
  p.identity = {.serialNumber = u"AV3-24-01187",
                .machineName = u"Auto Vision 300",
                .modelName = u"AV300 CNC",
                .identityWord = 0x0203,
                .identityLong1 = 20240315,
                .identityLong2 = 0x00C0FFEE,
                .identityFlag = false};
  p.driverWord = kNewDriverWord;
  p.axes = StageAxes();
  p.namedRecord = {
      .name = u"Stage map 2024", .values = {1.0025f, 0.9987f, 0.00042f}, .byte1 = 3, .byte2 = 7};
  return p;
}

// The first generation: no machine image to read, short EEPROM answers, the first driver.
Profile FirstGenerationServo() {
  Profile p;
  p.name = "servo";
  p.description = "first-generation Servo board, protocol 1";
  VersionRecord& v = p.version;
  v.firmwareName = u"Servo";
  v.firmwareVersion = 1.60f;
  v.byte37 = 0x11;
  v.isServo = true;
  v.hasLightChannels = true;
  v.lightChannelCount = 5;
  v.boardRevision = 2;
  v.hasWAxis = true;
  v.platenFitted = true;  // firmware this old has no extra platen record
  v.hasTouchProbe = true;
  v.protocolVersion = 1;
  p.eeprom = {.present = true,
              .kind = 1,
              .userSize = 2048,
              .machineSize = 1024,
              .updateSize = 0,
              .pageSize = 32,
              .maxReadWrite = 64,
              .hasCopy = false};
  p.identity = {.serialNumber = u"SV-07-00412", .machineName = u"Servo 200", .modelName = u"SV200"};
  p.driverWord = kOldDriverWord;
  p.axes = StageAxes();
  p.namedRecord = {.name = u"Servo stage"};
  return p;
}

Profile OldestServo() {
  Profile p = FirstGenerationServo();
  p.name = "servo-pv0";
  p.description = "oldest Servo board, protocol 0, firmware 1.10";
  p.version.firmwareVersion = 1.10f;
  p.version.protocolVersion = 0;
  p.version.boardRevision = 1;
  p.version.lightChannelCount = 1;
  p.identity.serialNumber = u"SV-03-00057";
  p.driverWord = 0x01000000;
  return p;
}

Profile ManualVision() {
  Profile p;
  p.name = "manualvision";
  p.fpgaWord = 0x0207;
  p.description = "manual-vision board, protocol 5";
  VersionRecord& v = p.version;
  v.firmwareName = u"Manual Vision";
  v.firmwareVersion = 2.10f;
  v.byte37 = 0x31;
  v.isManualVision = true;
  v.hasLightChannels = true;
  v.lightChannelCount = 16;
  v.word44 = 0x07;
  v.boardRevision = 3;
  v.hasWAxis = true;
  v.hasTouchProbe = true;
  v.protocolVersion = 5;
  v.laserType = 2;
  p.eeprom = {.present = true,
              .kind = 3,
              .userSize = 1024,
              .machineSize = 1536,
              .updateSize = 0,
              .pageSize = 32,
              .maxReadWrite = 64,
              .hasCopy = true};
  p.identity = {.serialNumber = u"MV-22-03310",
                .machineName = u"Manual Vision 2",
                .modelName = u"MV250",
                .identityWord = 0x0105,
                .identityLong1 = 20220901,
                .identityLong2 = 0x0000BEEF,
                .identityFlag = true};
  p.driverWord = kNewDriverWord;
  p.axes = StageAxes();
  p.namedRecord = {.name = u"Manual stage"};
  return p;
}

// Later first-generation boards: each brings a form of the laser points and of the lights.
Profile ServoWithLaser() {
  Profile p = FirstGenerationServo();
  p.name = "servo-laser";
  p.description = "Servo 1.81, protocol 1: packed laser points, platen extra record";
  p.version.firmwareVersion = 1.81f;
  p.version.laserType = 1;
  p.identity.serialNumber = u"SV-09-00733";
  return p;
}

Profile ServoProtocol3() {
  Profile p = FirstGenerationServo();
  p.name = "servo-pv3";
  p.description = "Servo 1.82, protocol 3, first driver: 21 light channels a packet";
  p.version.firmwareVersion = 1.82f;
  p.version.protocolVersion = 3;
  p.version.lightChannelCount = 24;
  p.version.laserType = 1;
  p.version.platenFitted = false;
  p.identity.serialNumber = u"SV-11-01020";
  p.identity.identityWord = 0x0102;
  return p;
}

Profile ServoProtocol2() {
  Profile p = FirstGenerationServo();
  p.name = "servo-pv2";
  p.description = "Servo 1.85, protocol 2, newer driver: machine image, laser form D";
  p.version.firmwareVersion = 1.85f;
  p.version.protocolVersion = 2;
  p.version.laserType = 1;
  p.version.platenFitted = false;
  p.version.hasCommand72 = true;
  p.identity.serialNumber = u"SV-12-01544";
  p.driverWord = kNewDriverWord;
  return p;
}

Profile ManualVisionProtocol4() {
  Profile p = ManualVision();
  p.name = "manualvision-pv4";
  p.description = "manual-vision board, protocol 4: compact poll, laser form D";
  p.version.firmwareVersion = 2.01f;
  p.version.protocolVersion = 4;
  p.identity.serialNumber = u"MV-19-00871";
  return p;
}

// The oldest manual-vision board: protocol 0, yet every set command still answers two bytes.
Profile ManualVisionProtocol0() {
  Profile p = ManualVision();
  p.name = "manualvision-pv0";
  p.description = "manual-vision board, protocol 0: short identity, no diagnostic text";
  p.version.firmwareVersion = 1.50f;
  p.version.protocolVersion = 0;
  p.version.laserType = 0;
  p.version.lightChannelCount = 8;
  p.identity.serialNumber = u"MV-14-00102";
  p.identity.identityWord = 0;
  p.identity.identityLong1 = 0;
  p.identity.identityLong2 = 0;
  p.identity.identityFlag = false;
  p.driverWord = kOldDriverWord;
  return p;
}

// A board from a firmware generation newer than the host knows.
Profile NextGeneration() {
  Profile p = AutoVision();
  p.name = "pv6";
  p.description = "Auto Vision board with protocol 6 (newer than the host supports)";
  p.version.firmwareVersion = 3.00f;
  p.version.protocolVersion = 6;
  p.version.boardRevision = 5;
  p.identity.serialNumber = u"AV4-26-00003";
  p.driverWord = 0x02050000;
  return p;
}

// A board that is neither a servo nor a manual-vision controller (a test fixture board).
Profile NeitherKind() {
  Profile p = ManualVision();
  p.name = "neither";
  p.description = "board that is neither servo nor manual vision";
  p.version.firmwareName = u"Bench Fixture";
  p.version.firmwareVersion = 2.00f;
  p.version.isManualVision = false;
  p.version.protocolVersion = 2;
  p.version.hasLightChannels = false;
  p.version.lightChannelCount = 0;
  p.identity.serialNumber = u"BF-01-00001";
  p.identity.machineName = u"Bench fixture";
  p.identity.modelName = u"BF1";
  return p;
}

}  // namespace

const std::vector<Profile>& Profiles() {
  static const std::vector<Profile> profiles = {
      AutoVision(),     FirstGenerationServo(),  ManualVision(),         OldestServo(),
      NextGeneration(), NeitherKind(),           ServoWithLaser(),       ServoProtocol3(),
      ServoProtocol2(), ManualVisionProtocol4(), ManualVisionProtocol0()};
  return profiles;
}

const Profile* FindProfile(std::string_view name) {
  for (const Profile& p : Profiles()) {
    if (p.name == name) return &p;
  }
  return nullptr;
}

std::string ProfileNames() {
  std::string names;
  for (const Profile& p : Profiles()) {
    if (!names.empty()) names += ' ';
    names += p.name;
  }
  return names;
}

bool IsCurrentServo(const Profile& profile) {
  constexpr std::u16string_view kName = u"auto vision";
  const std::u16string& name = profile.version.firmwareName;
  if (!profile.version.isServo || name.size() != kName.size()) return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char16_t c = name[i] >= u'A' && name[i] <= u'Z' ? name[i] - u'A' + u'a' : name[i];
    if (c != kName[i]) return false;
  }
  return true;
}

}  // namespace sim
