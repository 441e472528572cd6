// The board's machine without sockets: the forms each generation speaks, the older boards' records
// against the machine image, sensors, captures and physics. Time is what the test hands Advance.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "sim/Board.h"
#include "sim/MachineImage.h"
#include "sim/Profiles.h"
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
  Packet Run(const Packet& request) { return board_->Execute(request).bytes; }
  Packet RunCapture(const Packet& request) {
    return board_->Execute(request, Pipe::kCapture).bytes;
  }
  void Wait(platform::Duration d) {
    now_ += d;
    board_->Advance(now_);
  }
  Packet SetPid(std::uint8_t axis, std::int16_t mb, std::uint16_t kp = 0) {
    Packet q = Request(0x73, 26, {axis});
    wire::PutWord(q, 2, kp);
    wire::PutWord(q, 16, static_cast<std::uint16_t>(mb));
    return Run(q);
  }
  std::int32_t Linear(std::size_t axis) {
    return wire::GetSignedLong(Run(Request(0x59, 16)), 59 + 4 * axis);
  }

  platform::TimePoint now_{};
  std::unique_ptr<Board> board_;
};

Packet Refusal(std::int8_t reason) {
  return {0x3F, static_cast<std::uint8_t>(reason)};
}

TEST_F(MachineTest, AFormTheGenerationLacksIsRefusedAsUnknownOrOfTheWrongLength) {
  struct Case {
    const char* profile;
    Packet request;
    std::int8_t reason;
  };
  const Case cases[] = {
      {"autovision", Request(0x59, 15), -2},  // poll is 16 bytes
      {"autovision", Request(0x5E, 2), -2},
      {"autovision", Request(0x6E, 86), -2},         // 42-channel packets behind this driver
      {"autovision", Request(0x66, 5, {0, 0}), -2},  // the 5-byte W read is older
      {"autovision", Request(0x6A, 1), -1},          // interrupts are one packet here
      {"autovision", Request(0x64, 1), -1},
      {"servo", Request(0x69, 16), -2},  // below 1.829 each interrupt is one byte
      {"servo", Request(0x66, 32, {2}), -2},
      {"servo", Request(0x7B, 126), -2},
      {"servo", Request(0x5A, 16), -1},  // no clear sleep, board data, hash, laser
      {"servo", Request(0x57, 15), -1},
      {"servo", Request(0x23, 16), -1},
      {"servo", Request(0x5F, 16), -1},
      {"servo", Request(0x5D, 2), -1},         // no temperatures before 1.729
      {"servo", Request(0x68, 2), -1},         // no extra platen record at 1.60
      {"servo", Request(0x7D, 16, {16}), -2},  // and the short serial record only
      {"servo-pv3", Request(0x6E, 254), -2},   // 21 channels a packet behind the first driver
      {"servo-pv0", Request(0x32, 16), -1},
      {"servo-pv0", Request(0x36, 1), -1},
      {"servo-pv0", Request(0x31, 1), -1},  // machine data from 1.139
      {"servo-pv0", Request(0x65, 32, {16}), -1},
      {"manualvision", Request(0x69, 1), -2},
      {"manualvision", Request(0x5E, 1), -1},
      {"manualvision", Request(0x2C, 16), -1},
      {"manualvision", Request(0x77, 3), -1},
      {"manualvision", Request(0x74, 2, {0}), -3},  // no tuning of the stage axes
      {"manualvision-pv4", Request(0x57, 15, {0, 2}), -1},
      {"neither", Request(0x59, 16), -1},
  };
  for (const Case& c : cases) {
    Use(c.profile);
    EXPECT_EQ(Run(c.request), Refusal(c.reason))
        << c.profile << " code 0x" << std::hex << int{c.request[0]} << " length " << std::dec
        << c.request.size();
  }
}

