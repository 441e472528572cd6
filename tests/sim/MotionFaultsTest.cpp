// What the simulated machine does for the motion tests: its switches where the board's extents
// and the machine image say, and the faults the control language sets up for them (an obstacle
// short of a switch, friction, a platen that sticks).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "sim/Board.h"
#include "sim/MachineImage.h"
#include "sim/Profiles.h"
#include "tests/sim/SimTestSupport.h"
#include "wire/WireFormat.h"

namespace sim::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// The counts between the switches are travel x CountsPerMm of the image, and the extents say
// so: 1 and 2 at the switches, 3 and 4 a millimetre inside (the short form: only 3 and 4).
TEST(MachineTravel, ExtentsAndTheImagesCountsPerMmAgreeWithTheSwitches) {
  int checked = 0;
  for (const Profile& profile : Profiles()) {
    if (!profile.version.isServo) continue;
    SCOPED_TRACE(profile.name);
    platform::TimePoint now{};
    Board board(profile, platform::Duration::zero(), now);
    const std::vector<std::uint8_t> image = BuildMachineImage(profile);
    const Packet extents = board.Execute(Request(0x5E, 1)).bytes;
    ASSERT_TRUE(extents.size() == 37 || extents.size() == 120) << extents.size();
    const bool longForm = extents.size() == 120;
    for (std::size_t i = 0; i < kStageAxes; ++i) {
      SCOPED_TRACE(i);
      Axis& a = board.machine().axes[i];
      const std::int32_t perMm = wire::GetSignedLong(image, 486 + 4 * i);
      ASSERT_GT(perMm, 0);
      std::int32_t at[2] = {};
      for (int end = 0; end < 2; ++end) {
        a.tuning = {};
        a.tuning.mb = static_cast<std::int16_t>((end ? 1 : -1) * a.motorMaximum);
        now += seconds(20);
        board.Advance(now);
        ASSERT_EQ(a.limit, end ? 1 : -1);
        at[end] = a.LinearCounts();
      }
      a.tuning.mb = 0;
      EXPECT_EQ(at[0], 0);
      EXPECT_NEAR(at[1], a.travel * perMm, 0.5);
      const auto extent = [&](std::size_t offset) {
        return static_cast<std::int32_t>(wire::GetLong(extents, offset + 4 * i));
      };
      if (longForm) {
        EXPECT_EQ(extent(5), at[0]);
        EXPECT_EQ(extent(21), at[1]);
        EXPECT_EQ(extent(37), at[0] + perMm);
        EXPECT_EQ(extent(53), at[1] - perMm);
      } else {
        EXPECT_EQ(extent(5), at[0] + perMm);
        EXPECT_EQ(extent(21), at[1] - perMm);
      }
    }
    ++checked;
  }
  EXPECT_GE(checked, 2);
}

class MotionFaultsTest : public SimTest {
 protected:
  void SetUp() override { StartBoard("autovision"); }
  // Open-loop drive, as the motion tests write it.
  void Drive(std::size_t axis, std::int16_t mb) {
    sim_->AtMachine([&](Board& b) {
      b.machine().axes[axis].tuning = {};
      b.machine().axes[axis].tuning.mb = mb;
      return std::string();
    });
  }
  void Wait(platform::Duration d) { clock_.SleepFor(d); }
};

// The limit test's path where the switch never registers: the axis stops at the obstacle, from
// either side, and stalls there with its limit byte clear; once the obstacle is gone it runs on
// to its switch.
TEST_F(MotionFaultsTest, AnObstacleStopsAndStallsAnAxisWithoutASwitch) {
  struct Case {
    const char* axis;
    std::size_t index;
    double from, obstacle;
    std::int16_t drive;
    const char* limitAfter;
  };
  const Case cases[] = {
      {"x", 0, 100, 150, 4000, "limit=high"},
      {"y", 1, 150, 50, -4000, "limit=low"},
      {"z", 2, 140, 145.5, 4000, "limit=high"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.axis);
    char line[64];
    std::snprintf(line, sizeof line, "place %s %g", c.axis, c.from);
    Control(line);
    std::snprintf(line, sizeof line, "stall %s %g", c.axis, c.obstacle);
    Control(line);
    Drive(c.index, c.drive);
    Wait(seconds(5));
    EXPECT_DOUBLE_EQ(Position(c.axis), c.obstacle);
    EXPECT_TRUE(AxisShows(c.axis, "stalled=1 limit=none"));
    Drive(c.index, static_cast<std::int16_t>(-c.drive));
    Wait(seconds(1));
    EXPECT_GT((Position(c.axis) - c.obstacle) * -c.drive, 1) << "backs away freely";
    Drive(c.index, c.drive);
    Control(std::string("unstall ") + c.axis);
    Wait(seconds(5));
    EXPECT_TRUE(AxisShows(c.axis, c.limitAfter));
    Drive(c.index, 0);
  }
  ExpectRefused({"stall x 0", "stall x 300", "stall x -1", "stall w 5", "stall platen 5", "stall x",
                 "stall q 5", "stall x nan", "unstall w", "unstall"});
}

// Friction multiplies the drive that is lost before the axis starts (200 at 1).
TEST_F(MotionFaultsTest, FrictionRaisesTheDriveThatStartsAnAxis) {
  struct Step {
    const char* friction;
    std::int16_t drive;
    bool moves;
  };
  const Step steps[] = {
      {"1", 300, true}, {"2", 300, false}, {"2", -450, true}, {"3.5", -650, false}, {"0", 50, true},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(std::string(s.friction) + " " + std::to_string(s.drive));
    Control("place x 150");
    Control(std::string("friction x ") + s.friction);
    Drive(0, s.drive);
    Wait(seconds(2));
    EXPECT_EQ(Position("x") != 150, s.moves);
    Drive(0, 0);
  }
  Control("friction x 1");
  ExpectRefused({"friction x -1", "friction x 21", "friction w 2", "friction x", "friction x a"});
}

// A stuck platen stays where it is, between its switches and without a stall, so the platen
// test's wait for a switch runs out; freed, it carries on to where it was sent.
TEST_F(MotionFaultsTest, AStuckPlatenNeverReachesItsSwitch) {
  Control("platen in");
  Control("place platen 0");
  sim_->AtMachine([](Board& b) {
    b.machine().platen.target = 80;  // as the host's open does
    return std::string();
  });
  Wait(milliseconds(1000));
  EXPECT_EQ(Control("platen stick"), "ok platen stick");
  const double stuckAt = Position("platen");
  EXPECT_NEAR(stuckAt, 25, 0.1);
  Wait(seconds(30));
  EXPECT_DOUBLE_EQ(Position("platen"), stuckAt);
  EXPECT_TRUE(AxisShows("platen", "moving=0 stalled=0 limit=none"));
  EXPECT_EQ(Control("platen free"), "ok platen free");
  Wait(seconds(3));
  EXPECT_TRUE(AxisShows("platen", "limit=high"));
  EXPECT_NE(sim_->Command("help").find("platen in|out|stick|free"), std::string::npos);
}

}  // namespace
}  // namespace sim::testing
