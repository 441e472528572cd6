// The real link code against the simulated board, in virtual time. The two sides read and write
// every layout independently, so a wrong offset, length or gate on either side shows here.
#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "sim/MachineImage.h"
#include "sim/Profiles.h"
#include "sim/Simulator.h"
#include "tests/support/Recorders.h"
#include "tests/support/ScriptedBoard.h"
#include "util/Text.h"

namespace {

using namespace testing_support;
using std::chrono::milliseconds;
using std::chrono::seconds;

class AgainstSimulator : public LinkFixture {
 protected:
  void Start(const std::string& profile) {
    board_ = std::make_unique<sim::Simulator>(
        sim::SimulatorOptions{.profile = profile, .deviceDir = dir.Path()});
    std::string error;
    ASSERT_TRUE(board_->Start(&error)) << error;
  }
  void Control(const std::string& line) {
    const std::string answer = board_->Command(line);
    EXPECT_EQ(answer.rfind("ok", 0), 0u) << line << " -> " << answer;
  }
  // Polls every 50 ms of machine time until `done` holds or `limit` has passed.
  template <typename Done>
  bool PollUntil(CTavroUsbController& c, ServoStatus& s, platform::Duration limit, Done done) {
    const platform::TimePoint end = clock.Now() + limit;
    while (clock.Now() < end) {
      if (!c.PollStatus(s, 0, 0)) return false;
      if (done(s)) return true;
      clock.SleepFor(milliseconds(50));
    }
    return false;
  }

