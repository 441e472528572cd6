// The generation rules at their edges: each firmware gate between the version a board reports
// just before its release and the release itself, each protocol gate over every generation, each
// kind of machine, and the driver's word.
#include "link/Generations.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/link/ControllerFixture.h"

namespace {

using namespace generation;
using testing_support::AutoVisionBoard;
using Gate = std::function<bool(const BoardVersionInfo&)>;

// Versions as boards report them: 1.81f widened to double is a little below 1.81, so a gate
// written as "not below 1.81" would keep 1.81 firmware out.
TEST(Generations, EachFirmwareGateOpensAtItsRelease) {
  struct Case {
    const char* gate;
    float before, release;
    Gate open;
  };
  const auto laserForm = [](const BoardVersionInfo& v) {
    return ServoLaserPointForm(v, MachineKind::AutoVision);
  };
  const Case cases[] = {
      {"32-byte EEPROM description", 1.10f, 1.11f,
       [](const BoardVersionInfo& v) { return !AsksEepromInfoInOneByte(v); }},
      {"axis sync", 1.11f, 1.12f, SyncsAxes},
      {"failed axes", 1.11f, 1.12f, ReportsAxisFailure},
      {"AxisWord8", 1.13f, 1.14f, DefinesAxisWord8},
      {"machine data", 1.13f, 1.14f, HasMachineData},
      {"PMD version", 1.50f, 1.51f,
       [](const BoardVersionInfo& v) { return AnswersPmdVersion(v, MachineKind::Servo, 0); }},
      {"channel EEPROM", 1.51f, 1.52f, HasChannelEepromCommands},
      {"platen extra record", 1.61f, 1.62f, HasPlatenExtraRecord},
      {"channel temperature", 1.72f, 1.73f, HasChannelTemperature},
      {"channel ReadQ", 1.77f, 1.78f, AnswersReadQ},
      {"laser points", 1.80f, 1.81f,
       [&](const BoardVersionInfo& v) { return laserForm(v) != LaserPointForm::None; }},
      {"laser form B", 1.81f, 1.82f,
       [&](const BoardVersionInfo& v) { return laserForm(v) == LaserPointForm::B; }},
      {"laser settings", 1.82f, 1.83f, HasLaserSettings},
      {"interrupt command", 1.82f, 1.83f, HasInterruptCommand},
      {"laser form C", 1.83f, 1.84f,
       [&](const BoardVersionInfo& v) { return laserForm(v) == LaserPointForm::C; }},
      {"manual-vision analog inputs", 2.01f, 2.02f, ManualVisionHasAnalogInputs},
      {"board data", 2.07f, 2.08f,
       [](const BoardVersionInfo& v) { return HasBoardDataCommand(v, MachineKind::AutoVision); }},
      {"status light", 2.17f, 2.18f,
       [](const BoardVersionInfo& v) { return HasStatusLight(v, MachineKind::AutoVision); }},
      {"clear sleep", 2.21f, 2.22f,
       [](const BoardVersionInfo& v) { return ClearsSleep(v, MachineKind::AutoVision); }},
      {"LED words", 2.24f, 2.25f,
       [](const BoardVersionInfo& v) { return HasLedWords(v, MachineKind::AutoVision); }},
  };
  BoardVersionInfo v = AutoVisionBoard();
  for (const Case& c : cases) {
    v.firmwareVersion = c.before;
    EXPECT_FALSE(c.open(v)) << c.gate << " at " << c.before;
    v.firmwareVersion = c.release;
    EXPECT_TRUE(c.open(v)) << c.gate << " at " << c.release;
  }
}

TEST(Generations, EachProtocolGateOpensAtItsGeneration) {
  struct Case {
    const char* gate;
    std::uint16_t from;
    Gate open;
  };
  const Case cases[] = {
      {"set replies", 1, AnswersSetCommands},
      {"index valid flag", 1, HasIndexValidFlag},
      {"touch probe commands", 1, HasTouchProbeCommands},
      {"poll after the oldest", 1,
       [](const BoardVersionInfo& v) {
         return ServoPollForm(v, MachineKind::Servo) != PollForm::Oldest;
       }},
      {"EEPROM machine area", 2, EepromInfoHasMachineArea},
      {"extended identity", 2, HasExtendedIdentity},
      {"diagnostic text", 2, HasDiagText},
      {"EEPROM block commands", 2, HasEepromBlockCommands},
      {"machine image kept", 2, KeepsMachineImage},
      {"channel hash", 2, HasChannelHash},
      {"a maximum per light channel", 3,
       [](const BoardVersionInfo& v) { return !HasOneWordLightForm(v); }},
      {"four extents", 4, ReportsFourExtents},
      {"manual-vision long forms", 5, ManualVisionHasLongForms},
      {"refused", 6, [](const BoardVersionInfo& v) { return !ProtocolSupported(v); }},
  };
  BoardVersionInfo v = AutoVisionBoard();
  for (const Case& c : cases) {
    for (std::uint16_t p = 0; p <= 7; ++p) {
      v.protocolVersion = p;
      EXPECT_EQ(c.open(v), p >= c.from) << c.gate << " at protocol " << p;
    }
  }
}

// An unknown kind counts as neither machine: it gets none of the auto-vision commands.
TEST(Generations, OnlyAutoVisionMachinesHaveTheirCommands) {
  const BoardVersionInfo v = AutoVisionBoard();
  struct Case {
    const char* gate;
    std::function<bool(MachineKind)> open;
    bool unknown, servo, autoVision;
  };
  const Case cases[] = {
      {"board data", [&](MachineKind k) { return HasBoardDataCommand(v, k); }, false, false, true},
      {"temperature", HasBoardTemperature, false, false, true},
      {"probe capture Extra", ProbeCaptureHasExtra, false, false, true},
      {"status light", [&](MachineKind k) { return HasStatusLight(v, k); }, false, false, true},
      {"clear sleep", [&](MachineKind k) { return ClearsSleep(v, k); }, false, false, true},
      {"LED words", [&](MachineKind k) { return HasLedWords(v, k); }, false, false, true},
      {"second motion chip", [&](MachineKind k) { return AnswersPmdVersion(v, k, 1); }, false,
       false, true},
      {"first motion chip", [&](MachineKind k) { return AnswersPmdVersion(v, k, 0); }, true, true,
       true},
      {"long poll", [&](MachineKind k) { return ServoPollForm(v, k) == PollForm::Long; }, false,
       false, true},
      {"laser form C",
       [&](MachineKind k) { return ServoLaserPointForm(v, k) == LaserPointForm::C; }, false, false,
       true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.open(MachineKind::Unknown), c.unknown) << c.gate;
    EXPECT_EQ(c.open(MachineKind::Servo), c.servo) << c.gate;
    EXPECT_EQ(c.open(MachineKind::AutoVision), c.autoVision) << c.gate;
  }
}

// The third byte from the low end is read as signed, the fourth as unsigned; the low two bytes
// play no part.
TEST(Generations, TheDriversWordTellsAnOldDriver) {
  struct Case {
    std::uint32_t word;
    bool old;
  };
  for (const Case& c :
       {Case{0x00000000, true}, Case{0x01020000, true}, Case{0x0102FFFF, true},
        Case{0x01FF0000, true}, Case{0x01800000, true}, Case{0x01030000, false},
        Case{0x02020000, false}, Case{0x02040000, false}, Case{0xFF000000, false}}) {
    EXPECT_EQ(IsOldDriver(c.word), c.old) << std::hex << c.word;
  }
}

}  // namespace
