// Hardware faults at the machine (encoders, switches, a reset) and the fault scripts that unfold
// them over time, each step at its moment, in virtual time.
#include <chrono>
#include <functional>

#include "SimTestSupport.h"
#include "sim/FaultScripts.h"
#include "wire/WireFormat.h"

namespace sim::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class FaultScriptsTest : public SimTest {
 protected:
  void SetUp() override { StartConnected("autovision"); }
  Packet Poll() { return client_->Command(Request(0x59, 16), 221).bytes; }
  std::int32_t Linear(std::size_t axis) { return wire::GetSignedLong(Poll(), 59 + 4 * axis); }
  std::int8_t Limit(std::size_t axis) { return static_cast<std::int8_t>(Poll()[27 + axis]); }
  std::uint32_t Rotary(std::uint8_t axis) {
    return wire::GetLong(client_->Command(Request(0x63, 2, {axis}), 6).bytes, 2);
  }
  // Opens axis `axis`'s loop and drives it at `mb`, as a test's ramp does.
  void Drive(std::uint8_t axis, std::int16_t mb) {
    Packet q = Request(0x73, 26, {axis});
    wire::PutWord(q, 16, static_cast<std::uint16_t>(mb));
    EXPECT_EQ(client_->Command(q, 2).bytes, (Packet{0x73, 0}));
  }
  // Sleeps in steps of 10 ms until `done` holds; false after `limit`.
  bool Within(platform::Duration limit, const std::function<bool()>& done) {
    const auto end = clock_.Now() + limit;
    while (!done()) {
      if (clock_.Now() >= end) return false;
      clock_.SleepFor(milliseconds(10));
    }
    return true;
  }
};

// X stands at 150 mm of its 300 (2000 counts a mm, 4000 rotary counts a 5 mm turn).
TEST_F(FaultScriptsTest, EncodersDropOutOrCountTheOtherWay) {
  struct Case {
    const char* mode;
    std::int32_t linearAt120;
    std::uint32_t rotaryAt120;
  };
  const Case cases[] = {{"dropout", 150 * 2000, 120 / 5 * 4000},
                        {"reversed", 180 * 2000, 180 / 5 * 4000},
                        {"normal", 120 * 2000, 120 / 5 * 4000}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mode);
    Control("place x 150");
    Control(std::string("encoders ") + c.mode);
    Control("place x 120");
    EXPECT_EQ(Linear(0), c.linearAt120);
    EXPECT_EQ(Rotary(0), c.rotaryAt120);
  }
  ExpectRefused({"encoders off"});
}

// Near an end the bouncing switch reads closed and open by turns; at the switch it is closed, in
// the middle of the travel open.
TEST_F(FaultScriptsTest, BouncingSwitchesChatterOnlyOverTheLastMillimetres) {
  Control("switches bounce");
  struct Case {
    const char* place;
    bool open, closed;  // seen within 40 ms
  };
  for (const Case& c : {Case{"place y 2", true, true}, Case{"place y 197", true, true},
                        Case{"place y 100", true, false}, Case{"place y 0", false, true}}) {
    SCOPED_TRACE(c.place);
    Control(c.place);
    bool open = false, closed = false;
    for (int ms = 0; ms < 40; ms += 3) {
      (Limit(1) == 0 ? open : closed) = true;
      clock_.SleepFor(milliseconds(3));
    }
    EXPECT_EQ(open, c.open);
    EXPECT_EQ(closed, c.closed);
  }
  Control("switches normal");
  Control("place y 2");
  EXPECT_EQ(Limit(1), 0);
}

