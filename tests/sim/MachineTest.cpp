// The board's machine: the form each generation speaks, and the physics behind the status poll.
// These run the board directly, without sockets; time is whatever the test hands to Advance.
#include <gtest/gtest.h>

#include <chrono>

#include "sim/Board.h"
#include "sim/Profiles.h"
#include "sim/Simulator.h"
#include "tests/sim/SimTestSupport.h"

namespace sim::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class MachineTest : public ::testing::Test {
 protected:
  void Use(const char* profile) {
    board_ = std::make_unique<Board>(*FindProfile(profile), platform::Duration::zero(), now_);
  }
  Packet Run(const Packet& request) {
    const BoardReply r = board_->Execute(request);
    return r.bytes;
  }
  void Wait(platform::Duration d) {
    now_ += d;
    board_->Advance(now_);
  }
  // The long-form poll's fields of axis `i`.
  struct AxisView {
    bool moving, settled, stalled;
    std::int8_t limit;
    std::int32_t counts;
  };
  AxisView Poll(std::size_t i) {
    const Packet r = Run(Request(0x59, 16));
    EXPECT_EQ(r.size(), 221u);
    return {r[23 + i] != 0, r[31 + i] != 0, r[35 + i] != 0, static_cast<std::int8_t>(r[27 + i]),
            wire::GetSignedLong(r, 59 + 4 * i)};
  }
  void Drive(std::uint8_t axis, std::int16_t mb) {
    Packet q = Request(0x73, 26, {axis});
    wire::PutWord(q, 16, static_cast<std::uint16_t>(mb));
    EXPECT_EQ(Run(q), (Packet{0x73, 0}));
  }

  platform::TimePoint now_{};
  std::unique_ptr<Board> board_;
};

TEST_F(MachineTest, EachGenerationAnswersInItsOwnForm) {
  struct Case {
    const char* profile;
    std::size_t poll, extents, probe;
  };
  for (const Case& c :
       {Case{"autovision", 221, 120, 92}, Case{"servo", 62, 37, 76}, Case{"servo-pv0", 28, 37, 76},
        Case{"manualvision-pv4", 62, 0, 76}, Case{"manualvision", 221, 0, 92}}) {
    Use(c.profile);
    EXPECT_EQ(Run(Request(0x59, 16)).size(), c.poll) << c.profile;
    EXPECT_EQ(Run(Request(0x6B, 9)).size(), c.probe) << c.profile;
    if (c.extents) {
      EXPECT_EQ(Run(Request(0x5E, 1)).size(), c.extents) << c.profile;
    }
  }
  // An axis and a channel share codes and differ in length.
  Use("servo");
  EXPECT_EQ(Run(Request(0x62, 2, {1})).size(), 47u);
  EXPECT_EQ(Run(Request(0x62, 2, {16})).size(), 60u);
  EXPECT_EQ(Run(Request(0x74, 2, {3})).size(), 26u);
  EXPECT_EQ(Run(Request(0x74, 2, {17})).size(), 42u);
  // Firmware 1.60 has no extra platen record, and its serial record is the short one.
  EXPECT_EQ(Run(Request(0x68, 2)), (Packet{0x3F, 0xFF}));
  EXPECT_EQ(Run(Request(0x7D, 16, {16})), (Packet{0x3F, 0xFE}));
  EXPECT_EQ(Run(Request(0x7D, 1)).size(), 97u);
  // The first driver carries 21 channels a packet: a 42-channel packet does not pass.
  Use("servo-pv3");
  EXPECT_EQ(Run(Request(0x6E, 254)), (Packet{0x3F, 0xFE}));
  EXPECT_EQ(Run(Request(0x6E, 86)), (Packet{0x6E, 0}));
  EXPECT_EQ(Run(Request(0x70, 16, {21, 0})).size(), 86u);
}

TEST_F(MachineTest, LaserPointsComeInTheFormOfTheFirmwareAndNoMoreThanAsked) {
  Use("servo-laser");  // packed form: six points in 127 bytes whatever is asked
  board_->machine().laserPointsReady = 10;
  Packet r = Run(Request(0x5F, 16, {3}));
  ASSERT_EQ(r.size(), 127u);
  EXPECT_EQ(r[0], 3);
  EXPECT_EQ(r[1], 7);  // still pending
  Use("servo-pv3");    // 20 bytes a point after one byte
  board_->machine().laserPointsReady = 2;
  r = Run(Request(0x5F, 16, {5}));
  ASSERT_EQ(r.size(), 1u + 20 * 5);
  EXPECT_EQ(r[0], 2);
  EXPECT_EQ(wire::GetWord(r, 1), 0);
}