// A request of the right length can still be of another form: a selector that only one value
// may take, a zero fill behind the fields, or the other of the driver's two ways in.
TEST_F(MachineTest, FixedBytesAndTheWayInAreCheckedBeforeTheBoardActs) {
  struct Case {
    const char* profile;
    Packet request;
    Pipe pipe;
    std::int8_t reason;  // 0: accepted
  };
  const Case cases[] = {
      {"autovision", Request(0x5A, 16, {1}), Pipe::kNormal, 0},
      {"autovision", Request(0x5A, 16, {0}), Pipe::kNormal, -2},
      {"autovision", Request(0x2C, 16, {1, 0}), Pipe::kNormal, 0},
      {"autovision", Request(0x2C, 16, {0, 0}), Pipe::kNormal, -2},
      {"autovision", Request(0x29, 32, {0, 0}), Pipe::kNormal, 0},
      {"autovision", Request(0x29, 32, {1, 0}), Pipe::kNormal, -2},
      {"autovision", Request(0x29, 32, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}),
       Pipe::kNormal, -2},
      {"autovision", Request(0x59, 16, {1, 1}), Pipe::kNormal, 0},
      {"autovision", Request(0x59, 16, {1, 1, 0, 1}), Pipe::kNormal, -2},  // zero fill
      {"autovision", Request(0x23, 16, {0, 16}), Pipe::kNormal, 0},
      {"autovision", Request(0x23, 16, {16, 0}), Pipe::kNormal, -2},  // channel in the wrong byte
      {"autovision", Request(0x66, 32, {16}), Pipe::kNormal, -2},     // byte 1 is 2, not a channel
      {"autovision", Request(0x2A, 2, {1}), Pipe::kNormal, -2},       // 1 is the setting form's
      {"autovision", Request(0x2A, 126, {0}), Pipe::kNormal, -2},
      {"autovision", Request(0x6B, 9, {1}), Pipe::kNormal, -1},  // captures come the other way
      {"autovision", Request(0x5F, 16, {3}), Pipe::kNormal, -1},
      {"autovision", Request(0x6B, 9, {1}), Pipe::kCapture, 0},
      {"autovision", Request(0x2B, 1), Pipe::kCapture, -1},
      {"servo-laser", Request(0x68, 2, {0}), Pipe::kNormal, 0},
      {"servo-laser", Request(0x68, 2, {17}), Pipe::kNormal, -2},
      {"servo-pv0", Request(0x59, 16, {0, 0}), Pipe::kNormal, 0},
      {"servo-pv0", Request(0x59, 16, {0, 1}), Pipe::kNormal, -2},  // no flag at protocol 0
      {"servo", Request(0x70, 2, {0}), Pipe::kNormal, 0},
      {"servo", Request(0x70, 2, {1}), Pipe::kNormal, -2},
  };
  for (const Case& c : cases) {
    Use(c.profile);
    const Packet r = board_->Execute(c.request, c.pipe).bytes;
    SCOPED_TRACE(::testing::Message() << c.profile << " code 0x" << std::hex << int{c.request[0]}
                                      << " length " << std::dec << c.request.size());
    if (c.reason == 0) {
      EXPECT_NE(r.at(0), 0x3F);
    } else {
      EXPECT_EQ(r, Refusal(c.reason));
    }
  }
}

TEST_F(MachineTest, LightPacketsCarryAsManyChannelsAsTheDriverPasses) {
  Use("autovision-48");  // 48 channels behind the newer driver: 42, then 6
  Packet r = Run(Request(0x70, 16, {0, 1}));
  ASSERT_EQ(r.size(), 254u);
  EXPECT_EQ(wire::GetLong(r, 2), 4095u);
  EXPECT_NE(wire::GetLong(r, 2 + 4 * 41), 0u);
  EXPECT_EQ(wire::GetLong(r, 2 + 4 * 42), 0u);
  r = Run(Request(0x70, 16, {42, 1}));
  EXPECT_EQ(wire::GetLong(r, 2), 4095u - 5 * 42);
  EXPECT_EQ(wire::GetLong(r, 2 + 4 * 6), 0u);
  EXPECT_EQ(Run(Request(0x70, 16, {0, 0})), Refusal(-2));  // asks for 21-channel packets

  Packet set = Request(0x6E, 254, {0});
  for (std::size_t i = 0; i < 60; ++i)
    wire::PutLong(set, 2 + 4 * i, 1000 + static_cast<std::uint32_t>(i));
  EXPECT_EQ(Run(set), (Packet{0x6E, 0}));
  EXPECT_EQ(board_->machine().lights[41], 1041u);
  EXPECT_EQ(board_->machine().lights[42], 0u);  // the packet's 43rd long is no channel's

  Use("servo-pv3");  // 24 channels behind the first driver: 21, then 3
  r = Run(Request(0x70, 16, {21, 0}));
  ASSERT_EQ(r.size(), 86u);
  EXPECT_NE(wire::GetLong(r, 2 + 4 * 2), 0u);
  EXPECT_EQ(wire::GetLong(r, 2 + 4 * 3), 0u);
  Use("servo");  // one maximum for all, one word a channel
  EXPECT_EQ(wire::GetWord(Run(Request(0x70, 2)), 2), 4095u);
}

