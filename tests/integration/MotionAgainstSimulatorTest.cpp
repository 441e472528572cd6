// The motion tests end to end: the real main dialog with its Stage page, timers and test threads,
// the simulated board's machine underneath, all in virtual time. An operator connected as a
// browser answers the start dialogs and boxes over the window's protocol and types into the page.
// Each report (and the trace beside it) is checked against what the simulated machine did.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "motion/TestTexts.h"
#include "tests/integration/MotionRig.h"

namespace {

using namespace motion_rig;

// What differs between the two families the tests run on.
struct Family {
  const char* profile;
  unsigned axis;  // the axis of the axis test
  const char* letter;
  double rotaryPerLinear;  // rotary counts of the axis per linear count
  bool limitStartDialog;
  bool zoomTest;
  bool platen;
};

const Family kAutoVision{"autovision", 0, "X", 4000.0 / 5 / 2000, true, false, false};
// The first generation's Z starts its positive run from the axis's own bias.
const Family kServo{"servo", 2, "Z", 4000.0 / 2 / 2500, false, true, true};

class MotionAgainstSimulator : public MotionRig, public ::testing::WithParamInterface<Family> {
 protected:
  void SetUp() override { Open(GetParam().profile); }
};

TEST_P(MotionAgainstSimulator, AxisTestMovesAboutTenMillimetresEachWayAsTheReportAndTraceSay) {
  const Family& f = GetParam();
  const std::string axis = f.letter == std::string("X") ? "x" : "z";
  const std::int32_t k = Page().CountsPerMm(f.axis);
  ASSERT_GT(k, 0);
  const double startCounts = Sim(axis, "counts");
  ASSERT_TRUE(RunTest(std::string(f.letter) + "AxisTest"));

  const std::string name = std::string("AxisTest_") + f.letter + "_0";
  const std::string body = Report(name + ".dat");
  ASSERT_FALSE(body.empty());
  const auto initial = NumbersAfter(body, "Initial: ");
  const auto final = NumbersAfter(body, "Final: ");
  const auto change = NumbersAfter(body, "Change: ");
  ASSERT_EQ(change.size(), 4u);  // linear and rotary, negative and positive
  // The ramp stops at the first sample beyond 10 mm; the start dialog promises 10-15 mm.
  EXPECT_LT(change[0], -10 * k);
  EXPECT_GT(change[0], -15 * k);
  EXPECT_GT(change[2], 10 * k);
  EXPECT_LT(change[2], 15 * k);
  // Both encoders saw the same move through the screw.
  EXPECT_NEAR(change[1], change[0] * f.rotaryPerLinear, 0.01 * 10 * k);
  EXPECT_NEAR(change[3], change[2] * f.rotaryPerLinear, 0.01 * 10 * k);
  EXPECT_NEAR(initial[0], startCounts, k / 100.0);
  // Handed back, the axis coasts to rest within a tenth of a millimetre.
  ASSERT_TRUE(Wait([&] { return Sim(axis, "moving") == 0; }, seconds(3)));
  EXPECT_NEAR(final[2], Sim(axis, "counts"), k / 10.0) << "the machine stands where reported";
  const auto volts = NumbersAfter(body, "Starting Voltage: ");
  ASSERT_EQ(volts.size(), 2u);
  EXPECT_GT(volts[0], 200) << "beyond the dead band";
  EXPECT_EQ(body.find("VOLTAGE LIMIT"), std::string::npos);
  EXPECT_EQ(NumbersAfter(body, "Manually Stopped: No").size(), 2u);
  EXPECT_EQ(NumbersAfter(body, "Correct Distance: Yes").size(), 2u);
  ExpectEveryAxisHandedBack();

  // The trace: 20 ms rows, the negative drive before the positive, the axis never out of the
  // range it travelled.
  const auto rows = ReadTrace(reports_ / (name + ".csv"));
  ASSERT_GT(rows.size(), 100u);
  std::size_t lastNegative = 0, firstPositive = rows.size();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (i > 0) {
      EXPECT_NEAR(rows[i].time - rows[i - 1].time, 0.02, 0.0015) << i;
    }
    if (rows[i].bias < -200) lastNegative = i;
    if (rows[i].bias > 200 && firstPositive == rows.size()) firstPositive = i;
    EXPECT_NEAR(rows[i].linear, startCounts, 16.0 * k) << "row " << i;
  }
  EXPECT_LT(lastNegative, firstPositive);
  EXPECT_LT(firstPositive, rows.size());
}

