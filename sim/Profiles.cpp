#include "sim/Profiles.h"

#include <algorithm>
#include <optional>
#include <string_view>

namespace sim {

namespace {

// Driver words: the newer driver reports 2.4, the first one 1.2 (see Profile::driverWord).
constexpr std::uint32_t kNewDriverWord = 0x02040000;
constexpr std::uint32_t kOldDriverWord = 0x01020000;

// The scales of the stage axes X, Y, Z and Zoom.
struct AxisScale {
  std::int32_t countsPerMm;
  std::uint16_t motorMaximum;
};
constexpr AxisScale kStageScales[4] = {{.countsPerMm = 2000, .motorMaximum = 12000},
                                       {.countsPerMm = 2000, .motorMaximum = 12000},
                                       {.countsPerMm = 2500, .motorMaximum = 9000},
                                       {.countsPerMm = 400, .motorMaximum = 6000}};

// Axis tuning that a commissioned stage carries. The four axes differ in every field so that an
// axis index mixed up anywhere reads as a wrong value.
std::array<AxisSetup, 4> StageAxes() {
  std::array<AxisSetup, 4> axes{};
  for (std::size_t i = 0; i < axes.size(); ++i) {
    const auto n = static_cast<std::uint16_t>(i);
    axes[i] = {.countsPerMm = kStageScales[i].countsPerMm,
               .motorMaximum = kStageScales[i].motorMaximum,
               .axisReal = 0.0005f * static_cast<float>(i + 1),
               .kp = static_cast<std::uint16_t>(180 + 10 * n),
               .kd = static_cast<std::uint16_t>(900 + 20 * n),
               .ki = static_cast<std::uint16_t>(4 + n),
               .il = static_cast<std::uint32_t>(20000 + 1000 * i),
               .fe = static_cast<std::uint32_t>(8000 + 500 * i),
               .kvff = static_cast<std::uint16_t>(30 + n),
               .kaff = static_cast<std::uint16_t>(60 + n),
               .dt = static_cast<std::uint16_t>(2 + n),
               .kout = static_cast<std::uint16_t>(65000 - 100 * n),
               .mb = static_cast<std::int16_t>(-12 + 5 * n)};
  }
  return axes;
}

// The boards from which the others derive, written out in full.
Profile AutoVision() {
  return {.name = "autovision",
          .description = "current servo board of an Auto Vision machine",
          .version = {.firmwareName = u"Auto Vision",
                      .firmwareVersion = 2.30f,
                      .byte37 = 0x25,
                      .isServo = true,
                      .hasLightChannels = true,
                      // Within the Lights page and one packet; autovision-48 has more.
                      .lightChannelCount = 12,
                      .flag42 = true,
                      .word44 = 0x2C,
                      .flag48 = true,
                      .flags50 = {true, false, true, false},
                      .hasCommand72 = true,
                      .boardRevision = 4,
                      .hasWAxis = true,
                      .hasTouchProbe = true,
                      .protocolVersion = 5,
                      .laserType = 1,
                      .flag64 = true,
                      .eepromInfoLong = true},
          .eeprom = {.present = true,
                     .kind = 2,
                     .userSize = 4096,
                     .machineSize = 2048,
                     .updateSize = 65536,
                     .pageSize = 64,
                     .maxReadWrite = 256,
                     .hasCopy = true},
          .identity = {.serialNumber = u"AV3-24-01187",
                       .machineName = u"Auto Vision 300",
                       .modelName = u"AV300 CNC",
                       .identityWord = 0x0203,
                       .identityLong1 = 20240315,
                       .identityLong2 = 0x00C0FFEE,
                       .identityFlag = false},
          .driverWord = kNewDriverWord,
          .axes = StageAxes(),
          .namedRecord = {.name = u"Stage map 2024",
                          .values = {1.0025f, 0.9987f, 0.00042f},
                          .byte1 = 3,
                          .byte2 = 7}};
}

// The first generation: no machine image to read, short EEPROM answers, the first driver.
Profile FirstGenerationServo() {
  return {.name = "servo",
          .description = "first-generation Servo board, protocol 1",
          .version = {.firmwareName = u"Servo",
                      .firmwareVersion = 1.60f,
                      .byte37 = 0x11,
                      .isServo = true,
                      .hasLightChannels = true,
                      .lightChannelCount = 5,
                      .boardRevision = 2,
                      .hasWAxis = true,
                      .platenFitted = true,  // firmware this old has no extra platen record
                      .hasTouchProbe = true,
                      .protocolVersion = 1},
          .eeprom = {.present = true,
                     .kind = 1,
                     .userSize = 2048,
                     .machineSize = 1024,
                     .updateSize = 0,
                     .pageSize = 32,
                     .maxReadWrite = 64,
                     .hasCopy = false},
          .identity = {.serialNumber = u"SV-07-00412",
                       .machineName = u"Servo 200",
                       .modelName = u"SV200"},
          .driverWord = kOldDriverWord,
          .axes = StageAxes(),
          .namedRecord = {.name = u"Servo stage"}};
}

Profile ManualVision() {
  return {.name = "manualvision",
          .description = "manual-vision board, protocol 5",
          .version = {.firmwareName = u"Manual Vision",
                      .firmwareVersion = 2.10f,
                      .byte37 = 0x31,
                      .hasLightChannels = true,
                      .lightChannelCount = 16,
                      .isManualVision = true,
                      .word44 = 0x07,
                      .boardRevision = 3,
                      .hasWAxis = true,
                      .hasTouchProbe = true,
                      .protocolVersion = 5,
                      .laserType = 2},
          .eeprom = {.present = true,
                     .kind = 3,
                     .userSize = 1024,
                     .machineSize = 1536,
                     .updateSize = 0,
                     .pageSize = 32,
                     .maxReadWrite = 64,
                     .hasCopy = true},
          .identity = {.serialNumber = u"MV-22-03310",
                       .machineName = u"Manual Vision 2",
                       .modelName = u"MV250",
                       .identityWord = 0x0105,
                       .identityLong1 = 20220901,
                       .identityLong2 = 0x0000BEEF,
                       .identityFlag = true},
          .driverWord = kNewDriverWord,
          .axes = StageAxes(),
          .namedRecord = {.name = u"Manual stage"},
          .fpgaWord = 0x0207};
}

// What a profile changes of the one it derives from; a field left empty keeps the base's.
struct ProfileChange {
  std::string name;
  std::string from;
  std::string description;
  std::optional<std::u16string> firmwareName;
  std::optional<float> firmwareVersion;
  std::optional<std::uint16_t> protocolVersion;
  std::optional<bool> isManualVision;
  std::optional<std::uint8_t> boardRevision;
  std::optional<std::uint8_t> lightChannelCount;  // 0 also clears hasLightChannels
  std::optional<std::uint8_t> laserType;
  std::optional<bool> hasWAxis;
  std::optional<bool> platenFitted;
  std::optional<bool> hasCommand72;
  std::optional<std::u16string> serialNumber;
  std::optional<std::u16string> machineName;
  std::optional<std::u16string> modelName;
  // The identity's numbers (answered from protocol 2 on), as one: a board of protocol 0 has none.
  std::optional<std::uint16_t> identityWord;
  std::optional<bool> noIdentityNumbers;
  std::optional<std::uint32_t> driverWord;
};

template <class T, class U>
void Take(const std::optional<T>& change, U& field) {
  if (change) field = *change;
}

Profile Derive(const Profile& base, const ProfileChange& c) {
  Profile p = base;
  p.name = c.name;
  p.description = c.description;
  VersionRecord& v = p.version;
  Take(c.firmwareName, v.firmwareName);
  Take(c.firmwareVersion, v.firmwareVersion);
  Take(c.protocolVersion, v.protocolVersion);
  Take(c.isManualVision, v.isManualVision);
  Take(c.boardRevision, v.boardRevision);
  Take(c.lightChannelCount, v.lightChannelCount);
  if (c.lightChannelCount) v.hasLightChannels = *c.lightChannelCount > 0;
  Take(c.laserType, v.laserType);
  Take(c.hasWAxis, v.hasWAxis);
  Take(c.platenFitted, v.platenFitted);
  Take(c.hasCommand72, v.hasCommand72);
  IdentityRecord& id = p.identity;
  Take(c.serialNumber, id.serialNumber);
  Take(c.machineName, id.machineName);
  Take(c.modelName, id.modelName);
  Take(c.identityWord, id.identityWord);
  if (c.noIdentityNumbers.value_or(false)) {
    id.identityWord = 0;
    id.identityLong1 = id.identityLong2 = 0;
    id.identityFlag = false;
  }
  Take(c.driverWord, p.driverWord);
  return p;
}

// The derived profiles in the order `profiles` lists them, after the bases; each derives from one
// listed before it.
const ProfileChange kDifferences[] = {
    {.name = "servo-pv0",
     .from = "servo",
     .description = "oldest Servo board, protocol 0, firmware 1.10",
     .firmwareVersion = 1.10f,
     .protocolVersion = 0,
     .boardRevision = 1,
     .lightChannelCount = 1,
     .serialNumber = u"SV-03-00057",
     .driverWord = 0x01000000},
    // A board from a firmware generation newer than the host knows.
    {.name = "pv6",
     .from = "autovision",
     .description = "Auto Vision board with protocol 6 (newer than the host supports)",
     .firmwareVersion = 3.00f,
     .protocolVersion = 6,
     .boardRevision = 5,
     .serialNumber = u"AV4-26-00003",
     .driverWord = 0x02050000},
    // A board that is neither a servo nor a manual-vision controller (a test fixture board).
    {.name = "neither",
     .from = "manualvision",
     .description = "board that is neither servo nor manual vision",
     .firmwareName = u"Bench Fixture",
     .firmwareVersion = 2.00f,
     .protocolVersion = 2,
     .isManualVision = false,
     .lightChannelCount = 0,
     .serialNumber = u"BF-01-00001",
     .machineName = u"Bench fixture",
     .modelName = u"BF1"},
    // Later first-generation boards: each brings a form of the laser points and of the lights.
    {.name = "servo-laser",
     .from = "servo",
     .description = "Servo 1.81, protocol 1: packed laser points, platen extra record",
     .firmwareVersion = 1.81f,
     .laserType = 1,
     .serialNumber = u"SV-09-00733"},
    {.name = "servo-pv3",
     .from = "servo",
     .description = "Servo 1.82, protocol 3, first driver: 21 light channels a packet",
     .firmwareVersion = 1.82f,
     .protocolVersion = 3,
     .lightChannelCount = 24,
     .laserType = 1,
     .platenFitted = false,
     .serialNumber = u"SV-11-01020",
     .identityWord = 0x0102},
    {.name = "servo-pv2",
     .from = "servo",
     .description = "Servo 1.85, protocol 2, newer driver: machine image, laser form D",
     .firmwareVersion = 1.85f,
     .protocolVersion = 2,
     .laserType = 1,
     .platenFitted = false,
     .hasCommand72 = true,
     .serialNumber = u"SV-12-01544",
     .driverWord = kNewDriverWord},
    {.name = "manualvision-pv4",
     .from = "manualvision",
     .description = "manual-vision board, protocol 4: compact poll, laser form D",
     .firmwareVersion = 2.01f,
     .protocolVersion = 4,
     .serialNumber = u"MV-19-00871"},
    // The oldest manual-vision board: protocol 0, yet every set command still answers two bytes.
    {.name = "manualvision-pv0",
     .from = "manualvision",
     .description = "manual-vision board, protocol 0: short identity, no diagnostic text",
     .firmwareVersion = 1.50f,
     .protocolVersion = 0,
     .lightChannelCount = 8,
     .laserType = 0,
     .serialNumber = u"MV-14-00102",
     .noIdentityNumbers = true,
     .driverWord = kOldDriverWord},
    // More light channels than one packet carries, so the lights take two; more than the
    // Lights page drives, so its profile and coaxial rows stand greyed.
    {.name = "autovision-48",
     .from = "autovision",
     .description = "Auto Vision board with 48 light channels: two packets, beyond the page",
     .lightChannelCount = 48,
     .serialNumber = u"AV3-24-01188"},
    {.name = "autovision-no-w",
     .from = "autovision",
     .description = "Auto Vision board without a W axis",
     .hasWAxis = false,
     .serialNumber = u"AV3-24-01189"},
};

std::vector<Profile> AllProfiles() {
  std::vector<Profile> all = {AutoVision(), FirstGenerationServo(), ManualVision()};
  for (const ProfileChange& change : kDifferences) {
    const auto base = std::find_if(all.begin(), all.end(),
                                   [&](const Profile& p) { return p.name == change.from; });
    all.push_back(Derive(*base, change));
  }
  return all;
}

}  // namespace

const std::vector<Profile>& Profiles() {
  static const std::vector<Profile> profiles = AllProfiles();
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
