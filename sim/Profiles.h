// Profiles: what one kind of board says about itself. Each profile is a record of plain fields
// (the version record, the EEPROM geometry, the identity, the driver word and the machine data
// that the EEPROM image is generated from), so that a new board generation is a new table entry
// and not new code. A profile that differs from another in a few fields is written as those
// differences (Profiles.cpp).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// The fields of the 69-byte version reply, in the board's own terms. Fields that the host keeps
// but never reads are still carried with believable, distinct values so that a shifted offset on
// either side shows up in a test.
struct VersionRecord {
  std::u16string firmwareName;
  float firmwareVersion = 0.0f;
  std::uint8_t byte37 = 0;
  bool isServo = false;
  bool hasLightChannels = false;
  std::uint8_t lightChannelCount = 0;
  bool flag42 = false;
  bool isManualVision = false;
  std::uint8_t word44 = 0;
  bool flag48 = false;
  std::array<bool, 4> flags50{};
  bool hasCommand72 = false;
  std::uint8_t boardRevision = 0;
  bool hasWAxis = false;
  bool platenFitted = false;
  bool flag59 = false;
  bool hasTouchProbe = false;
  std::uint16_t protocolVersion = 0;
  std::uint8_t laserType = 0;
  bool flag64 = false;
  bool laserNotReady = false;
  bool eepromInfoLong = false;
};

// The board's EEPROM as the EEPROM-info command reports it. Boards that answer only the short
// form cannot report pageSize and maxReadWrite; the host then assumes 32 and 64, so such
// profiles must really have that geometry.
struct EepromGeometry {
  bool present = false;
  std::uint8_t kind = 0;
  std::uint32_t userSize = 0;
  std::uint32_t machineSize = 0;
  std::uint32_t updateSize = 0;
  std::uint32_t pageSize = 0;
  std::uint32_t maxReadWrite = 0;
  bool hasCopy = false;
};

struct IdentityRecord {
  std::u16string serialNumber;
  std::u16string machineName;
  std::u16string modelName;
  // Answered from protocolVersion 2 on; older boards keep them zero.
  std::uint16_t identityWord = 0;
  std::uint32_t identityLong1 = 0;
  std::uint32_t identityLong2 = 0;
  bool identityFlag = false;
};

// Tuning and definition of one of the axes X, Y, Z, Zoom, as stored in the machine image.
struct AxisSetup {
  std::int32_t countsPerMm = 0;
  std::uint16_t motorMaximum = 0;
  float axisReal = 0.0f;  // stored as is in the current image layout
  std::uint16_t kp = 0;
  std::uint16_t kd = 0;
  std::uint16_t ki = 0;
  std::uint32_t il = 0;
  std::uint32_t fe = 0;
  std::uint16_t kvff = 0;
  std::uint16_t kaff = 0;
  std::uint16_t dt = 0;
  std::uint16_t kout = 0;
  std::int16_t mb = 0;
};

// The record that command 0x72 reads and that section 1 of the machine image keeps.
struct NamedRecord {
  std::u16string name;
  std::array<float, 3> values{};
  std::uint8_t byte1 = 0;
  std::uint8_t byte2 = 0;
};

// What a motion chip reports (command 0x2C); a family of 0 is a chip that is not there.
struct ChipVersion {
  std::uint16_t family = 0;
  std::uint16_t motor = 0;
  std::uint16_t axes = 0;
  std::uint16_t attributes = 0;
  std::uint16_t customer = 0;
  std::uint16_t major = 0;
  std::uint16_t minor = 0;

  // In the order the reply carries them, a word each.
  std::array<std::uint16_t, 7> Words() const {
    return {family, motor, axes, attributes, customer, major, minor};
  }
};

struct Profile {
  std::string name;         // what --profile and the control command take
  std::string description;  // one line for the help and the start-up line
  VersionRecord version;
  EepromGeometry eeprom;
  IdentityRecord identity;
  // The count that the driver returns for the link-opened code. The host calls a driver old when
  // the third byte from the low end, signed, is below 3 and the fourth byte is below 2.
  std::uint32_t driverWord = 0;
  std::array<AxisSetup, 4> axes{};
  NamedRecord namedRecord;
  // The second chip answers only on current servo boards.
  std::array<ChipVersion, 2> chips = {
      ChipVersion{.family = 5, .motor = 2, .axes = 4, .attributes = 0x11, .major = 2, .minor = 40},
      ChipVersion{.family = 5, .motor = 2, .axes = 4, .attributes = 0x11, .major = 2, .minor = 41}};
  std::uint16_t fpgaWord = 0x0312;  // the FPGA's version (command 0x57, selector 2)
};

// The built-in profiles, in the order `profiles` lists them. The first is the default.
const std::vector<Profile>& Profiles();

// The profile of that name, or null.
const Profile* FindProfile(std::string_view name);

// The names, blank-separated, for messages.
std::string ProfileNames();

// The current servo boards ("Auto Vision" firmware); the rest of the servo boards are the first
// generation. The name is compared without regard to case, as a host reads it.
bool IsCurrentServo(const Profile& profile);

}  // namespace sim