// The board goes away while the bias climbs and comes back a second later. The drive ends with
// the loss (no write after it drives harder), the run that would begin while the board is away
// does not, and the first thing the board gets on the new link is the axis's own record.
TEST_P(MotionAgainstSimulator, ALinkLostMidRampEndsTheDriveAndTheAxisGetsItsOwnRecordBack) {
  const Family& f = GetParam();
  const std::string axis = f.letter == std::string("X") ? "x" : "z";
  const sim::AxisTuning own = Tuning(f.axis);
  ASSERT_FALSE(own.OpenLoop());
  int biasAtLoss = 0;
  bool unplugged = false;
  ASSERT_TRUE(RunTest(std::string(f.letter) + "AxisTest", seconds(600), [&] {
    if (!unplugged && Sim(axis, "moving") == 1) {
      unplugged = true;
      biasAtLoss = std::abs(Tuning(f.axis).mb);
      Control("unplug");
    }
  }));
  ASSERT_TRUE(unplugged);
  EXPECT_LE(std::abs(Tuning(f.axis).mb), biasAtLoss) << "nothing drove harder after the loss";
  Wait([] { return false; }, seconds(1));
  Control("replug");
  // The reconnection comes within a second; its first write is the record the run saved.
  bool openLoopAfterReplug = false;
  EXPECT_TRUE(Wait(
      [&] {
        const sim::AxisTuning t = Tuning(f.axis);
        openLoopAfterReplug |= t.OpenLoop() && std::abs(t.mb) > biasAtLoss;
        return !t.OpenLoop();
      },
      milliseconds(1500)));
  EXPECT_FALSE(openLoopAfterReplug);
  EXPECT_EQ(Tuning(f.axis).kp, own.kp);
  EXPECT_EQ(Tuning(f.axis).mb, own.mb);
  EXPECT_TRUE(Page().Owed.Empty());

  const std::string body = Report(std::string("AxisTest_") + f.letter + "_0.dat");
  ASSERT_FALSE(body.empty());
  EXPECT_EQ(body.find("VOLTAGE LIMIT"), std::string::npos) << body;
  // The negative run ended where the link went; the positive one never began.
  const auto volts = NumbersAfter(body, "Starting Voltage: ");
  ASSERT_EQ(volts.size(), 2u);
  EXPECT_NEAR(volts[0], biasAtLoss, 250);
  EXPECT_EQ(volts[1], 0);
  EXPECT_NE(body.find("(+)\r\n Linear Encoder Positions\r\n                    Initial: 0\r\n"),
            std::string::npos)
      << body;
  const auto shown = op.Dialogs();
  EXPECT_FALSE(std::any_of(shown.begin(), shown.end(), [](const Operator::Shown& s) {
    return s.text.find("VOLTAGE LIMIT REACHED") != std::string::npos;
  }));
}