  std::unique_ptr<sim::Simulator> board_;
};

class EveryProfile : public AgainstSimulator, public ::testing::WithParamInterface<std::string> {};

TEST_P(EveryProfile, RecordsReadByTheHostEqualTheBoards) {
  const sim::Profile& p = *sim::FindProfile(GetParam());
  Start(GetParam());
  CTavroUsb usb;
  ASSERT_EQ(usb.Open(true, false), 0);

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

  // Boards below protocol 2 answer the short identity; their profiles keep the extras zero.
  BoardIdentity id;
  ASSERT_TRUE(usb.ReadBoardIdentity(id));
  const sim::IdentityRecord& i = p.identity;
  EXPECT_EQ(id, (BoardIdentity{text::ToUtf8(i.serialNumber), text::ToUtf8(i.machineName),
                               text::ToUtf8(i.modelName), i.identityWord, i.identityLong1,
                               i.identityLong2, i.identityFlag}));

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
  EXPECT_TRUE(boxes.Boxes().empty());
}

// Boards newer than protocol 5 are refused at open by design.
std::vector<std::string> OpenableProfiles() {
  std::vector<std::string> names;
  for (const sim::Profile& p : sim::Profiles()) {
    if (p.version.protocolVersion <= 5) names.push_back(p.name);
  }
  return names;
}

INSTANTIATE_TEST_SUITE_P(Profiles, EveryProfile, ::testing::ValuesIn(OpenableProfiles()),
                         [](const auto& param) {
                           std::string name = param.param;
                           for (char& c : name) {
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           }
                           return name;
                         });

TEST_F(AgainstSimulator, AnAxisDrivenOpenLoopRunsIntoItsLimitAndABlockedOneStalls) {
  Start("autovision");
  Control("block y");
  CTavroUsb link;
  ASSERT_EQ(link.Open(true, false), 0);
  CTavroUsbServo servo(link);
  ServoStatus s;
  ASSERT_TRUE(servo.PollStatus(s, 0, 0));
  const std::int32_t startX = s.LinearPosition[0];
  const std::int32_t startY = s.LinearPosition[1];

  AxisPid drive;
  drive.Mb = 3000;
  ASSERT_TRUE(servo.SetAxisPid(0, drive));
  ASSERT_TRUE(servo.SetAxisPid(1, drive));
  ASSERT_TRUE(PollUntil(servo, s, seconds(5), [](const ServoStatus& x) { return x.Moving[0]; }));
  EXPECT_GT(s.LinearPosition[0], startX);
  ASSERT_TRUE(PollUntil(servo, s, seconds(120),
                        [](const ServoStatus& x) { return x.Limit[0] > 0 && x.Stalled[0]; }));
  EXPECT_TRUE(s.Stalled[1]);
  EXPECT_EQ(s.LinearPosition[1], startY);
  EXPECT_EQ(s.Limit[1], 0);

  // Reversed, it leaves the limit switch behind.
  drive.Mb = -3000;
  ASSERT_TRUE(servo.SetAxisPid(0, drive));
  EXPECT_TRUE(PollUntil(servo, s, seconds(5),
                        [](const ServoStatus& x) { return x.Limit[0] == 0 && x.Moving[0]; }));
  EXPECT_TRUE(log.Entries().empty());
}

TEST_F(AgainstSimulator, ThePlatenOpensAndClosesInAFewSeconds) {
  Start("autovision");
  Control("platen in");
  CTavroUsb link;
  ASSERT_EQ(link.Open(true, false), 0);
  CTavroUsbServo servo(link);
  ASSERT_TRUE(servo.VersionInfo().platenFitted);
  CTavroUsbPlaten& platen = servo;

  ServoStatus s;
  const platform::TimePoint began = clock.Now();
  ASSERT_TRUE(platen.MovePlaten(1));
  ASSERT_TRUE(PollUntil(servo, s, seconds(20),
                        [](const ServoStatus& x) { return x.PlatenLimit > 0 && !x.PlatenMoving; }));
  const auto opening = clock.Now() - began;
  EXPECT_GT(opening, milliseconds(500));
  EXPECT_LT(opening, seconds(10));
  std::uint32_t open = 0;
  ASSERT_TRUE(platen.GetPosition(open));

  ASSERT_TRUE(platen.MovePlaten(0));
  ASSERT_TRUE(PollUntil(servo, s, seconds(20),
                        [](const ServoStatus& x) { return x.PlatenLimit < 0 && !x.PlatenMoving; }));
  std::uint32_t closed = 0;
  ASSERT_TRUE(platen.GetPosition(closed));
  EXPECT_NE(open, closed);
  EXPECT_TRUE(log.Entries().empty());
}

TEST_F(AgainstSimulator, WhatAPersonDoesAtTheMachineShowsInThePoll) {
  Start("autovision");
  CTavroUsb link;
  ASSERT_EQ(link.Open(true, false), 0);
  CTavroUsbServo servo(link);
  Control("estop on");
  Control("footswitch on");
  Control("probe trip");
  Control("sleep on");
  Control("joystick 0.5 0 -1");
  ServoStatus s;
  ASSERT_TRUE(servo.PollStatus(s, 0, 0));
  EXPECT_TRUE(s.EStop);
  EXPECT_TRUE(s.Footswitch);
  EXPECT_TRUE(s.TouchProbeTrip);
  EXPECT_TRUE(s.Sleep);
  PendantState pendant;
  ASSERT_TRUE(servo.GetPendant(pendant));
  EXPECT_GT(pendant.PendantPos[0], 0);
  EXPECT_EQ(pendant.PendantPos[1], 0);
  EXPECT_LT(pendant.PendantPos[2], 0);

  Control("estop off");
  ASSERT_TRUE(servo.ClearSleep());
  ASSERT_TRUE(servo.PollStatus(s, 0, 0));
  EXPECT_FALSE(s.EStop);
  EXPECT_FALSE(s.Sleep);
}

TEST_F(AgainstSimulator, EachFaultPatternEndsInTheChannelsErrorForIt) {
  struct Case {
    const char* fault;
    const char* logged;
    std::int64_t waitedMs;
  };
  for (const Case& c : {
           Case{"fault refuse 0x2B", "[3/3]: USB Error 13 - NAK_PACKET (2 63)", 0},
           Case{"fault short 0x2B",
                "[3/3]: USB Error 13 - lpBytesReturned != nOutBufferSize (68 69)", 0},
           Case{"fault long 0x2B",
                "[3/3]: USB Error 13 - lpBytesReturned != nOutBufferSize (70 69)", 0},
           Case{"fault drop 0x2B", "[1/3]: USB Error 997 - \r\n", 5000},
           Case{"fault status 0x2B code=23", "[3/3]: USB Error 23 - ERROR_CRC", 0},
           Case{"fault status 0x2B code=2", "[1/3]: USB Error 2 - ERROR_FILE_NOT_FOUND", 0},
           Case{"fault status 0x2B code=995", "[1/3]: USB Error 995 - ERROR_OPERATION_ABORTED", 0},
       }) {
    SCOPED_TRACE(c.fault);
    Start("autovision");
    CTavroUsb usb;
    ASSERT_EQ(usb.Open(false, false), 0);
    Control(c.fault);
    const auto started = ElapsedMs();
    BoardVersionInfo v;
    EXPECT_FALSE(usb.ReadBoardVersion(v));
    EXPECT_FALSE(usb.IsOpen());
    EXPECT_EQ(ElapsedMs() - started, c.waitedMs);
    ASSERT_FALSE(log.Messages().empty());
    EXPECT_NE(log.Messages().back().find(c.logged), std::string::npos) << log.Messages().back();
    Control("fault clear");
    EXPECT_EQ(usb.Open(false, false), 0) << "reconnects once the fault is gone";
  }
}

}  // namespace
