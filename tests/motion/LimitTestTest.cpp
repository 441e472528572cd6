// The limit test against the fake page: seeks to both switches, centering, the voltage limit,
// stops per phase, a limit that never registers, the first generation's start, and the report.
#include <algorithm>
#include <functional>

#include "motion/TestTexts.h"
#include "motion/Tests.h"
#include "tests/motion/FakeStagePage.h"

namespace motion_testing {
namespace {

using motion::TestButton;

// An X axis with switches at +-100 mm and hard stops 1 mm beyond.
constexpr FakeAxis kSwitchedX{.position = 5000,
                              .negStop = -101000,
                              .posStop = 101000,
                              .negSwitch = -100000,
                              .posSwitch = 100000};

// The number after `label` in the report.
int Value(const std::string& report, const std::string& label, std::size_t from = 0) {
  const std::size_t at = report.find(label, from);
  EXPECT_NE(at, std::string::npos) << label;
  return at == std::string::npos ? 0 : std::stoi(report.substr(at + label.size()));
}

class LimitTest : public MotionFixture {
 protected:
  // A page whose X axis is `axis`, expected where its switches are.
  FakeStagePage& Page(bool firstGeneration = false, const FakeAxis& axis = kSwitchedX) {
    FakeStagePage& page = MakePage(firstGeneration);
    page.SetAxis(0, axis);
    page.extents_.Extent3[0] = static_cast<std::uint32_t>(-100000);
    page.extents_.Extent4[0] = 100000;
    return page;
  }
  // From the first tick at which `reached` holds of the axis's position on, its friction is
  // `deadBand`: it gives way.
  void GiveWayWhen(FakeStagePage& page, FakeAxis axis, std::int32_t deadBand,
                   std::function<bool(std::int32_t)> reached) {
    freed_ = false;
    page.onTick = [=, this](FakeStagePage& p) mutable {
      if (freed_ || !reached(p.AxisPosition(0))) return;
      freed_ = true;
      axis.position = p.AxisPosition(0);
      axis.deadBand = deadBand;
      p.SetAxis(0, axis);
    };
  }
  bool freed_ = false;
};

TEST_F(LimitTest, SeeksBothLimitsAndCentres) {
  FakeStagePage& page = Page();
  Run(page, TestButton::kXLimit);
  ASSERT_EQ(page.Dialogs().size(), 1u);
  EXPECT_EQ(page.Dialogs()[0].texts[1], motion::texts::kLimitStartPosition.fallback);
  const std::string report = Report("LimitTest_X_0.dat");
  EXPECT_EQ(report.rfind("          X Axis \r\nLinear encoder limits\r\n          Negative: ", 0),
            0u)
      << report;
  const int negative = Value(report, "          Negative: ");
  const int positive = Value(report, "          Positive: ");
  EXPECT_LE(negative, -100000);
  EXPECT_GE(positive, 100000);
  EXPECT_NE(report.find("    Manually Stopped: \r\n          Negative: No\r\n          Positive: "
                        "No\r\n\r\n"),
            std::string::npos);
  // Back to the centre of travel, within one pass of it.
  EXPECT_LE(page.AxisPosition(0), negative / 2 + positive / 2);
  EXPECT_GT(page.AxisPosition(0), -10000);
  // The centering starts at an eighth of the lowest moving voltage and climbs 250 a pass to it.
  const int minimum = Value(report, "               Min: ");
  std::vector<std::string> texts = page.Texts(0);
  const auto centering = std::find(texts.rbegin(), texts.rend(), "MB: 0").base();
  ASSERT_NE(centering, texts.end());
  for (int mb = minimum / 8, i = 0; mb < minimum + 250; mb += 250, ++i) {
    ASSERT_LT(centering + i, texts.end());
    EXPECT_EQ(*(centering + i), "MB: " + std::to_string(mb));
  }
  const std::string box = page.BoxTexts().at(0);
  EXPECT_EQ(box, "X Axis Limits\r\n" +
                     report.substr(report.find("\r\nLinear"),
                                   report.find("    Moving") - report.find("\r\nLinear")) +
                     "\r\nTest finished.");
  EXPECT_EQ(page.Syncs(), (std::vector<unsigned>{0, 0, 0}));
  EXPECT_EQ(page.BoardPid(0).Kp, 100);
  const motion::StageTestState& state = page.TestState();
  EXPECT_FALSE(state.Running || state.TestX || state.LimitTest);
}

TEST_F(LimitTest, CancelMovesNothingAndWritesNothing) {
  FakeStagePage& page = Page();
  page.Choice(ui::kIdCancel, 1);
  Run(page, TestButton::kXLimit);
  EXPECT_TRUE(page.Stores().empty());
  EXPECT_TRUE(page.Boxes().empty());
  EXPECT_FALSE(Exists("LimitTest_X_0.dat"));
  EXPECT_EQ(page.TestState().MessageResult, 1);
}

TEST_F(LimitTest, FirstGenerationAsksNothingAndTakesTheLastChoice) {
  FakeStagePage& page = Page(true);
  page.SetAxis(0, {.deadBand = 30000});
  page.VoltageChoice = 1;        // High from the last axis test
  page.motorMaximum_[0] = 2250;  // High: 1000
  Run(page, TestButton::kXLimit);
  EXPECT_TRUE(page.Dialogs().empty());
  // The ramp to the High limit, then one step more in the seek.
  EXPECT_EQ(page.Biases(0), (std::vector<int>{0, -250, -500, -750, -1000, -1250}));
  // After a platen test MessageResult is 0: a click only puts it back to 1.
  page.TestState().MessageResult = 0;
  const std::size_t stores = page.Stores().size();
  Run(page, TestButton::kXLimit);
  EXPECT_EQ(page.Stores().size(), stores);
  EXPECT_EQ(page.TestState().MessageResult, 1);
}

TEST_F(LimitTest, VoltageLimitInASeekWarnsWithoutReport) {
  FakeStagePage& page = Page();
  page.SetAxis(0, {.deadBand = 30000});
  page.motorMaximum_[0] = 4250;  // Standard: 1000
  Run(page, TestButton::kXLimit);
  EXPECT_EQ(page.BoxTexts(), std::vector<std::string>{
                                 "VOLTAGE LIMIT REACHED\r\nMake sure nothing is obstructing the "
                                 "movement of the machine \r\nbefore running the test with a "
                                 "higher voltage limit."});
  EXPECT_FALSE(Exists("LimitTest_X_0.dat"));
  EXPECT_EQ(page.Biases(0), (std::vector<int>{0, -250, -500, -750, -1000, -1250}));
  EXPECT_EQ(page.Syncs().size(), 1u);
}

TEST_F(LimitTest, OneStopEndsOnePhase) {
  struct Case {
    int phase;  // 0 negative seek, 1 positive seek, 2 centering
    const char* negative;
    const char* positive;
    bool centering;
  };
  for (const Case& c :
       {Case{0, "Yes", "No", false}, Case{1, "No", "Yes", false}, Case{2, "No", "No", true}}) {
    testing_support::ScratchDir folder;
    FakeStagePage& page = Page();
    page.SetFolder(folder.Path() + "/");
    int phase = 0;
    bool stopped = false;
    page.onTick = [&](FakeStagePage& p) {
      const std::int32_t at = p.AxisPosition(0);
      if (phase == 0 && at <= -100000) phase = 1;
      if (phase == 1 && at >= 100000) phase = 2;
      const bool midway = phase == 0 ? at < -40000 : phase == 1 ? at > 40000 : at < 60000;
      if (!stopped && phase == c.phase && midway && p.Sampling) {
        stopped = true;
        p.StopRequested = 1;
      }
    };
    Run(page, TestButton::kXLimit);
    EXPECT_TRUE(stopped);
    const std::string report = ReadReport(folder / "LimitTest_X_0.dat");
    EXPECT_NE(report.find(std::string("    Manually Stopped: \r\n          Negative: ") +
                          c.negative + "\r\n          Positive: " + c.positive +
                          (c.centering ? "\r\n         Centering: Yes\r\n\r\n" : "\r\n\r\n")),
              std::string::npos)
        << report;
    // The stopped seek ended short of its switch; the phases after it ran in full.
    const int negative = Value(report, "          Negative: ");
    const int positive = Value(report, "          Positive: ");
    EXPECT_EQ(negative > -100000, c.phase == 0) << negative;
    EXPECT_EQ(positive < 100000, c.phase == 1) << positive;
  }
}

// The biases stored for the first run on X (its take-over and its steps), up to its hand-back.
std::vector<int> FirstRunBiases(FakeStagePage& page) {
  std::vector<int> out;
  for (const Store& st : page.Stores()) {
    if (st.axis != 0) continue;
    if (st.pid.Kp != 0) break;
    if (out.empty() || out.back() != st.pid.Mb) out.push_back(st.pid.Mb);
  }
  return out;
}

// The texts of the last run (the centering) from its take-over's "MB: 0" on.
std::vector<std::string> CenteringTexts(FakeStagePage& page) {
  const std::vector<std::string> texts = page.Texts(0);
  const auto from = std::find(texts.rbegin(), texts.rend(), "MB: 0").base();
  return {from, texts.end()};
}

// The speed band of the seek, per pass of 100 ms at K = 1000 counts a mm. An axis that makes
// 1750 counts a pass at a bias of 500 (its friction takes 150 of the bias, then 5 counts a tick
// for each unit more) is inside the current page's band (1500 to 3000) and below the first
// generation's (2000 to 3000): only the first generation steps up, to 750 (3000 a pass, the top
// of the band, in it). The centering holds its bias wherever a 50 ms pass lies between 750 and
// 2500 counts, here from 562 on: it starts at an eighth of the lowest moving voltage, 62.
TEST_F(LimitTest, EachFamilySeeksWithinItsOwnBandAndTheCenteringWithinItsOwn) {
  struct Case {
    bool firstGeneration;
    std::vector<int> negativeRun;
    int minimum;
    std::vector<std::string> centering;
  };
  const Case cases[] = {
      {false, {0, -250, -500}, 500, {"MB: 62", "MB: 312", "MB: 562", "MB: 562"}},
      {true, {0, -250, -500, -750}, 500, {"MB: 62", "MB: 312", "MB: 562", "MB: 562"}},
  };
  for (const Case& c : cases) {
    testing_support::ScratchDir folder;
    FakeAxis axis = kSwitchedX;
    axis.deadBand = 150;
    axis.divisor = 1;
    FakeStagePage& page = Page(c.firstGeneration, axis);
    page.SetFolder(folder.Path() + "/");
    Run(page, TestButton::kXLimit);
    EXPECT_EQ(FirstRunBiases(page), c.negativeRun) << "first generation " << c.firstGeneration;
    const std::string report = ReadReport(folder / "LimitTest_X_0.dat");
    EXPECT_EQ(Value(report, "               Min: "), c.minimum) << report;
    EXPECT_EQ(CenteringTexts(page), c.centering);
  }
}

// The centering steps down once it has reached the lowest moving voltage and the axis runs
// faster than 2500 counts a 50 ms pass: here the friction gives way at the positive switch, so
// at 562 a pass makes up to 2886 counts, and the bias falls back a step before it climbs again.
TEST_F(LimitTest, ACenteringThatRunsTooFastStepsDown) {
  FakeAxis axis = kSwitchedX;
  axis.deadBand = 150;
  axis.divisor = 1;
  FakeStagePage& page = Page(false, axis);
  GiveWayWhen(page, axis, -400, [](std::int32_t at) { return at >= 100000; });
  Run(page, TestButton::kXLimit);
  ASSERT_TRUE(freed_);
  const std::vector<std::string> texts = CenteringTexts(page);
  ASSERT_GE(texts.size(), 4u);
  EXPECT_EQ(std::vector<std::string>(texts.begin(), texts.begin() + 4),
            (std::vector<std::string>{"MB: 62", "MB: 312", "MB: 562", "MB: 312"}));
}

// An axis that speeds up in its seek (its friction gives way) is slowed by a step of 250 each time
// it has been too fast (above 3000 counts a pass) for the family's count of passes in a row: on
// the fourth, and in the first generation's negative seek on the fifth. Here the ramp ends at 750
// (2250 counts a pass, in both bands); freed, the axis makes 4750 a pass at 750, 3500 at 500 and
// 2250 at 250, so the second step down comes exactly that many passes after the first, and the
// lowest moving voltage follows them down.
TEST_F(LimitTest, AnAxisThatSpeedsUpInItsSeekLosesAStepAfterItsFamilysCountOfFastPasses) {
  struct Case {
    bool firstGeneration;
    int sign;    // -1: the negative seek speeds up, +1: the positive one
    int passes;  // the family's count of fast passes for that direction, and the one that steps
  };
  for (const Case& c :
       {Case{false, -1, 4}, Case{false, +1, 4}, Case{true, -1, 5}, Case{true, +1, 4}}) {
    SCOPED_TRACE(testing::Message()
                 << "first generation " << c.firstGeneration << ", sign " << c.sign);
    testing_support::ScratchDir folder;
    FakeAxis axis = kSwitchedX;
    axis.deadBand = 300;
    axis.divisor = 1;
    FakeStagePage& page = Page(c.firstGeneration, axis);
    page.SetFolder(folder.Path() + "/");
    GiveWayWhen(page, axis, -200, [&c](std::int32_t at) { return c.sign * at > 30000; });
    Run(page, TestButton::kXLimit);
    ASSERT_TRUE(freed_);
    // The run in that direction, from its first bias on: the ramp up to 750, then two step downs,
    // to 500 and then to 250, each after the family's count of fast passes.
    std::vector<int> biases;
    std::int64_t at750 = -1, at500 = -1, at250 = -1;
    for (const Store& st : page.Stores()) {
      if (st.axis != 0) continue;
      if (st.pid.Kp != 0) {
        if (!biases.empty()) break;
        continue;
      }
      const int mb = c.sign * st.pid.Mb;
      if (mb <= 0 && biases.empty()) continue;
      if (biases.empty() || biases.back() != mb) biases.push_back(mb);
      if (mb == 750 && at750 < 0) at750 = st.ms;
      if (mb == 500 && at750 >= 0 && at500 < 0) at500 = st.ms;
      if (mb == 250 && at500 >= 0 && at250 < 0) at250 = st.ms;
    }
    // What follows the second step down depends on where the axis then is.
    ASSERT_GE(biases.size(), 5u) << testing::PrintToString(biases);
    EXPECT_EQ(std::vector<int>(biases.begin(), biases.begin() + 5),
              (std::vector<int>{250, 500, 750, 500, 250}))
        << testing::PrintToString(biases);
    ASSERT_GE(at250, 0);
    EXPECT_EQ(at250 - at500, c.passes * 100);
    const std::string report = ReadReport(folder / "LimitTest_X_0.dat");
    const std::size_t block = report.find(c.sign < 0 ? "Moving voltage (-)" : "Moving voltage (+)");
    ASSERT_NE(block, std::string::npos) << report;
    EXPECT_EQ(Value(report, "               Min: ", block), 250) << report;
  }
}

TEST_F(LimitTest, EStopEndsEveryPhaseAtItsFirstLook) {
  FakeStagePage& page = Page();
  page.estop_ = true;
  Run(page, TestButton::kXLimit);
  const std::string report = Report("LimitTest_X_0.dat");
  // The axis never left its place, which is then the centre: the centering has nothing to do.
  EXPECT_EQ(report.substr(report.find("    Manually")),
            "    Manually Stopped: \r\n          Negative: Yes\r\n          Positive: Yes\r\n\r\n");
  // Each ramp ended at its first pass, at a bias of 0.
  EXPECT_EQ(page.Biases(0), std::vector<int>{0});
  EXPECT_EQ(page.Syncs().size(), 3u);
}

TEST_F(LimitTest, StallShortOfTheExpectedLimitIsNotRegistered) {
  struct Case {
    std::int32_t negStop;
    bool remark;
    std::int64_t watchedMs;
  };
  for (const Case& c : {Case{-50000, true, 900}, Case{-120000, false, 100}}) {
    testing_support::ScratchDir folder;
    FakeStagePage& page = Page();
    page.SetFolder(folder.Path() + "/");
    // No negative switch at all: the axis stalls on its hard stop.
    page.SetAxis(0,
                 {.position = 5000, .negStop = c.negStop, .posStop = 101000, .posSwitch = 100000});
    Run(page, TestButton::kXLimit);
    const std::string report = ReadReport(folder / "LimitTest_X_0.dat");
    EXPECT_EQ(report.find("DIDN'T REGISTER HITTING NEGATIVE LIMIT") != std::string::npos, c.remark)
        << report;
    EXPECT_EQ(Value(report, "          Negative: "), c.negStop);
    EXPECT_EQ(report.find("POSITIVE LIMIT"), std::string::npos);
    // After its last step up the seek watches the stalled axis: beyond the expected limit for one
    // pass; short of it for three rounds of three slow passes, until its count of steps passes 6.
    std::int64_t lastStep = -1;
    std::int64_t handBack = -1;
    int bias = 0;
    for (const Store& st : page.Stores()) {
      if (st.axis != 0) continue;
      if (st.pid.Kp != 0) {
        handBack = st.ms;
        break;
      }
      if (st.pid.Mb != bias) {
        bias = st.pid.Mb;
        lastStep = st.ms;
      }
    }
    EXPECT_EQ(handBack - lastStep, c.watchedMs);
  }
}

TEST_F(LimitTest, QuitEndsTheSeekAndSkipsTheRest) {
  FakeStagePage& page = Page();
  page.onTick = [](FakeStagePage& p) {
    if (p.AxisPosition(0) < -50000) p.ThreadGuard().RequestQuit();
  };
  Run(page, TestButton::kXLimit);
  EXPECT_GT(page.AxisPosition(0), -100000);
  EXPECT_EQ(page.Syncs().size(), 1u);
  EXPECT_EQ(page.BoardPid(0).Kp, 100);
  EXPECT_FALSE(page.TestState().Running);
  // The positive seek and the centering never happened: no report says they did.
  EXPECT_FALSE(Exists("LimitTest_X_0.dat"));
  EXPECT_TRUE(page.BoxTexts().empty());
}

TEST(LimitTexts, ReportWithAndWithoutItsOptionalLines) {
  motion::LimitTestResult r;
  r.LinearLimit[0] = -100500;
  r.LinearLimit[1] = 100700;
  r.RotaryLimit[0] = -200993;
  r.RotaryLimit[1] = 201407;
  r.MinVoltage[0] = 1750;
  r.MaxVoltage[0] = 2250;
  r.MinVoltage[1] = -250;
  r.MaxVoltage[1] = 2000;
  const std::string rest =
      "\r\nLinear encoder limits\r\n"
      "          Negative: -100500\r\n"
      "          Positive: 100700\r\n"
      "Rotary encoder limits\r\n"
      "          Negative: -200993\r\n"
      "          Positive: 201407\r\n"
      "    Moving voltage (-)\r\n"
      "               Min: 1750\r\n"
      "               Max: 2250\r\n"
      "    Moving voltage (+)\r\n"
      "               Min: -250\r\n"
      "               Max: 2000\r\n"
      "    Manually Stopped: \r\n"
      "          Negative: No\r\n"
      "          Positive: ";
  EXPECT_EQ(motion::LimitReportBody(r, 1), "          Y Axis " + rest + "No\r\n\r\n");
  // Either seek that reached the voltage limit says so, once.
  r.VoltageLimitReached[1] = 1;
  EXPECT_EQ(motion::LimitReportBody(r, 1),
            "          Y Axis \r\nVOLTAGE LIMIT REACHED\r\n" + rest + "No\r\n\r\n");
  r.VoltageLimitReached[0] = 1;
  r.LimitNotRegistered[0] = r.LimitNotRegistered[1] = 1;
  r.ManuallyStopped[1] = 1;
  r.CenteringStopped = 1;
  EXPECT_EQ(motion::LimitReportBody(r, 7),
            "          0 Axis \r\nVOLTAGE LIMIT REACHED\r\n\r\nDIDN'T REGISTER HITTING NEGATIVE "
            "LIMIT\r\nDIDN'T REGISTER HITTING POSITIVE LIMIT" +
                rest + "Yes\r\n         Centering: Yes\r\n\r\n");
  EXPECT_EQ(
      motion::LimitResultText(r, 2),
      "Z Axis Limits\r\n\r\nVOLTAGE LIMIT REACHED\r\nBefore continuing, make sure that there "
      "is nothing obstructing \r\n the movement of the machine and that the axis is not at "
      "the \r\ntravel limit.\r\n\r\nLinear encoder limits\r\n          Negative: -100500\r\n  "
      "        Positive: 100700\r\nRotary encoder limits\r\n          Negative: -200993\r\n  "
      "        Positive: 201407\r\n\r\nTest finished.");
}

}  // namespace
}  // namespace motion_testing