TEST_P(MotionAgainstSimulator, LimitTestFindsTheSwitchesWhereTheExtentsPutThemAndCentres) {
  const Family& f = GetParam();
  const std::int32_t k = Page().CountsPerMm(1);
  const AxisExtents extents = Page().Extents();
  // The switches sit a millimetre outside the expected limits.
  const long negative = static_cast<std::int32_t>(extents.Extent3[1]) - k;
  const long positive = static_cast<std::int32_t>(extents.Extent4[1]) + k;
  ASSERT_TRUE(RunTest("YLimitTest"));

  const std::string body = Report("LimitTest_Y_0.dat");
  ASSERT_FALSE(body.empty());
  EXPECT_EQ(body.find("DIDN'T REGISTER"), std::string::npos);
  EXPECT_EQ(body.find("VOLTAGE LIMIT"), std::string::npos);
  const auto limits = NumbersAfter(body, "tive: ");  // Negative, Positive; linear then rotary
  ASSERT_GE(limits.size(), 4u);
  EXPECT_NEAR(limits[0], negative, k / 10.0);
  EXPECT_NEAR(limits[1], positive, k / 10.0);
  EXPECT_NEAR(limits[3] - limits[2], (positive - negative) * 4000.0 / 5 / k, 40);
  for (long v : NumbersAfter(body, "Min: "))
    EXPECT_GT(v, 200) << "moving voltages";
  // Centred: back near the middle of the travel, with its own tuning in force.
  EXPECT_NEAR(Sim("y", "counts"), (negative + positive) / 2.0, 10.0 * k);
  EXPECT_EQ(SimField("y", "limit"), "none");
  ExpectEveryAxisHandedBack();
  const auto choices = op.Dialogs();
  ASSERT_FALSE(choices.empty());
  EXPECT_EQ(choices.front().kind == "choice", f.limitStartDialog);
  EXPECT_EQ(choices.back().text.rfind("Y Axis Limits", 0), 0u) << choices.back().text;
}

TEST_P(MotionAgainstSimulator, AnAxisStalledShortOfItsSwitchEndsItsSeekThereAndSaysSo) {
  const std::int32_t k = Page().CountsPerMm(1);
  Control("stall y 30");  // the axis stands at 100 mm: the obstacle is met going down
  ASSERT_TRUE(RunTest("YLimitTest"));
  const std::string body = Report("LimitTest_Y_0.dat");
  ASSERT_FALSE(body.empty());
  EXPECT_NE(body.find("DIDN'T REGISTER HITTING NEGATIVE LIMIT"), std::string::npos) << body;
  EXPECT_EQ(body.find("DIDN'T REGISTER HITTING POSITIVE LIMIT"), std::string::npos);
  const auto limits = NumbersAfter(body, "tive: ");
  ASSERT_GE(limits.size(), 2u);
  EXPECT_NEAR(limits[0], 30.0 * k, k / 10.0) << "where the obstacle stood";
  EXPECT_NEAR(limits[1], static_cast<std::int32_t>(Page().Extents().Extent4[1]) + k, k / 10.0);
  ExpectEveryAxisHandedBack();
}