// The older boards have no image to read: the host builds it from 0x62, 0x74, 0x72 and 0x31. What
// they answer must be the machine whose image the newer boards keep.
TEST_F(MachineTest, OlderBoardsPerAxisRecordsAreTheMachineOfTheImage) {
  Use("servo-laser");
  const std::vector<std::uint8_t> image = BuildMachineImage(board_->profile());
  for (std::uint8_t axis = 0; axis < 4; ++axis) {
    const Packet d = Run(Request(0x62, 2, {axis}));
    ASSERT_EQ(d.size(), 47u);
    EXPECT_EQ(wire::GetWord(d, 20), wire::GetWord(image, 306 + 2 * axis));  // MotorMaximum
    EXPECT_EQ(wire::GetLong(d, 31), wire::GetLong(image, 486 + 4 * axis));  // CountsPerMm
    EXPECT_EQ(wire::GetLong(d, 16), wire::GetLong(image, 290 + 4 * axis));  // AxisLong1
    EXPECT_EQ(wire::GetLong(d, 40), wire::GetLong(image, 354 + 4 * axis));  // AxisLong2
    EXPECT_EQ(wire::GetWord(d, 24), wire::GetWord(image, 322 + 2 * axis));  // AxisWord7
    EXPECT_EQ(d[38], image[514 + axis]);                                    // AxisByte2
    EXPECT_EQ(d[28], image[338 + axis]);                                    // AxisFlag3
    EXPECT_EQ(wire::GetWord(d, 45), wire::GetWord(image, 374 + 2 * axis));  // AxisWord8
    // The real goes out as inches per count unless the axis keeps it; the host's upgrade turns
    // it back with 1 / real x 25.4.
    const float stored = wire::GetReal(image, 234 + 4 * axis);
    const float sent = wire::GetReal(d, 2);
    EXPECT_FLOAT_EQ(d[28] ? sent : 1.0f / sent * 25.4f, stored);

    const Packet t = Run(Request(0x74, 2, {axis}));
    EXPECT_EQ(wire::GetWord(t, 2), wire::GetWord(image, 646 + 2 * axis));   // Kp
    EXPECT_EQ(wire::GetWord(t, 4), wire::GetWord(image, 662 + 2 * axis));   // Ki
    EXPECT_EQ(wire::GetWord(t, 6), wire::GetWord(image, 654 + 2 * axis));   // Kd
    EXPECT_EQ(wire::GetLong(t, 22), wire::GetLong(image, 686 + 4 * axis));  // Fe
    EXPECT_EQ(wire::GetWord(t, 16), wire::GetWord(image, 734 + 2 * axis));  // Mb
  }
  const Packet data = Run(Request(0x31, 1));
  EXPECT_EQ(data[1] != 0, image[556] != 0);
  EXPECT_EQ(wire::GetReal(data, 6), wire::GetReal(image, 561));
  // Firmware before 1.139 leaves the definition's last word out.
  Use("servo-pv0");
  EXPECT_EQ(wire::GetWord(Run(Request(0x62, 2, {1})), 45), 0u);
  Use("servo-pv2");
  const Packet named = Run(Request(0x72, 1));
  const std::vector<std::uint8_t> image2 = BuildMachineImage(board_->profile());
  EXPECT_TRUE(std::equal(named.begin() + 2, named.begin() + 48, image2.begin() + 164));
}