TEST_F(MachineTest, AnOpenLoopDriveOutsideTheDeadBandRunsTheAxisIntoItsEndSwitch) {
  Use("autovision");
  Wait(seconds(1));
  const AxisView start = Poll(0);
  EXPECT_TRUE(start.settled);
  EXPECT_FALSE(start.moving);

  // The commissioned tuning holds the axis; with no gains a small drive is lost in friction.
  Drive(0, 150);
  Wait(seconds(10));
  EXPECT_EQ(Poll(0).counts, start.counts);

  Drive(0, -6000);
  Wait(milliseconds(500));
  const AxisView running = Poll(0);
  EXPECT_TRUE(running.moving);
  EXPECT_LT(running.counts, start.counts);
  Wait(seconds(30));
  const AxisView end = Poll(0);
  EXPECT_EQ(end.limit, -1);
  EXPECT_TRUE(end.stalled);
  EXPECT_FALSE(end.moving);
  EXPECT_EQ(end.counts, 0);
  // The other axes never moved.
  EXPECT_EQ(Poll(1).counts, 2000 * 100);
}

TEST_F(MachineTest, TheZoomIndexIsCapturedOnceATurn) {
  Use("autovision");
  Drive(3, 300);  // a crawl: 0.7 mm/s, a turn of the zoom motor is 0.5 mm
  Wait(milliseconds(100));
  EXPECT_EQ(Run(Request(0x4E, 2, {3}))[2], 0);  // not a turn yet
  Wait(seconds(2));
  Packet r = Run(Request(0x4E, 2, {3}));
  EXPECT_EQ(r[2], 1);
  EXPECT_EQ(wire::GetLong(r, 3) % 4000, 0u);
  EXPECT_EQ(Run(Request(0x4E, 2, {3}))[2], 0);  // read once, gone until the next turn
}

TEST_F(MachineTest, ThePlatenTakesSecondsToOpenAndReportsItsSwitches) {
  Use("servo-laser");
  const Packet closed = Run(Request(0x59, 16));
  EXPECT_EQ(static_cast<std::int8_t>(closed[37]), -1);  // compact form: shared bytes from 34
  EXPECT_EQ(Run(Request(0x4C, 32, {17, 1})), (Packet{0x4C, 0}));
  Wait(seconds(1));
  Packet r = Run(Request(0x59, 16));
  EXPECT_EQ(r[34], 1);
  EXPECT_EQ(r[37], 0);
  Wait(seconds(5));
  r = Run(Request(0x59, 16));
  EXPECT_EQ(r[34], 0);
  EXPECT_EQ(r[37], 1);
  // The W axis cannot be moved like a platen.
  EXPECT_EQ(Run(Request(0x4C, 32, {16, 1})), (Packet{0x3F, 0xFD}));
}

TEST_F(MachineTest, AWEepromWriteIsBusyForAWhileThenReadsBack) {
  Use("autovision");
  Packet write = Request(0x67, 96, {2, 0});
  wire::PutWord(write, 3, 40);  // address
  wire::PutWord(write, 5, 3);   // length
  write[32] = 0xA1;
  write[33] = 0xB2;
  write[34] = 0xC3;
  EXPECT_EQ(Run(write), (Packet{0x67, 0}));
  EXPECT_EQ(Run(Request(0x65, 32, {16}))[1], 1);  // present: busy
  Wait(milliseconds(20));
  const Packet info = Run(Request(0x65, 32, {16}));
  EXPECT_EQ(info[1], 0);
  EXPECT_EQ(info[4], 0);  // the write's result
  Packet read = Request(0x66, 32, {2, 0});
  wire::PutWord(read, 3, 40);
  wire::PutWord(read, 5, 3);
  const Packet r = Run(read);
  ASSERT_EQ(r.size(), 96u);
  EXPECT_EQ(r[2], 0);
  EXPECT_EQ((Packet{r[32], r[33], r[34]}), (Packet{0xA1, 0xB2, 0xC3}));
}

class MachineControlTest : public SimTest {};

TEST_F(MachineControlTest, WhatAPersonChangesShowsInTheVersionRecordAndThePoll) {
  StartBoard("autovision");
  auto client = Connect();
  Control("lights 50");
  Control("platen in");
  Packet version = client->Command({0x2B}, 69).bytes;
  EXPECT_EQ(version[41], 50);
  EXPECT_EQ(version[58], 1);
  Control("press 4");
  Control("footswitch on");
  const Packet poll = client->Command(Request(0x59, 16), 221).bytes;
  EXPECT_EQ(poll[75 + 4], 1);
  EXPECT_EQ(poll[107], 1);

  EXPECT_EQ(sim_->Command("place x 10"),
            "ok axis=x pos=10.000 counts=20000 moving=0 stalled=0 limit=none");
  EXPECT_EQ(sim_->Command("place x 400").rfind("error:", 0), 0u);
  EXPECT_EQ(sim_->Command("joystick 2 0 0").rfind("error:", 0), 0u);
  EXPECT_EQ(sim_->Command("press 16").rfind("error:", 0), 0u);
  EXPECT_EQ(sim_->Command("block q").rfind("error:", 0), 0u);
  EXPECT_NE(sim_->Command("help").find("joystick X Y Z"), std::string::npos);
}

}  // namespace
}  // namespace sim::testing
