// Each fault script of the simulated board under the real motion tests, in virtual time: what the
// test's report then says, and why. These are the cases of the training script in sim/README.md.
#include <gtest/gtest.h>

#include <string>

#include "tests/integration/MotionRig.h"

namespace {

using namespace testing_support;
using std::chrono::seconds;

class FaultScripts : public motion_rig::MotionRig {
 protected:
  void SetUp() override { Open("autovision"); }
  // X: 2000 counts a mm, its rotary 4000 a 5 mm turn.
  static constexpr long kX = 2000;
  static constexpr double kRotaryPerLinear = 4000.0 / 5 / kX;
  // Starts `script` and runs the test of `button`; the report's text.
  std::string RunUnder(const std::string& script, const std::string& button,
                       const std::string& report) {
    Control("script " + script);
    EXPECT_TRUE(RunTest(button));
    const std::string body = Report(report);
    EXPECT_FALSE(body.empty()) << "no report " << report;
    return body;
  }
  // Every stage axis is held by a record of its own (gains not all zero), as the board sees it.
  void ExpectEveryAxisUnderItsOwnRecord() {
    for (const char* axis : {"x", "y", "z", "zoom"})
      EXPECT_EQ(SimField(axis, "loop"), "closed") << axis;
  }
};

// The switch chatters closed before the axis reaches it: the seek takes the first closed look
// for the switch and ends short of it, inside the limits the extents expect.
TEST_F(FaultScripts, BouncingSwitchesEndTheLimitTestShortOfWhereTheSwitchesAre) {
  const AxisExtents extents = Page().Extents();
  const long expectedNegative = static_cast<std::int32_t>(extents.Extent3[1]);
  const long expectedPositive = static_cast<std::int32_t>(extents.Extent4[1]);
  const std::string body = RunUnder("bounce-limit", "YLimitTest", "LimitTest_Y_0.dat");
  const auto limits = motion_rig::NumbersAfter(body, "tive: ");
  ASSERT_GE(limits.size(), 2u) << body;
  // Healthy, the switches lie a millimetre outside the expected limits; here the seek stopped
  // within the 5 mm in which the switch chatters, short of both expected limits.
  EXPECT_GT(limits[0], expectedNegative) << body;
  EXPECT_LT(limits[0], expectedNegative + 5 * kX);
  EXPECT_LT(limits[1], expectedPositive) << body;
  EXPECT_GT(limits[1], expectedPositive - 5 * kX);
  EXPECT_EQ(body.find("DIDN'T REGISTER"), std::string::npos) << "a switch was seen, too soon";
  EXPECT_EQ(body.find("VOLTAGE LIMIT"), std::string::npos);
  ExpectEveryAxisUnderItsOwnRecord();
}

// The linear scale stands still while the motor turns: the ramp never sees the 10 mm it waits for
// and climbs to the voltage limit; the rotary encoder shows how far the axis went.
TEST_F(FaultScripts, AnEncoderDropoutClimbsToTheVoltageLimitWithNoLinearChange) {
  const std::string body = RunUnder("encoder-dropout", "XAxisTest", "AxisTest_X_0.dat");
  const auto change = motion_rig::NumbersAfter(body, "Change: ");
  ASSERT_EQ(change.size(), 4u) << body;
  EXPECT_EQ(change[0], 0) << "linear (-)";
  EXPECT_EQ(change[2], 0) << "linear (+)";
  EXPECT_LT(change[1], -10 * kX * kRotaryPerLinear) << "rotary (-): well beyond 10 mm";
  EXPECT_GT(change[3], 10 * kX * kRotaryPerLinear) << "rotary (+)";
  EXPECT_EQ(motion_rig::NumbersAfter(body, "VOLTAGE LIMIT REACHED").size(), 2u) << body;
  ExpectEveryAxisUnderItsOwnRecord();
}

// Both encoders count the other way: each run still arrives at its 10 mm, but the negative run
// reads as a positive change and the positive one as a negative change, on both encoders.
TEST_F(FaultScripts, FlippedSignsShowEachRunsChangeTheOtherWayOnBothEncoders) {
  const std::string body = RunUnder("signs-flipped", "XAxisTest", "AxisTest_X_0.dat");
  const auto change = motion_rig::NumbersAfter(body, "Change: ");
  ASSERT_EQ(change.size(), 4u) << body;
  EXPECT_GT(change[0], 10 * kX) << "linear (-) reads positive";
  EXPECT_LT(change[0], 15 * kX);
  EXPECT_GT(change[1], 0) << "rotary (-) too";
  EXPECT_LT(change[2], -10 * kX) << "linear (+) reads negative";
  EXPECT_LT(change[3], 0);
  EXPECT_EQ(body.find("VOLTAGE LIMIT"), std::string::npos);
  ExpectEveryAxisUnderItsOwnRecord();
}

// Blocked 3 mm into the negative run, the axis goes no further whatever the bias: the ramp climbs
// to the voltage limit. The positive run, away from the obstacle, is healthy.
TEST_F(FaultScripts, AStallMidMoveClimbsToTheVoltageLimitAFewMillimetresIn) {
  const std::string body = RunUnder("stall-mid-move", "XAxisTest", "AxisTest_X_0.dat");
  const auto change = motion_rig::NumbersAfter(body, "Change: ");
  ASSERT_EQ(change.size(), 4u) << body;
  EXPECT_NEAR(change[0], -3 * kX, kX / 5) << "2 mm in, then 1 mm to the obstacle";
  EXPECT_NEAR(change[1], change[0] * kRotaryPerLinear, 40) << "both encoders agree";
  EXPECT_GT(change[2], 10 * kX);
  EXPECT_LT(change[2], 15 * kX);
  const std::string negative = body.substr(0, body.find("X Axis (+)"));
  const std::string positive = body.substr(body.find("X Axis (+)"));
  EXPECT_NE(negative.find("VOLTAGE LIMIT REACHED"), std::string::npos) << body;
  EXPECT_EQ(positive.find("VOLTAGE LIMIT REACHED"), std::string::npos) << body;
  ExpectEveryAxisUnderItsOwnRecord();
}

// Pressed a millimetre into the negative run and left pressed: each run ends as a manual stop, the
// second at its first look.
TEST_F(FaultScripts, AnEStopMidMoveEndsBothRunsAsManualStops) {
  const std::string body = RunUnder("estop-mid-move", "XAxisTest", "AxisTest_X_0.dat");
  const auto change = motion_rig::NumbersAfter(body, "Change: ");
  ASSERT_EQ(change.size(), 4u) << body;
  EXPECT_LT(change[0], -kX / 2);
  EXPECT_GT(change[0], -2 * kX) << "stopped soon after the press";
  EXPECT_EQ(change[2], 0);
  EXPECT_EQ(motion_rig::NumbersAfter(body, "Manually Stopped: Yes").size(), 2u) << body;
  Control("script stop");
  ExpectEveryAxisUnderItsOwnRecord();
}

// The link goes for 3 s in the negative run. Whatever the run then does, once the link is back
// and the test has ended, every axis is under its own record again and the report is filed.
TEST_F(FaultScripts, ALinkDropMidTestEndsWithEveryAxisUnderItsOwnRecord) {
  Control("script link-drop");
  ASSERT_TRUE(RunTest("XAxisTest", seconds(600)));
  ASSERT_TRUE(Wait([&] { return board_->Plugged() && PageConnected(); }, seconds(30)));
  clock.SleepFor(seconds(2));
  EXPECT_TRUE(platform::FileExists(reports_ / "AxisTest_X_0.dat"));
  ExpectEveryAxisUnderItsOwnRecord();
}

// The board resets in the negative run and comes back without the records it was given: all gains
// zero is not an axis's own record, and the saved one must be written back.
TEST_F(FaultScripts, ABoardResetMidTestEndsWithEveryAxisUnderItsOwnRecord) {
  Control("script board-reset");
  ASSERT_TRUE(RunTest("XAxisTest", seconds(600)));
  ASSERT_TRUE(Wait([&] { return board_->Plugged() && PageConnected(); }, seconds(30)));
  clock.SleepFor(seconds(2));
  EXPECT_TRUE(platform::FileExists(reports_ / "AxisTest_X_0.dat"));
  ExpectEveryAxisUnderItsOwnRecord();
}

}  // namespace