TEST_F(MachineTest, SensorsAndRailsReadNearWhatTheReadingsPageExpects) {
  Use("autovision");
  for (std::uint8_t sensor = 0; sensor < 8; ++sensor) {
    const Packet r = Run(Request(0x5D, 2, {sensor}));
    ASSERT_EQ(r.size(), 32u) << int{sensor};
    const double celsius = wire::GetSignedLong(r, 1) * double{wire::GetReal(r, 5)};
    if (sensor < 6) {
      EXPECT_GT(celsius, 15.0);
      EXPECT_LT(celsius, 50.0);
    } else {
      EXPECT_EQ(wire::GetSignedLong(r, 1), 0);  // not fitted: no reading
    }
  }
  EXPECT_EQ(Run(Request(0x5D, 2, {8})), Refusal(-3));
  EXPECT_EQ(Run(Request(0x5D, 2, {16})).size(), 32u);
  // Full scale is the nominal voltage over the divider: every rail within 5 % of nominal.
  const double divider[16] = {1,      0.9324, 0.7576, 0.8503, 0.3636, 0.7576, 0.9186, 1,
                              0.9324, 0.9324, 0.9324, 0.9324, 0.9324, 0.9324, 0.9324, 0.9324};
  const Packet rails = Run(Request(0x57, 15, {0, 3}));
  for (std::size_t i = 0; i < 16; ++i) {
    const double share = wire::GetWord(rails, 1 + 2 * i) / (65535.0 * divider[i]);
    EXPECT_NEAR(share, 1.0, 0.05) << i;
  }
  Use("servo-laser");  // first generation: only the W axis's sensor, from 1.729
  EXPECT_EQ(Run(Request(0x5D, 2, {16})).size(), 32u);
}

TEST_F(MachineTest, CapturesAreAnnouncedToAHostThatAsksAndHandedOutOnce) {
  Use("autovision");
  EXPECT_EQ(Run(Request(0x69, 16, {0, 0, 0, 1})), (Packet{0x69, 0}));  // the touch probe's turn
  board_->machine().TripProbe();
  Packet poll = Run(Request(0x59, 16, {1}));
  EXPECT_EQ(poll[3], 1);  // capture ready
  EXPECT_EQ(poll[4], 1);  // from the touch probe
  EXPECT_EQ(Run(Request(0x59, 16, {0}))[3], 0);
  const Packet touch = Run(Request(0x36, 1));
  EXPECT_EQ(wire::GetLong(touch, 4), 150u * 2000);  // X in the middle of its 300 mm
  EXPECT_EQ(Run(Request(0x59, 16, {1}))[4], 0);

  // Video: the frame trigger latches positions while armed.
  EXPECT_EQ(Run(Request(0x69, 16, {0, 0, 1})), (Packet{0x69, 0}));
  Wait(milliseconds(300));
  EXPECT_EQ(Run(Request(0x59, 16, {1}))[3], 1);
  Packet r = RunCapture(Request(0x6B, 9, {1, 0, 0, 0, 7}));
  ASSERT_EQ(r.size(), 92u);
  EXPECT_EQ((Packet{r[0], r[4], r[8]}), (Packet{1, 1, 7}));
  EXPECT_EQ(wire::GetLong(r, 12 + 4), 100u * 2000);    // Y
  EXPECT_EQ(RunCapture(Request(0x6B, 9, {1}))[0], 0);  // handed out once
}

