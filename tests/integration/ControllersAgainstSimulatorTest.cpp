// Both controllers against the simulated board, in virtual time: every operation round-trips for
// every profile, and the machine behaves as the motor tests will need it to.
#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "sim/Profiles.h"
#include "sim/Simulator.h"
#include "tests/support/EveryOperation.h"
#include "tests/support/Recorders.h"
#include "tests/support/ScriptedBoard.h"

namespace {

using namespace testing_support;
using std::chrono::milliseconds;
using std::chrono::seconds;

class ControllersAgainstSimulator : public LinkFixture {
 protected:
  void Start(const std::string& profile) {
    board_ = std::make_unique<sim::Simulator>(
        sim::SimulatorOptions{.profile = profile, .deviceDir = dir.Path()});
    std::string error;
    ASSERT_TRUE(board_->Start(&error)) << error;
  }
  std::string Control(const std::string& line) {
    const std::string answer = board_->Command(line);
    EXPECT_EQ(answer.rfind("ok", 0), 0u) << line << " -> " << answer;
    return answer;
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

std::vector<std::string> ControllerProfiles() {
  std::vector<std::string> names;
  for (const sim::Profile& p : sim::Profiles()) {
    // Boards newer than protocol 5 are refused at open by design; they have no operations.
    const bool controller = p.version.isServo || p.version.isManualVision;
    if (controller && p.version.protocolVersion <= 5) names.push_back(p.name);
  }
  return names;
}

class EveryOperation : public ControllersAgainstSimulator,
                       public ::testing::WithParamInterface<std::string> {};

TEST_P(EveryOperation, RoundTripsWithoutAFailedTransfer) {
  Start(GetParam());
  CTavroUsb link;
  ASSERT_EQ(link.Open(true, false), 0);
  OperationLog run;
  if (link.VersionInfo().isServo) {
    CTavroUsbServo servo(link);
    RunEveryServoOperation(servo, run);
    EXPECT_TRUE(servo.IsOpen());
  } else {
    CTavroUsbManualVision manual(link);
    RunEveryManualVisionOperation(manual, run);
    EXPECT_TRUE(manual.IsOpen());
  }
  EXPECT_GT(run.run, 50);
  EXPECT_EQ(run.failed, std::vector<std::string>{});
  EXPECT_EQ(log.Entries(), std::vector<std::string>{});
  EXPECT_TRUE(boxes.Boxes().empty());
}

INSTANTIATE_TEST_SUITE_P(Profiles, EveryOperation, ::testing::ValuesIn(ControllerProfiles()),
                         [](const auto& param) {
                           std::string name = param.param;
                           for (char& c : name) {
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           }
                           return name;
                         });

TEST_F(ControllersAgainstSimulator, AnAxisDrivenOpenLoopRunsIntoItsLimit) {
  Start("autovision");
  CTavroUsb link;
  ASSERT_EQ(link.Open(true, false), 0);
  CTavroUsbServo servo(link);
  ServoStatus s;
  ASSERT_TRUE(servo.PollStatus(s, 0, 0));
  const std::int32_t start = s.LinearPosition[0];

  // A drive inside the dead band does not move the axis.
  AxisPid drive;
  drive.Mb = 20;
  ASSERT_TRUE(servo.SetAxisPid(0, drive));
  clock.SleepFor(seconds(2));
  ASSERT_TRUE(servo.PollStatus(s, 0, 0));
  EXPECT_EQ(s.LinearPosition[0], start);
  EXPECT_FALSE(s.Moving[0]);

  // A strong one runs to the positive end of travel, stops there and reports it.
  drive.Mb = 3000;
  ASSERT_TRUE(servo.SetAxisPid(0, drive));
  ASSERT_TRUE(PollUntil(servo, s, seconds(5), [](const ServoStatus& x) { return x.Moving[0]; }));
  EXPECT_GT(s.LinearPosition[0], start);
  ASSERT_TRUE(PollUntil(servo, s, seconds(120),
                        [](const ServoStatus& x) { return x.Limit[0] > 0 && x.Stalled[0]; }));
  EXPECT_EQ(s.Limit[1], 0);
  EXPECT_NE(Control("axis x").find("limit=high"), std::string::npos);

  // Reversed, it leaves the limit switch behind.
  drive.Mb = -3000;
  ASSERT_TRUE(servo.SetAxisPid(0, drive));
  EXPECT_TRUE(PollUntil(servo, s, seconds(5),
                        [](const ServoStatus& x) { return x.Limit[0] == 0 && x.Moving[0]; }));
  EXPECT_TRUE(log.Entries().empty());
}

TEST_F(ControllersAgainstSimulator, ABlockedAxisStallsWhereItIs) {
  Start("autovision");
  CTavroUsb link;
  ASSERT_EQ(link.Open(true, false), 0);
  CTavroUsbServo servo(link);
  Control("block y");
  ServoStatus s;
  ASSERT_TRUE(servo.PollStatus(s, 0, 0));
  const std::int32_t start = s.LinearPosition[1];
  AxisPid drive;
  drive.Mb = 3000;
  ASSERT_TRUE(servo.SetAxisPid(1, drive));
  EXPECT_TRUE(PollUntil(servo, s, seconds(10), [](const ServoStatus& x) { return x.Stalled[1]; }));
  EXPECT_EQ(s.LinearPosition[1], start);
  EXPECT_EQ(s.Limit[1], 0);
}

TEST_F(ControllersAgainstSimulator, ThePlatenOpensAndClosesInAFewSeconds) {
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

TEST_F(ControllersAgainstSimulator, WhatAPersonDoesAtTheMachineShowsInThePoll) {
  Start("autovision");
  CTavroUsb link;
  ASSERT_EQ(link.Open(true, false), 0);
  CTavroUsbServo servo(link);
  ServoStatus s;
  ASSERT_TRUE(servo.PollStatus(s, 0, 0));
  EXPECT_FALSE(s.EStop);
  EXPECT_FALSE(s.Footswitch);

  Control("estop on");
  Control("footswitch on");
  Control("probe trip");
  ASSERT_TRUE(servo.PollStatus(s, 0, 0));
  EXPECT_TRUE(s.EStop);
  EXPECT_TRUE(s.Footswitch);
  EXPECT_TRUE(s.TouchProbeTrip);

  Control("estop off");
  Control("joystick 0.5 0 -1");
  PendantState pendant;
  ASSERT_TRUE(servo.GetPendant(pendant));
  EXPECT_GT(pendant.PendantPos[0], 0);
  EXPECT_EQ(pendant.PendantPos[1], 0);
  EXPECT_LT(pendant.PendantPos[2], 0);
  ASSERT_TRUE(servo.PollStatus(s, 0, 0));
  EXPECT_FALSE(s.EStop);

  Control("sleep on");
  ASSERT_TRUE(servo.PollStatus(s, 0, 0));
  EXPECT_TRUE(s.Sleep);
  ASSERT_TRUE(servo.ClearSleep());
  ASSERT_TRUE(servo.PollStatus(s, 0, 0));
  EXPECT_FALSE(s.Sleep);
}

}  // namespace