// A reset forgets what the host gave the board and keeps what is physical.
TEST_F(FaultScriptsTest, AResetForgetsTheRecordsAndKeepsThePlaceAndTheEStop) {
  Control("place z 40");
  Control("estop on");
  Packet lights = Request(0x6E, 254, {0});
  wire::PutLong(lights, 2, 700);
  client_->Command(lights, 2);
  client_->Command(Request(0x69, 16, {0, 0, 0, 1}), 2);
  EXPECT_NE(Control("lights").find("values=700,"), std::string::npos);

  EXPECT_EQ(Control("reset"), "ok the board restarted without its records");
  const Packet pid = client_->Command(Request(0x74, 2, {2}), 26).bytes;
  EXPECT_EQ(Packet(pid.begin() + 2, pid.end()), Packet(24, 0)) << "no tuning: gains and bias 0";
  EXPECT_TRUE(AxisShows("z", "pos=40.000"));
  EXPECT_TRUE(AxisShows("z", "loop=open bias=0"));
  EXPECT_NE(Control("lights").find("values=0,"), std::string::npos);
  EXPECT_EQ(Poll()[1], 1) << "the e-stop is still pressed";
  Control("probe trip");
  EXPECT_EQ(Poll()[4], 0) << "the touch interrupt is no longer armed";
}

// Each script's steps come at their moments: nothing before a test drives an axis, then the
// fault, then (for the link) its end; stopping a script puts right what it left.
TEST_F(FaultScriptsTest, ScriptsActWhenATestDrivesAnAxisAndAreUndoneWhenStopped) {
  EXPECT_EQ(Control("scripts"),
            "ok bounce-limit encoder-dropout signs-flipped stall-mid-move estop-mid-move "
            "link-drop board-reset");
  EXPECT_EQ(sim_->Command("script melt").rfind("error: script takes stop or one of: ", 0), 0u);

  Control("script estop-mid-move");
  clock_.SleepFor(seconds(2));
  EXPECT_EQ(Poll()[1], 0) << "no axis driven yet";
  EXPECT_EQ(Control("script"), "ok script=estop-mid-move step=0/1");
  Drive(0, -2000);
  ASSERT_TRUE(Within(seconds(2), [&] { return Poll()[1] == 1; }));
  EXPECT_NEAR(150 - Position("x"), 1.0, 0.5) << "1 mm into the drive";
  Control("script stop");
  EXPECT_EQ(Poll()[1], 0) << "undone";
  EXPECT_EQ(Control("script"), "ok script=none");

  Control("script stall-mid-move");
  Control("place x 150");
  ASSERT_TRUE(Within(seconds(3), [&] { return AxisShows("x", "stalled=1"); }));
  EXPECT_NEAR(Position("x"), 147.0, 0.2) << "2 mm in, 1 mm ahead";
  Control("script stop");
  ASSERT_TRUE(Within(seconds(3), [&] { return AxisShows("x", "stalled=0"); }));
}

TEST_F(FaultScriptsTest, TheLinkDropsForThreeSecondsAndABoardResetComesBackWithoutItsRecords) {
  Control("script link-drop");
  Drive(1, 2500);
  ASSERT_TRUE(Within(seconds(2), [&] { return !sim_->Plugged(); }));
  const auto gone = clock_.Now();
  ASSERT_TRUE(Within(seconds(5), [&] { return sim_->Plugged(); }));
  EXPECT_NEAR(std::chrono::duration<double>(clock_.Now() - gone).count(), 3.0, 0.05);
  EXPECT_TRUE(AxisShows("y", "loop=open bias=2500")) << "the board kept the record it was given";
  EXPECT_EQ(Control("script"),
            "ok script=link-drop step=2/2 last=\"ok serving " + sim_->EntryPath() + "\"");

  // The axis is still driven: at once. The script's steps run one after the other, so the
  // link may be seen gone a moment before the records are.
  Control("script board-reset");
  ASSERT_TRUE(Within(seconds(2), [&] { return !sim_->Plugged(); }));
  EXPECT_TRUE(Within(milliseconds(100), [&] { return AxisShows("y", "loop=open bias=0"); }))
      << "forgotten while the link is gone";
  EXPECT_FALSE(sim_->Plugged());
  ASSERT_TRUE(Within(seconds(2), [&] { return sim_->Plugged(); }));
  // Stopped while the link is gone, a script brings it back.
  Control("place y 100");
  client_ = Connect();
  Control("script link-drop");
  Drive(1, 2500);
  ASSERT_TRUE(Within(seconds(2), [&] { return !sim_->Plugged(); }));
  Control("script stop");
  EXPECT_TRUE(sim_->Plugged());
}

}  // namespace
}  // namespace sim::testing