// The board listens to its probe only while enabled (as at power-up), and latches where it
// touched only while the touch interrupt is the armed source: a touch while the camera's trigger is
// armed is no capture the host is told of.
TEST_F(MachineTest, AProbeTripsOnlyEnabledAndIsCapturedOnlyWhileItsInterruptIsArmed) {
  struct Case {
    const char* what;
    const char* profile;
    Packet enable;  // 0x32, if sent
    Packet arm;     // the interrupt command, if sent
    bool tripped;   // status byte 5
    bool captured;  // status byte 4 and 0x36's flag
  };
  const Case cases[] = {
      {"as powered up", "autovision", {}, {}, true, false},
      {"touch armed", "autovision", {}, Request(0x69, 16, {0, 0, 0, 1}), true, true},
      {"enabled, touch armed", "autovision", Request(0x32, 16, {1}),
       Request(0x69, 16, {0, 0, 0, 1}), true, true},
      {"disabled", "autovision", Request(0x32, 16, {0}), Request(0x69, 16, {0, 0, 0, 1}), false,
       false},
      {"video armed", "autovision", {}, Request(0x69, 16, {0, 0, 1}), true, false},
      {"laser armed", "autovision", {}, Request(0x69, 16, {0, 0, 0, 0, 1}), true, false},
      {"touch, then all off", "autovision", {}, Request(0x69, 16, {1, 0, 0, 1}), true, false},
      {"one byte: touch", "servo", {}, Request(0x64, 1), true, true},
      {"one byte: video", "servo", {}, Request(0x69, 1), true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Use(c.profile);
    if (!c.enable.empty()) {
      EXPECT_EQ(Run(c.enable).size(), 2u);
    }
    if (!c.arm.empty()) {
      EXPECT_EQ(Run(c.arm).size(), 2u);
    }
    board_->machine().TripProbe();
    const Packet poll = Run(Request(0x59, 16, {1}));
    EXPECT_EQ(poll[5], c.tripped ? 1 : 0);
    EXPECT_EQ(poll[4], c.captured ? 1 : 0);
    EXPECT_EQ(poll[3], c.captured ? 1 : 0);
    EXPECT_EQ(Run(Request(0x36, 1))[1], c.captured ? 1 : 0);
  }
  // Arming another source disarms the touch probe's: a later touch latches nothing.
  Use("servo");
  Run(Request(0x64, 1));
  Run(Request(0x69, 1));
  board_->machine().TripProbe();
  EXPECT_EQ(Run(Request(0x59, 16, {1}))[4], 0);
}

// The machine everyone starts has no more light channels than the Lights page drives (42), in
// one packet; the edge of more lives on as a profile of its own. A board without a W axis says so
// and refuses what only the W axis answers.
TEST_F(MachineTest, TheDefaultMachineFitsThePageAndAWAxisMayBeMissing) {
  Use("autovision");
  const Packet version = Run(Request(0x2B, 1));
  EXPECT_GT(version[41], 0);
  EXPECT_LE(version[41], 42);
  Use("autovision-48");
  EXPECT_EQ(Run(Request(0x2B, 1))[41], 48);

  Use("autovision-no-w");
  EXPECT_EQ(Run(Request(0x2B, 1))[57], 0) << "hasWAxis";
  EXPECT_EQ(Run(Request(0x5D, 2, {16})), Refusal(-3)) << "the W axis's temperature";
  EXPECT_EQ(Run(Request(0x41, 2, {16})), Refusal(-3));
  EXPECT_EQ(Run(Request(0x65, 32, {16})), Refusal(-1)) << "no W EEPROM without a W axis";
  EXPECT_EQ(Run(Request(0x5D, 2, {0})).size(), 32u) << "the board's own sensors answer";
  const Packet poll = Run(Request(0x59, 16));
  ASSERT_EQ(poll.size(), 221u);
  EXPECT_TRUE(std::all_of(poll.begin() + 127, poll.begin() + 163, [](auto b) { return b == 0; }))
      << "no W in the poll";
}

TEST_F(MachineTest, LaserPointsComeInTheFormOfTheFirmwareAndNoMoreThanAsked) {
  Use("servo-laser");  // packed form: six points in 127 bytes whatever is asked
  board_->machine().laserPointsReady = 10;
  Packet r = RunCapture(Request(0x5F, 16, {3}));
  ASSERT_EQ(r.size(), 127u);
  EXPECT_EQ(r[0], 3);
  EXPECT_EQ(r[1], 7);  // still pending
  Use("servo-pv3");    // 20 bytes a point after one byte
  board_->machine().laserPointsReady = 2;
  r = RunCapture(Request(0x5F, 16, {5}));
  ASSERT_EQ(r.size(), 1u + 20 * 5);
  EXPECT_EQ(r[0], 2);
  EXPECT_EQ(wire::GetWord(r, 1), 0);
}

TEST_F(MachineTest, AWEepromWriteIsBusyForAWhileThenReadsBack) {
  Use("autovision");
  const Packet where = {2, 0, 0, 40, 0, 3};  // W area, address 40, 3 bytes
  Packet write = Request(0x67, 96, where);
  write[32] = 0xA1;
  write[33] = 0xB2;
  write[34] = 0xC3;
  EXPECT_EQ(Run(write), (Packet{0x67, 0}));
  EXPECT_EQ(Run(Request(0x65, 32, {16}))[1], 1);  // present: busy
  Wait(milliseconds(20));
  const Packet info = Run(Request(0x65, 32, {16}));
  EXPECT_EQ((Packet{info[1], info[4]}), (Packet{0, 0})) << "idle, and the write succeeded";
  const Packet r = Run(Request(0x66, 32, where));
  ASSERT_EQ(r.size(), 96u);
  EXPECT_EQ((Packet{r[2], r[32], r[33], r[34]}), (Packet{0, 0xA1, 0xB2, 0xC3}));
}

// Opening times are checked against the host's poll in the integration tests; this is the
// compact poll of the first generation.
TEST_F(MachineTest, ThePlatenOfTheFirstGenerationReportsItsSwitchesInTheCompactPoll) {
  Use("servo-laser");
  EXPECT_EQ(static_cast<std::int8_t>(Run(Request(0x59, 16))[37]), -1);
  EXPECT_EQ(Run(Request(0x4C, 32, {17, 1})), (Packet{0x4C, 0}));
  Wait(seconds(1));
  Packet r = Run(Request(0x59, 16));
  EXPECT_EQ((Packet{r[34], r[37]}), (Packet{1, 0})) << "moving, off its switch";
  Wait(seconds(5));
  r = Run(Request(0x59, 16));
  EXPECT_EQ((Packet{r[34], r[37]}), (Packet{0, 1}));
  EXPECT_EQ(Run(Request(0x4C, 32, {16, 1})), (Packet{0x3F, 0xFD})) << "the W axis is no platen";
}

TEST_F(MachineTest, IndexMarksAreCapturedAsTheAxesPassThem) {
  Use("autovision");
  Packet move = Request(0x4D, 6, {16});
  wire::PutLong(move, 2, 19000);  // the W axis to 19 mm, past its mark at 15 mm
  EXPECT_EQ(Run(move), (Packet{0x4D, 0}));
  SetPid(3, 300);  // a crawl: 0.7 mm/s, a turn of the zoom motor is 0.5 mm
  Wait(milliseconds(100));
  // Before a mark has passed the count is not valid, and nothing is captured.
  EXPECT_EQ((Packet{Run(Request(0x4E, 2, {3}))[1], Run(Request(0x4E, 2, {3}))[2]}), (Packet{0, 0}));
  Wait(seconds(2));
  Packet r = Run(Request(0x4E, 2, {3}));
  EXPECT_EQ((Packet{r[1], r[2]}), (Packet{1, 1}));
  EXPECT_EQ(wire::GetLong(r, 3) % 4000, 0u);
  EXPECT_EQ(Run(Request(0x4E, 2, {3}))[2], 0);  // read once, gone until the next turn

  EXPECT_EQ(wire::GetLong(Run(Request(0x43, 2, {16})), 2), 19000u);
  const Packet index = Run(Request(0x4E, 2, {16}));
  EXPECT_EQ((Packet{index[1], index[2]}), (Packet{1, 1}));
  EXPECT_EQ(wire::GetLong(index, 3), 15000u);

  // The first servo boards have no valid flag at all: the byte stays 0 after a mark.
  Use("servo-pv0");
  SetPid(3, 300);
  Wait(seconds(2));
  r = Run(Request(0x4E, 2, {3}));
  EXPECT_EQ((Packet{r[1], r[2]}), (Packet{0, 1}));
}

TEST_F(MachineTest, TheStandardVoltageLimitReachesTheLimitTestsSpeedBand) {
  Use("autovision");
  const std::uint16_t maxima[3] = {12000, 12000, 9000};
  const std::int32_t perMm[3] = {2000, 2000, 2500};
  for (std::uint8_t axis = 0; axis < 3; ++axis) {
    board_->machine().axes[axis].PlaceAt(10);
    const auto standard = static_cast<std::int16_t>((maxima[axis] - 250) / 4);
    SetPid(axis, standard);
    Wait(seconds(1));
    const std::int32_t before = Linear(axis);
    Wait(milliseconds(100));
    // Faster than 1.5 mm a pass of 100 ms, so the seek can settle in its band below the limit.
    EXPECT_GT(Linear(axis) - before, 3 * perMm[axis] / 2) << int{axis};
    SetPid(axis, 1200);
    Wait(seconds(1));
    const std::int32_t slow = Linear(axis);
    Wait(milliseconds(100));
    EXPECT_LT(Linear(axis) - slow, 3 * perMm[axis]) << int{axis};
  }
}

TEST_F(MachineTest, AnAxisHeldAgainstItsSwitchFailsUntilItsTuningIsWritten) {
  Use("autovision");
  SetPid(2, 4000);
  Wait(seconds(10));
  Packet poll = Run(Request(0x59, 16));
  EXPECT_EQ(static_cast<std::int8_t>(poll[27 + 2]), 1);
  EXPECT_EQ(poll[35 + 2], 1);  // stalled
  EXPECT_EQ(poll[39 + 2], 1);  // failed
  // A closed-loop record holds the axis where it is and clears the failure.
  SetPid(2, 0, 180);
  Wait(seconds(1));
  const std::int32_t held = Linear(2);
  Wait(seconds(5));
  poll = Run(Request(0x59, 16));
  EXPECT_EQ(poll[39 + 2], 0);
  EXPECT_EQ(poll[31 + 2], 1);  // settled
  EXPECT_EQ(Linear(2), held);
  // An emergency stop halts a driven axis.
  SetPid(1, 3000);
  Wait(seconds(1));
  board_->machine().estop = true;
  Wait(milliseconds(10));
  const std::int32_t stopped = Linear(1);
  Wait(seconds(2));
  EXPECT_EQ(Linear(1), stopped);
  // Firmware before 1.119 has no failure to report.
  Use("servo-pv0");
  SetPid(0, 4000);
  Wait(seconds(30));
  poll = Run(Request(0x59, 16));
  EXPECT_EQ(poll[20], 1);
  EXPECT_EQ(poll[24], 0);
}

class MachineControlTest : public SimTest {};

TEST_F(MachineControlTest, WhatAPersonChangesShowsInTheVersionRecordAndThePoll) {
  StartBoard("servo");  // buttons by name follow the pendant of the generation
  EXPECT_EQ(Control("press b1"), "ok button b1 input=3 pressed");
  EXPECT_EQ(Control("press b2"), "ok button b2 input=2 pressed");
  ExpectRefused({"press b3"});
  const std::string state = Control("state");
  EXPECT_NE(state.find("inputs=2,3"), std::string::npos) << state;
  EXPECT_NE(state.find("platen=closed"), std::string::npos) << state;
  EXPECT_EQ(Control("place platen 80"),
            "ok axis=platen pos=80.000 counts=40000 moving=0 stalled=0 limit=high");
  Control("temp w 41.5");
  Control("profile autovision");
  EXPECT_EQ(Control("press b8"), "ok button b8 input=7 pressed");

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
            "ok axis=x pos=10.000 counts=20000 moving=0 stalled=0 limit=none loop=closed "
            "bias=-12 failed=0");
  ExpectRefused({"temp 8 20", "place x 400", "joystick 2 0 0", "press 16", "block q"});
  EXPECT_NE(sim_->Command("help").find("joystick X Y Z"), std::string::npos);
}

}  // namespace
// The lights page's board: maxima set by hand bound what the host sets, and the board tells what
// it holds; the status light and LED words as the host last sent them; an older release of the
// firmware closes its gates.
TEST_F(MachineControlTest, LightMaximaValuesStatusLightAndFirmwareAreTheControlsToo) {
  StartBoard("autovision");
  auto client = Connect();
  Control("lights 3");
  EXPECT_EQ(Control("lightmax"), "ok lightmax=4095,4090,4085");
  Control("lightmax 1 1000");
  Control("lightmax all 900");
  Control("lights 4");  // the new channel comes as built
  EXPECT_EQ(Control("lightmax"), "ok lightmax=900,900,900,4080");
  Packet set = Request(0x6E, 254, {0});
  for (std::size_t i = 0; i < 4; ++i)
    wire::PutLong(set, 2 + 4 * i, 950);
  client->Command(set, 2);
  EXPECT_EQ(Control("lights"), "ok lights=4 values=900,900,900,950");
  Control("lightmax 3 100");  // a lower maximum cuts what is set
  EXPECT_EQ(Control("lights"), "ok lights=4 values=900,900,900,100");
  ExpectRefused({"lightmax 4 10", "lightmax all -1", "lightmax all 1000001", "lightmax x",
                 "lightmax 1 2x", "firmware 0", "firmware two", "statuslight red"});

  EXPECT_EQ(Control("statuslight"), "ok statuslight=off led=0,0,0,0");
  client->Command(Request(0x55, 16, {0, 2}), 2);
  Packet led = Request(0x55, 16, {130});
  wire::PutWord(led, 3, 7);
  wire::PutWord(led, 5, 8);
  client->Command(led, 2);
  EXPECT_EQ(Control("statuslight"), "ok statuslight=amber led=0,0,7,8");

  Control("firmware 2.17");
  EXPECT_EQ(client->Command(Request(0x55, 16, {0, 1}), 2).bytes, (Packet{0x3F, 0xFF}));
  EXPECT_EQ(Control("statuslight"), "ok statuslight=amber led=0,0,7,8");
}

}  // namespace sim::testing