TEST_P(MotionAgainstSimulator, PlatenCyclesAreCountedAndAStuckPlatenFailsItsCycle) {
  const Family& f = GetParam();
  const std::uint32_t movesBefore = board_->TrafficSeen().commands[0x4C];
  Type("PlatenCount", "3");
  ASSERT_TRUE(RunTest("PlatenTest"));
  if (!f.platen) {
    ASSERT_EQ(op.Dialogs().size(), 1u);
    EXPECT_EQ(op.Dialogs()[0].text, "Platen is not connected to the machine.");
    EXPECT_FALSE(platform::FileExists(reports_ / "PlatenTest_0.dat"));
    return;
  }
  EXPECT_EQ(board_->TrafficSeen().commands[0x4C] - movesBefore, 6u) << "three cycles, two moves";
  std::string body = Report("PlatenTest_0.dat");
  EXPECT_EQ(body.rfind("Platen test completed cycle 3.\r\n", 0), 0u) << body;
  const auto open = NumbersAfter(body, "Max: ");
  ASSERT_EQ(open.size(), 2u);
  EXPECT_NEAR(open[0], 80 * 500, 50) << "80 mm at 500 counts a mm";
  EXPECT_NEAR(open[1], 0, 50);
  EXPECT_NE(body.find("\r\n3\t"), std::string::npos);
  EXPECT_EQ(body.find("\r\n4\t"), std::string::npos);
  EXPECT_EQ(body.find("50000"), std::string::npos) << "every end was measured";
  EXPECT_EQ(SimField("platen", "limit"), "low") << "a completed test ends closed";

  // Stuck half way through the second opening: that cycle fails, its row has no closed end.
  const std::uint32_t second = board_->TrafficSeen().commands[0x4C] + 3;
  bool stuck = false;
  ASSERT_TRUE(RunTest("PlatenTest", seconds(300), [&] {
    if (!stuck && board_->TrafficSeen().commands[0x4C] >= second) {
      clock.SleepFor(milliseconds(1000));
      stuck = true;
      Control("platen stick");
    }
  }));
  body = Report("PlatenTest_1.dat");
  EXPECT_EQ(body.rfind("Platen test failed in the middle of cycle 2.\r\n", 0), 0u) << body;
  EXPECT_NE(body.find("\r\n2\t"), std::string::npos);
  const auto lastRow = body.substr(body.find("\r\n2\t") + 2);
  EXPECT_EQ(std::count(lastRow.begin(), lastRow.end(), '\t'), 1) << lastRow;
  EXPECT_EQ(op.Dialogs().back().text.rfind("Platen test failed in the middle of cycle 2.", 0), 0u);
  Control("platen free");
}

// A platen move feeds the platen's count into the page's test position. The next axis test must
// start from its own axis's position, and a platen test after an axis test traces the platen.
TEST_P(MotionAgainstSimulator, APlatenMoveAndAnAxisTestLeaveNothingOfThemselvesToTheOther) {
  const Family& f = GetParam();
  if (!f.platen) GTEST_SKIP() << "no platen on this machine";
  ASSERT_TRUE(RunTest("PlatenToggle"));
  ASSERT_EQ(SimField("platen", "limit"), "high") << "the toggle opened the platen";
  EXPECT_EQ(Page().TestPosition, 0) << "0 between runs";

  const double zCounts = Sim("z", "counts");
  ASSERT_TRUE(RunTest("ZAxisTest"));
  const auto initial = NumbersAfter(Report("AxisTest_Z_0.dat"), "Initial: ");
  ASSERT_GE(initial.size(), 1u);
  EXPECT_NEAR(initial[0], zCounts, 5) << "not the platen's count";

  Type("PlatenCount", "1");
  ASSERT_TRUE(RunTest("PlatenTest"));
  const auto rows = ReadTrace(reports_ / "PlatenTest_0.csv");
  ASSERT_FALSE(rows.empty());
  long widest = 0;
  bool sawOpen = false, sawClosed = false;
  for (const TraceRow& row : rows) {
    widest = std::max(widest, row.rotary);
    sawOpen |= row.limit > 0;
    sawClosed |= row.limit < 0;
  }
  EXPECT_NEAR(widest, 80 * 500, 50) << "the platen's encoder, open at 80 mm";
  EXPECT_TRUE(sawOpen && sawClosed) << "the platen's switches";
}

TEST_P(MotionAgainstSimulator, TheZoomTestRunsOnlyWhereThePageHasIt) {
  const Family& f = GetParam();
  if (!f.zoomTest) {
    Click("ZoomAxisTest");
    EXPECT_FALSE(Wait([&] { return State().Running != 0; }, seconds(1)));
    EXPECT_TRUE(op.Dialogs().empty());
    return;
  }
  const double start = Sim("zoom", "counts");
  ASSERT_TRUE(RunTest("ZoomAxisTest"));
  const std::string body = Report("AxisTest_Zoom_0.dat");
  const auto change = NumbersAfter(body, "Change: ");
  ASSERT_EQ(change.size(), 2u);
  // 3000 counts is the target; the start dialog promises 3000-4000.
  EXPECT_LT(change[0], -3000);
  EXPECT_GT(change[0], -4000);
  EXPECT_GT(change[1], 3000);
  EXPECT_LT(change[1], 4000);
  EXPECT_NEAR(Sim("zoom", "counts"), start + change[0] + change[1], 5);
  // The lens moved: each run's result names its direction.
  std::string told;
  for (const auto& d : op.Dialogs()) {
    if (d.text.find(motion::texts::kZoomMovedNegative.fallback) != std::string::npos) told += "-";
    if (d.text.find(motion::texts::kZoomMovedPositive.fallback) != std::string::npos) told += "+";
  }
  EXPECT_EQ(told, "-+");
  ExpectEveryAxisHandedBack();
}

