// Which commands and command forms a board has. Every firmware, protocol and driver threshold of
// the host is written here once, in a predicate named after what it decides; the controllers ask
// the predicates and compare no version themselves.
//
// Boards differ by `protocolVersion` (the generation of the command set), by `firmwareVersion`,
// and on servo boards by the kind of machine learnt from the firmware's name. Manual-vision boards
// lack the oldest forms and most firmware gates; their predicates say ManualVision in the name,
// and the others are those of the servo boards unless told otherwise. A controller picks between
// the two by its dialect.
#pragma once

#include <cstdint>

#include "link/BoardRecords.h"

// The kind of servo machine, learnt from the firmware's name.
enum class MachineKind : std::uint32_t {
  Unknown = 0,
  Servo = 1,       // the first generation, firmware "Servo"
  AutoVision = 2,  // firmware "Auto Vision"
};

namespace generation {

// A firmware release, written as the number just below it. A version is a float such as 1.81f,
// which widened to double lands a hair either side of 1.81; "at least 1.81" is therefore tested
// as "not below 1.809". No float may equal the number, or "above" and "not below" would part at
// it: such a release does not compile.
struct Release {
  consteval Release(double justBelow) : below(justBelow) {
    if (static_cast<double>(static_cast<float>(justBelow)) == justBelow) {
      throw "a release is written as a number just below it that no float can hold";
    }
  }
  double below;
};

inline bool FirmwareFrom(const BoardVersionInfo& v, Release r) {
  return static_cast<double>(v.firmwareVersion) >= r.below;
}

// Command set generations and releases that brought several things at once.
//
// Protocol 1: set commands answer with two bytes; the index capture's valid flag; the touch
// probe commands; the status poll's flag byte and its later forms.
inline constexpr std::uint16_t kAnsweringProtocol = 1;
// Protocol 2: the identity's further fields; the diagnostic text; EEPROM blocks read in 32-byte
// requests, and with them the machine image kept in the board's EEPROM; the EEPROM
// description's machine area; the channels' hash command.
inline constexpr std::uint16_t kExtendedProtocol = 2;
// Firmware 1.12: the axis sync command and the poll's failed-axis flags.
inline constexpr Release kAxisSyncRelease{1.119};
// Firmware 1.14: the machine data command and the last word of the axis definition.
inline constexpr Release kMachineDataRelease{1.139};
// Firmware 1.83: the laser settings, and one interrupt command with a flag byte per interrupt in
// place of a one-byte command each.
inline constexpr Release kLaserSettingsRelease{1.829};

// ---- the link ---------------------------------------------------------------------------------

// The newest command set the host speaks; a later one is refused at open.
inline bool ProtocolSupported(const BoardVersionInfo& v) {
  return v.protocolVersion <= 5;
}

// The driver's word, from the link-opened call: a driver whose third byte (signed) is below 3 and
// fourth below 2 carries at most 21 light channels a packet.
inline bool IsOldDriver(std::uint32_t driverWord) {
  const auto third = static_cast<std::int8_t>((driverWord >> 16) & 0xFF);
  const auto fourth = static_cast<std::uint8_t>(driverWord >> 24);
  return third < 3 && fourth < 2;
}

// A command that only sets something is answered with two bytes, or with nothing before.
inline bool AnswersSetCommands(const BoardVersionInfo& v) {
  return v.protocolVersion >= kAnsweringProtocol;
}

// ---- base commands ----------------------------------------------------------------------------

// The EEPROM description is asked with one byte, not 32 (without `eepromInfoLong`).
inline bool AsksEepromInfoInOneByte(const BoardVersionInfo& v) {
  return !FirmwareFrom(v, 1.109);
}

// The short EEPROM description of a 32-byte request carries the machine area and copy flag.
inline bool EepromInfoHasMachineArea(const BoardVersionInfo& v) {
  return v.protocolVersion >= kExtendedProtocol;
}

// The identity (and a channel's serial record on servo boards) has the word, two longs and the
// flag behind its texts.
inline bool HasExtendedIdentity(const BoardVersionInfo& v) {
  return v.protocolVersion >= kExtendedProtocol;
}

inline bool HasDiagText(const BoardVersionInfo& v) {
  return v.protocolVersion >= kExtendedProtocol;
}

// EEPROMs are read and written in blocks of 32-byte requests (board and W channel); before, the
// W channel had a short form and the board's EEPROM could not be read.
inline bool HasEepromBlockCommands(const BoardVersionInfo& v) {
  return v.protocolVersion >= kExtendedProtocol;
}

// The machine image is kept in the board's EEPROM; before, it is put together from the axes'
// commands.
inline bool KeepsMachineImage(const BoardVersionInfo& v) {
  return v.protocolVersion >= kExtendedProtocol;
}

// ---- servo machine: axes, status and board data -----------------------------------------------

// The index capture's reply carries a valid flag; before, every capture is valid.
inline bool HasIndexValidFlag(const BoardVersionInfo& v) {
  return v.protocolVersion >= kAnsweringProtocol;
}

inline bool SyncsAxes(const BoardVersionInfo& v) {
  return v.isServo && FirmwareFrom(v, kAxisSyncRelease);
}

// The status poll's Failed flags mean something; before, they read as 0.
inline bool ReportsAxisFailure(const BoardVersionInfo& v) {
  return FirmwareFrom(v, kAxisSyncRelease);
}

// The axis definition's AxisWord8.
inline bool DefinesAxisWord8(const BoardVersionInfo& v) {
  return FirmwareFrom(v, kMachineDataRelease);
}

inline bool HasMachineData(const BoardVersionInfo& v) {
  return v.isServo && FirmwareFrom(v, kMachineDataRelease);
}

enum class PollForm : std::uint8_t { Oldest, Compact, Long };

inline PollForm ServoPollForm(const BoardVersionInfo& v, MachineKind kind) {
  if (v.protocolVersion < kAnsweringProtocol) return PollForm::Oldest;
  return kind == MachineKind::AutoVision ? PollForm::Long : PollForm::Compact;
}

// Extent3 and Extent4 are reported; before, they repeat Extent1 and Extent2.
inline bool ReportsFourExtents(const BoardVersionInfo& v) {
  return v.protocolVersion >= 4;
}

// First-generation machines have one motion chip.
inline bool AnswersPmdVersion(const BoardVersionInfo& v, MachineKind kind, std::uint32_t chip) {
  return FirmwareFrom(v, 1.509) && (kind == MachineKind::AutoVision || chip == 0);
}

// Command 0x57: the FPGA version, the analog inputs and the pendant.
inline bool HasBoardDataCommand(const BoardVersionInfo& v, MachineKind kind) {
  return kind == MachineKind::AutoVision && FirmwareFrom(v, 2.0799);
}

inline bool HasBoardTemperature(MachineKind kind) {
  return kind == MachineKind::AutoVision;
}

inline bool HasStatusLight(const BoardVersionInfo& v, MachineKind kind) {
  return kind == MachineKind::AutoVision && FirmwareFrom(v, 2.179);
}

inline bool ClearsSleep(const BoardVersionInfo& v, MachineKind kind) {
  return kind == MachineKind::AutoVision && FirmwareFrom(v, 2.219);
}

inline bool HasLedWords(const BoardVersionInfo& v, MachineKind kind) {
  return kind == MachineKind::AutoVision && FirmwareFrom(v, 2.249);
}

// ---- lights and probes --------------------------------------------------------------------------

// One maximum for all light channels, and one write of words for at most 42 channels.
inline bool HasOneWordLightForm(const BoardVersionInfo& v) {
  return v.protocolVersion < 3;
}

inline bool HasTouchProbeCommands(const BoardVersionInfo& v) {
  return v.protocolVersion >= kAnsweringProtocol;
}

// The probe capture's reply of 92 bytes, with Extra, in place of 76.
inline bool ProbeCaptureHasExtra(MachineKind kind) {
  return kind == MachineKind::AutoVision;
}

// The layouts of the laser points' reply; None: the board has no such command.
enum class LaserPointForm : std::uint8_t { None, A, B, C, D };

inline LaserPointForm ServoLaserPointForm(const BoardVersionInfo& v, MachineKind kind) {
  if (!FirmwareFrom(v, 1.809)) return LaserPointForm::None;
  if (!FirmwareFrom(v, 1.819)) return LaserPointForm::A;
  if (!FirmwareFrom(v, 1.839)) return LaserPointForm::B;
  return kind == MachineKind::AutoVision ? LaserPointForm::C : LaserPointForm::D;
}

inline bool HasLaserSettings(const BoardVersionInfo& v) {
  return FirmwareFrom(v, kLaserSettingsRelease);
}

inline bool HasInterruptCommand(const BoardVersionInfo& v) {
  return FirmwareFrom(v, kLaserSettingsRelease);
}

// ---- W axis and platen channels ---------------------------------------------------------------

// The channels' EEPROM commands (description, reads and writes), when a W axis is fitted.
inline bool HasChannelEepromCommands(const BoardVersionInfo& v) {
  return v.isServo && FirmwareFrom(v, 1.519);
}

// The platen's extra record: Size, Offset and SlowSpeedTurns.
inline bool HasPlatenExtraRecord(const BoardVersionInfo& v) {
  return FirmwareFrom(v, 1.619);
}

inline bool HasChannelTemperature(const BoardVersionInfo& v) {
  return FirmwareFrom(v, 1.729);
}

// Command 0x71 of a channel.
inline bool AnswersReadQ(const BoardVersionInfo& v) {
  return v.isServo && FirmwareFrom(v, 1.779);
}

inline bool HasChannelHash(const BoardVersionInfo& v) {
  return v.protocolVersion >= kExtendedProtocol;
}

// ---- manual-vision boards -----------------------------------------------------------------------

// The later forms: the long status poll, the 92-byte probe capture, laser points of form C, and
// the board data command. Before, the compact poll, 76 bytes, form D and no board data.
inline bool ManualVisionHasLongForms(const BoardVersionInfo& v) {
  return v.protocolVersion >= 5;
}

inline bool ManualVisionHasAnalogInputs(const BoardVersionInfo& v) {
  return ManualVisionHasLongForms(v) && FirmwareFrom(v, 2.0199);
}

}  // namespace generation
