// Records the base commands fill, in host order. Text fields hold UTF-8; on the wire they are
// 32-byte UTF-16 fields.
#pragma once

#include <cstdint>
#include <string>

// The board's version record (command 0x2B). Fields marked "kept" belong to the reply format and
// are stored, but no operation reads them.
struct BoardVersionInfo {
  std::string firmwareName;   // "Auto Vision", "Servo" or another; picks the page family
  float firmwareVersion = 0;  // decimal, as 1.81; gates command forms
  std::uint16_t byte37 = 0;   // kept
  bool isServo = false;
  bool hasLightChannels = false;
  std::uint16_t lightChannelCount = 0;
  bool flag42 = false;  // kept
  bool isManualVision = false;
  std::uint16_t word44 = 0;  // kept
  bool flag48 = false;       // kept
  bool flags50[4] = {};      // kept
  bool hasCommand72 = false;
  std::uint16_t boardRevision = 0;
  bool hasWAxis = false;      // live
  bool platenFitted = false;  // live
  bool flag59 = false;        // kept
  bool hasTouchProbe = false;
  std::uint16_t protocolVersion = 0;  // generation of the command set
  std::uint8_t laserType = 0;         // above 0: a laser probe is fitted; live
  bool flag64 = false;                // kept
  bool laserNotReady = false;         // live
  bool eepromInfoLong = false;        // the board answers 0x28 in its long form

  bool operator==(const BoardVersionInfo&) const = default;
};

// EEPROM sizes (command 0x28).
struct EepromInfo {
  bool present = false;  // on the W channel also: a write is in progress
  std::uint8_t kind = 0;
  std::uint32_t userSize = 0;
  std::uint32_t machineSize = 0;  // upper limit of ReadEeprom
  std::uint32_t updateSize = 0;
  std::uint32_t pageSize = 0;      // a power of two
  std::uint32_t maxReadWrite = 0;  // largest single read
  bool hasCopy = false;

  bool operator==(const EepromInfo&) const = default;
};

// The board's identity (command 0x60). The last four fields come in the extended form only
// (generation::HasExtendedIdentity).
struct BoardIdentity {
  std::string serialNumber;
  std::string machineName;
  std::string modelName;
  std::uint16_t identityWord = 0;
  std::uint32_t identityLong1 = 0;
  std::uint32_t identityLong2 = 0;
  bool identityFlag = false;

  bool operator==(const BoardIdentity&) const = default;
};
