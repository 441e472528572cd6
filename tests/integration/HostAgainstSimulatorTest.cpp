// The real link code against the simulated board, in virtual time. The two sides read and write
// every layout independently, so a wrong offset on either side shows here.
#include <gtest/gtest.h>

#include "app/CTavroTestApp.h"
#include "link/CTavroUsb.h"
#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "platform/Clock.h"
#include "sim/MachineImage.h"
#include "sim/Profiles.h"
#include "sim/Simulator.h"
#include "tests/support/Recorders.h"
#include "tests/support/ScriptedBoard.h"
#include "util/Text.h"

namespace {

using namespace testing_support;

class HostAgainstSimulator : public LinkFixture {
 protected:
  std::unique_ptr<sim::Simulator> Start(const std::string& profile,
                                        const std::string& entry = "class1:0") {
    auto board = std::make_unique<sim::Simulator>(
        sim::SimulatorOptions{.profile = profile, .deviceDir = dir.Path(), .entry = entry});
    std::string error;
    EXPECT_TRUE(board->Start(&error)) << error;
    return board;
  }
};

class EveryProfile : public HostAgainstSimulator,
                     public ::testing::WithParamInterface<const char*> {};

TEST_P(EveryProfile, RecordsReadByTheHostEqualTheBoards) {
  const sim::Profile& p = *sim::FindProfile(GetParam());
  auto board = Start(GetParam());
  CTavroUsb usb;
  ASSERT_EQ(usb.Open(true, false), 0);
  EXPECT_TRUE(boxes.Boxes().empty());

  const BoardVersionInfo& v = usb.VersionInfo();
  EXPECT_EQ(v.firmwareName, text::ToUtf8(p.version.firmwareName));
  EXPECT_FLOAT_EQ(v.firmwareVersion, p.version.firmwareVersion);
  EXPECT_EQ(v.isServo, p.version.isServo);
  EXPECT_EQ(v.isManualVision, p.version.isManualVision);
  EXPECT_EQ(v.lightChannelCount, p.version.lightChannelCount);
  EXPECT_EQ(v.boardRevision, p.version.boardRevision);
  EXPECT_EQ(v.hasWAxis, p.version.hasWAxis);
  EXPECT_EQ(v.hasTouchProbe, p.version.hasTouchProbe);
  EXPECT_EQ(v.protocolVersion, p.version.protocolVersion);
  EXPECT_EQ(v.laserType, p.version.laserType);
  EXPECT_EQ(v.eepromInfoLong, p.version.eepromInfoLong);
  EXPECT_EQ(usb.DriverWord(), p.driverWord);

  const EepromInfo& e = usb.EepromInformation();
  EXPECT_EQ(e.present, p.eeprom.present);
  EXPECT_EQ(e.userSize, p.eeprom.userSize);
  EXPECT_EQ(e.pageSize, p.eeprom.pageSize);
  EXPECT_EQ(e.maxReadWrite, p.eeprom.maxReadWrite);
  if (p.version.protocolVersion >= 2) {
    EXPECT_EQ(e.machineSize, p.eeprom.machineSize);
  }

  BoardIdentity id;
  ASSERT_TRUE(usb.ReadBoardIdentity(id));
  EXPECT_EQ(id.serialNumber, text::ToUtf8(p.identity.serialNumber));
  EXPECT_EQ(id.modelName, text::ToUtf8(p.identity.modelName));
  EXPECT_EQ(id.identityLong2, p.identity.identityLong2);

  std::vector<std::uint8_t> image(1022);
  std::uint32_t status = 9;
  if (p.version.protocolVersion >= 2) {
    ASSERT_TRUE(usb.ReadEeprom(0, 1022, status, image.data(), false));
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(image, sim::BuildMachineImage(p));
  } else {
    EXPECT_FALSE(usb.ReadEeprom(0, 1022, status, image.data(), false));
  }
  EXPECT_TRUE(usb.IsOpen());
  EXPECT_TRUE(log.Entries().empty());
}

INSTANTIATE_TEST_SUITE_P(Profiles, EveryProfile,
                         ::testing::Values("autovision", "servo", "manualvision", "servo-pv0",
                                           "neither"));

TEST_F(HostAgainstSimulator, StartUpPicksTheControllerForEachProfile) {
  struct Recording : CTavroTestApp {
    std::string ran;
    std::uint32_t kind = 99;
    void RunServoDialog(CTavroUsbServo& s, const BoardVersionInfo&) override {
      ran = "servo";
      kind = s.MachineKind();
    }
    void RunManualVisionDialog(CTavroUsbManualVision&, const BoardVersionInfo&) override {
      ran = "manual";
    }
  };
  struct Case {
    const char* profile;
    const char* ran;
    std::uint32_t kind;
    std::size_t boxes;
  };
  for (const Case& c : {Case{"autovision", "servo", 2, 0}, Case{"servo", "servo", 1, 0},
                        Case{"manualvision", "manual", 99, 0}, Case{"neither", "", 99, 0},
                        Case{"pv6", "", 99, 1}}) {
    auto board = Start(c.profile);
    Recording app;
    EXPECT_FALSE(app.InitInstance());
    EXPECT_EQ(app.ran, c.ran) << c.profile;
    EXPECT_EQ(app.kind, c.kind) << c.profile;
    EXPECT_EQ(boxes.Boxes().size(), c.boxes) << c.profile;
  }
}

TEST_F(HostAgainstSimulator, DiagnosticTextComesOnceAndThenNothing) {
  auto board = Start("autovision");
  CTavroUsb usb;
  ASSERT_EQ(usb.Open(false, false), 0);
  board->QueueDiagText("axis X homed\r\n");
  std::string text;
  ASSERT_TRUE(usb.ReadDiagText(text));
  EXPECT_NE(text.find("axis X homed\r\n"), std::string::npos);
  ASSERT_TRUE(usb.ReadDiagText(text));
  EXPECT_EQ(text, "");
}

// Each fault pattern of the board ends in the channel's error for it.
TEST_F(HostAgainstSimulator, FaultPatternsEndAsTheChannelsTableSays) {
  struct Case {
    const char* fault;
    std::size_t attempts;
    const char* logged;
    std::int64_t waitedMs;
  };
  for (const Case& c :
       {Case{"fault refuse 0x2B", 3, "USB Error 13 - NAK_PACKET (2 63)", 0},
        Case{"fault short 0x2B", 3, "USB Error 13 - lpBytesReturned != nOutBufferSize (68 69)", 0},
        Case{"fault long 0x2B", 3, "USB Error 13 - lpBytesReturned != nOutBufferSize (70 69)", 0},
        Case{"fault drop 0x2B", 1, "[1/3]: USB Error 997 - \r\n", 5000},
        Case{"fault status 0x2B code=23", 3, "[3/3]: USB Error 23 - ERROR_CRC", 0},
        Case{"fault status 0x2B code=121", 3, "[3/3]: USB Error 121 - ERROR_SEM_TIMEOUT", 0},
        Case{"fault status 0x2B code=2", 1, "[1/3]: USB Error 2 - ERROR_FILE_NOT_FOUND", 0},
        Case{"fault status 0x2B code=6", 1, "[1/3]: USB Error 6 - ERROR_INVALID_HANDLE", 0},
        Case{"fault status 0x2B code=995", 1, "[1/3]: USB Error 995 - ERROR_OPERATION_ABORTED",
             0}}) {
    auto board = Start("autovision");
    CTavroUsb usb;
    ASSERT_EQ(usb.Open(false, false), 0);
    ASSERT_EQ(board->Command(c.fault).rfind("ok", 0), 0u) << c.fault;
    const auto started = ElapsedMs();
    BoardVersionInfo v;
    EXPECT_FALSE(usb.ReadBoardVersion(v)) << c.fault;
    EXPECT_FALSE(usb.IsOpen());
    EXPECT_EQ(ElapsedMs() - started, c.waitedMs) << c.fault;
    ASSERT_FALSE(log.Messages().empty());
    EXPECT_NE(log.Messages().back().find(c.logged), std::string::npos)
        << c.fault << ": " << log.Messages().back();
    board->Command("fault clear");
    EXPECT_EQ(usb.Open(false, false), 0) << "reconnects once the fault is gone";
  }
}

TEST_F(HostAgainstSimulator, UnplugLosesTheLinkAndReplugBringsItBack) {
  auto board = Start("autovision", "HnUsba4");
  CTavroUsb usb;
  ASSERT_EQ(usb.Open(false, false), 0);
  board->Command("unplug");
  BoardVersionInfo v;
  EXPECT_FALSE(usb.ReadBoardVersion(v));
  EXPECT_FALSE(usb.IsOpen());
  EXPECT_EQ(usb.Open(false, false), 1);
  ASSERT_EQ(board->Command("replug").rfind("ok", 0), 0u);
  EXPECT_EQ(usb.Open(false, false), 0);
  EXPECT_TRUE(usb.ReadBoardVersion(v));
  board->Command("profile servo");
  ASSERT_TRUE(usb.ReadBoardVersion(v));
  EXPECT_EQ(v.firmwareName, "Servo");
}

}  // namespace