// The program (or the computer) died while a test held an axis: the board still drives it open
// loop. The journal beside the program names the record the run saved; the next start writes it
// before anything reads the axis, says so, and the journal goes. A record owed to another board
// stays for that board.
class StartAfterACrash : public MotionRig {};

TEST_F(StartAfterACrash, TheJournalsRecordGoesBackFirstAndTheOperatorIsTold) {
  AxisPid own{};
  Open("autovision", [&] {
    ASSERT_TRUE(Servo().GetAxisPid(0, own));
    // What the crash left: the take-over record on the board, the saved one in the journal.
    ASSERT_TRUE(
        Servo().SetAxisPid(0, AxisPid{.Fe = 2147483647, .Dt = 1, .Kout = 65535, .Mb = -1500}));
    motion::OwedRecords journal;
    journal.UseJournal(reports_ / StageDlg::kJournalName);
    ASSERT_TRUE(journal.Owe("AV3-24-01187", 0, own));
    ASSERT_TRUE(journal.Owe("SV-07-00412", 1, own));  // another machine's
  });
  const sim::AxisTuning x = Tuning(0);
  EXPECT_FALSE(x.OpenLoop());
  EXPECT_EQ(x.kp, own.Kp);
  EXPECT_EQ(x.mb, own.Mb);
  EXPECT_EQ(Page().AxisPids[0], own) << "the page reads the axis's own record, not the take-over";
  const auto shown = op.Dialogs();
  EXPECT_TRUE(std::any_of(shown.begin(), shown.end(), [](const Operator::Shown& s) {
    return s.text.find("ended during a motion test") != std::string::npos &&
           s.text.find("Axis X now has its own settings again.") != std::string::npos;
  }));
  const auto logged = log.Messages();
  EXPECT_TRUE(std::any_of(logged.begin(), logged.end(), [](const std::string& m) {
    return m.find("Motion test journal: X handed back at start") != std::string::npos;
  }));
  motion::OwedRecords left;
  const auto entries = left.UseJournal(reports_ / StageDlg::kJournalName);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].board, "SV-07-00412");
}

// While a run holds its axis, the journal names the record it will put back; once the axis is
// handed back the journal is gone.
TEST_F(StartAfterACrash, TheJournalHoldsTheSavedRecordJustWhileTheAxisIsTakenOver) {
  Open("autovision");
  const std::string journal = reports_ / StageDlg::kJournalName;
  const sim::AxisTuning own = Tuning(0);
  bool seenWhileDriven = false;
  ASSERT_TRUE(RunTest("XAxisTest", seconds(300), [&] {
    if (Tuning(0).OpenLoop()) {
      motion::OwedRecords look;
      const auto entries = look.UseJournal(journal);
      seenWhileDriven |= entries.size() == 1 && entries[0].axis == 0 &&
                         entries[0].record.Kp == own.kp && entries[0].record.Mb == own.mb;
    }
  }));
  EXPECT_TRUE(seenWhileDriven);
  EXPECT_FALSE(platform::FileExists(journal));
}

INSTANTIATE_TEST_SUITE_P(Families, MotionAgainstSimulator, ::testing::Values(kAutoVision, kServo),
                         [](const auto& test) { return std::string(test.param.profile); });

}  // namespace
