// The axis test and the zoom test against the fake page: the ramp, the phases with the
// operator's answers, stops, cancels, the report and its trace, and the sound rules for a missing
// scale, a reconnection and the page's end.
#include <filesystem>
#include <functional>

#include "motion/TestTexts.h"
#include "motion/Tests.h"
#include "tests/motion/FakeStagePage.h"

namespace motion_testing {
namespace {

using motion::TestButton;

// The intervals between the ramp's stores in the first run, in ms, from its first step on (the
// take-over's store may be followed by a wait for a first sample).
std::vector<std::int64_t> StepIntervals(FakeStagePage& page, unsigned axis) {
  std::vector<std::int64_t> times;
  for (const Store& s : page.Stores()) {
    if (s.axis != axis) continue;
    if (s.pid.Kp != 0) break;  // the hand-back
    times.push_back(s.ms);
  }
  std::vector<std::int64_t> out;
  for (std::size_t i = 2; i < times.size(); ++i)
    out.push_back(times[i] - times[i - 1]);
  return out;
}

// The block of one direction in a report: from its heading to the next.
std::string Block(const std::string& report, int d) {
  const std::size_t second = report.find("(+)");
  const std::size_t start = d == 0 ? 0 : report.rfind("\r\n\r\n", second) + 4;
  return d == 0 ? report.substr(0, report.rfind("\r\n\r\n", second) + 4) : report.substr(start);
}

using AxisRamp = MotionFixture;

TEST_F(AxisRamp, StuckAxisStepsByHoldsUpToTheLimit) {
  struct Case {
    bool firstGeneration;
    std::int64_t stepMs;
  };
  for (const Case& c : {Case{false, 200}, Case{true, 300}}) {
    FakeStagePage& page = MakePage(c.firstGeneration);
    page.SetAxis(0, {.deadBand = 30000});
    page.motorMaximum_[0] = 4250;  // Standard: (4250 - 250) / 4 = 1000
    page.Answer({ui::kIdYes, ui::kIdCancel});
    Run(page, TestButton::kXAxis);
    EXPECT_EQ(page.Biases(0), (std::vector<int>{0, -250, -500, -750}));
    const std::vector<std::string> texts = page.Texts(0);
    EXPECT_EQ(texts, (std::vector<std::string>{"MB: 0", "MB: 0", "MB: 250", "MB: 500", "MB: 750",
                                               "MB: 1000"}));
    EXPECT_EQ(StepIntervals(page, 0), std::vector<std::int64_t>(3, c.stepMs));
    const std::string box = page.BoxTexts().at(0);
    EXPECT_EQ(
        box.rfind("X axis position moved 0.0mm.\n\r\nVOLTAGE LIMIT REACHED\r\nBefore continuing",
                  0),
        0u)
        << box;
    const std::string report = Report("AxisTest_X_0.dat");
    EXPECT_NE(Block(report, 0).find("VOLTAGE LIMIT REACHED\r\n Linear"), std::string::npos);
    EXPECT_NE(report.find("         Starting Voltage: 1000\r\n"), std::string::npos);
    // The saved record is back on the board and the axis synchronised after the run.
    EXPECT_EQ(page.BoardPid(0).Kp, 100);
    EXPECT_EQ(page.Syncs(), std::vector<unsigned>{0});
  }
}

// A stop, an e-stop, a browser gone silent or a lost link in the middle of a 100 ms pass hands
// the axis back at once, not at the pass's end; the run's outcome stays a stop.
TEST_F(AxisRamp, WhatEndsADriveHandsTheAxisBackWithinThePass) {
  struct Case {
    const char* what;
    std::function<void(FakeStagePage&)> end;
    bool manual;
  };
  const Case cases[] = {
      {"stop", [](FakeStagePage& p) { p.StopRequested = 1; }, true},
      {"e-stop", [](FakeStagePage& p) { p.CachedEStop = 1; }, true},
      {"no browser", [](FakeStagePage& p) { p.Unwatched = 1; }, true},
      {"quit", [](FakeStagePage& p) { p.ThreadGuard().RequestQuit(); }, false},
  };
  for (const Case& c : cases) {
    FakeStagePage& page = MakePage();
    page.SetAxis(0, {.deadBand = 30000});
    page.Answer({ui::kIdYes, ui::kIdCancel});
    std::int64_t endedAt = -1;
    std::int64_t stepSeen = -1;
    page.onTick = [&](FakeStagePage& p) {
      // 60 ms into the pass that follows the store of the third step.
      const std::vector<int> biases = p.Biases(0);
      if (endedAt >= 0 || biases.size() != 3 || biases.back() != -500) return;
      const std::int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                                   platform::Clock::Current().Now().time_since_epoch())
                                   .count();
      if (stepSeen < 0) stepSeen = now;
      if (now - stepSeen < 60) return;
      c.end(p);
      endedAt = now;
    };
    Run(page, TestButton::kXAxis);
    ASSERT_GE(endedAt, 0) << c.what;
    std::int64_t handedBack = -1;
    for (const Store& st : page.Stores()) {
      if (st.axis == 0 && st.pid.Kp != 0 && handedBack < 0) handedBack = st.ms;
    }
    EXPECT_EQ(handedBack, endedAt) << c.what;
    EXPECT_EQ(page.Biases(0).back(), -500) << c.what << ": no step after it";
    const std::string block = Block(Report("AxisTest_X_0.dat"), 0);
    EXPECT_NE(block.find(c.manual ? "Manually Stopped: Yes" : "Manually Stopped: No"),
              std::string::npos)
        << c.what << "\n"
        << block;
    pages_.clear();
    std::filesystem::remove(dir_ / "AxisTest_X_0.dat");
    std::filesystem::remove(dir_ / "AxisTest_X_0.csv");
    motion::AutoVisionTestState().Reset();
  }
}

TEST_F(AxisRamp, HoldsLongerOnceMovingPastAFiftiethOfTheTarget) {
  struct Case {
    bool firstGeneration;
    std::int64_t start;
    std::int64_t moving;
  };
  for (const Case& c : {Case{false, 200, 500}, Case{true, 300, 1000}}) {
    FakeStagePage& page = MakePage(c.firstGeneration);
    // Moves slowly from a bias of 1000 on: past 200 counts, short of 10000 for a while.
    page.SetAxis(0, {.deadBand = 900, .divisor = 40});
    page.Answer({ui::kIdYes, ui::kIdCancel});
    Run(page, TestButton::kXAxis);
    const std::vector<std::int64_t> steps = StepIntervals(page, 0);
    ASSERT_GE(steps.size(), 6u);
    std::size_t i = 0;
    while (i < steps.size() && steps[i] == c.start)
      ++i;
    EXPECT_GE(i, 3u);
    for (; i < steps.size(); ++i)
      EXPECT_EQ(steps[i], c.moving) << i;
    EXPECT_LE(page.AxisPosition(0), -10000);
  }
}

TEST_F(AxisRamp, PositiveZStartsFromTheSavedBias) {
  FakeStagePage& page = MakePage();
  page.SetBoardPid(2, AxisPid{.Kp = 50, .Fe = 100, .Kout = 65535, .Mb = 1200});
  page.SetAxis(2, {.deadBand = 30000});
  page.motorMaximum_[2] = 8250;  // Standard: 2000
  page.Answer({ui::kIdYes, ui::kIdOk, ui::kIdYes});
  Run(page, TestButton::kZAxis);
  std::vector<std::string> texts = page.Texts(2);
  // The last "MB: 0" is the positive run's take-over.
  const auto positive = std::find(texts.rbegin(), texts.rend(), "MB: 0").base();
  ASSERT_GE(texts.end() - positive, 4);
  // The positive run: "MB: 0" at the take-over, then the saved bias, then 250 up.
  EXPECT_EQ(std::vector<std::string>(positive - 1, positive + 4),
            (std::vector<std::string>{"MB: 0", "MB: 1200", "MB: 1450", "MB: 1700", "MB: 1950"}));
  EXPECT_EQ(page.BoardPid(2).Mb, 1200);
}

using AxisPhases = MotionFixture;

TEST_F(AxisPhases, AnswersFillTheResultFields) {
  struct Case {
    std::vector<int> answers;  // of direction 0's questions
    const char* direction;
    const char* distance;
    std::size_t questions;
  };
  for (const Case& c :
       {Case{{ui::kIdYes}, "Yes", "Yes", 1}, Case{{ui::kIdNo, ui::kIdYes}, "Yes", "No", 2},
        Case{{ui::kIdNo, ui::kIdNo, ui::kIdYes}, "No", "Yes", 3},
        Case{{ui::kIdNo, ui::kIdNo, ui::kIdNo}, "No", "No", 3}}) {
    testing_support::ScratchDir folder;
    FakeStagePage& page = MakePage();
    page.SetFolder(folder.Path() + "/");
    for (int a : c.answers)
      page.Answer({a});
    page.Answer({ui::kIdCancel});
    Run(page, TestButton::kYAxis);
    const std::vector<std::string> boxes = page.BoxTexts();
    ASSERT_EQ(boxes.size(), c.questions + 1);
    EXPECT_EQ(boxes[0].rfind("Y axis position moved -1", 0), 0u) << boxes[0];
    if (c.questions > 1) {
      EXPECT_EQ(boxes[1], "\n\nDid the machine move in the correct DIRECTION?");
    }
    if (c.questions > 2) {
      EXPECT_EQ(boxes[2], "\n\nDid the machine move the correct DISTANCE?");
    }
    EXPECT_EQ(boxes.back(), motion::texts::kAxisPositivePrompt.fallback);
    const std::string report = ReadReport(folder / "AxisTest_Y_0.dat");
    EXPECT_NE(Block(report, 0).find(std::string("        Correct Direction: ") + c.direction +
                                    "\r\n         Correct Distance: " + c.distance + "\r\n"),
              std::string::npos)
        << report;
    // Cancel at the positive run's prompt: that run never starts and its block stays empty.
    EXPECT_EQ(page.Syncs().size(), 1u);
    EXPECT_EQ(page.TestState().MessageResult, 1);
    EXPECT_NE(Block(report, 1).find("         Starting Voltage: 0\r\n"
                                    "        Correct Direction: No\r\n"
                                    "         Correct Distance: No\r\n"),
              std::string::npos);
  }
}

TEST_F(AxisPhases, WholeTestInOrder) {
  FakeStagePage& page = MakePage();
  page.Choice(ui::kIdOk, 1);
  page.Answer({ui::kIdYes, ui::kIdOk, ui::kIdYes, ui::kIdOk});
  Run(page, TestButton::kXAxis);
  const std::vector<Box> boxes = page.Boxes();
  ASSERT_EQ(boxes.size(), 4u);
  EXPECT_EQ(boxes[0].style, ui::kMbYesNo);
  EXPECT_EQ(boxes[1].style, ui::kMbOkCancel);
  EXPECT_EQ(boxes[2].text.rfind("X axis position moved 1", 0), 0u) << boxes[2].text;
  EXPECT_EQ(boxes[3].text, "Test finished.");
  EXPECT_EQ(boxes[3].style, ui::kMbOk);
  EXPECT_EQ(page.VoltageChoice, 1u);
  EXPECT_EQ(page.Syncs(), (std::vector<unsigned>{0, 0}));
  // The run ends at the first sample beyond 10 mm, each way.
  const std::string report = Report("AxisTest_X_0.dat");
  EXPECT_EQ(report.rfind("               X Axis (-)\r\n Linear Encoder Positions\r\n", 0), 0u);
  EXPECT_NE(report.find("               X Axis (+)\r\n Linear"), std::string::npos);
  EXPECT_EQ(page.TestPosition, 0);
  EXPECT_EQ(page.Sampling, 0);
  EXPECT_EQ(page.HeldAxis, motion::kNoAxis);
  EXPECT_EQ(page.BoardPid(0), page.AxisPids[0]);
  EXPECT_EQ(page.BoardPid(0).Kp, 100);
}

TEST_F(AxisPhases, CancelInTheStartDialogStillWritesAReport) {
  FakeStagePage& page = MakePage();
  page.Choice(ui::kIdCancel, 2);
  Run(page, TestButton::kZAxis);
  EXPECT_TRUE(page.Boxes().empty());
  EXPECT_TRUE(page.Stores().empty());
  EXPECT_EQ(page.VoltageChoice, 0u);
  EXPECT_EQ(page.TestState().MessageResult, 1);
  std::string block;
  for (const char* sign : {"(-)", "(+)"}) {
    block += std::string("               Z Axis ") + sign +
             "\r\n"
             " Linear Encoder Positions\r\n"
             "                    Initial: 0\r\n"
             "                      Final: 0\r\n"
             "                     Change: 0\r\n"
             " Rotary Encoder Positions\r\n"
             "                    Initial: 0\r\n"
             "                      Final: 0\r\n"
             "                     Change: 0\r\n"
             "         Starting Voltage: 0\r\n"
             "        Correct Direction: No\r\n"
             "         Correct Distance: No\r\n"
             "         Manually Stopped: No\r\n\r\n";
  }
  EXPECT_EQ(Report("AxisTest_Z_0.dat"), block);
}

TEST_F(AxisPhases, StopAndEStopEndEachRunAtItsFirstPass) {
  for (const bool estop : {false, true}) {
    testing_support::ScratchDir folder;
    FakeStagePage& page = MakePage();
    page.SetFolder(folder.Path() + "/");
    if (estop) {
      page.estop_ = true;
    } else {
      // STOP is clicked as soon as a run samples; each run clears it when it begins.
      page.onTick = [](FakeStagePage& p) {
        if (p.Sampling) p.StopRequested = 1;
      };
    }
    page.Answer({ui::kIdYes, ui::kIdOk, ui::kIdYes});
    Run(page, TestButton::kXAxis);
    EXPECT_EQ(page.Texts(0),
              (std::vector<std::string>{"MB: 0", "MB: 0", "MB: 0", "MB: 0", "MB: 0", "MB: 0"}));
    const std::string report = ReadReport(folder / "AxisTest_X_0.dat");
    for (int d = 0; d < 2; ++d) {
      EXPECT_NE(Block(report, d).find("         Starting Voltage: 0\r\n"), std::string::npos);
      EXPECT_NE(Block(report, d).find("         Manually Stopped: Yes\r\n"), std::string::npos);
    }
  }
}

TEST(AxisTexts, TravelInMillimetres) {
  struct Case {
    std::int32_t change;
    std::int32_t k;
    const char* text;
  };
  for (const Case& c :
       {Case{10500, 1000, "10.500mm.\n"}, Case{-250, 1000, "-0.250mm.\n"},
        Case{-1500, 1000, "-1.500mm.\n"}, Case{10050, 1000, "10.50mm.\n"},
        Case{0, 1000, "0.0mm.\n"},
        Case{10500, 0, "10500 encoder counts (no counts per mm in the machine image).\n"},
        Case{-7, -3, "-7 encoder counts (no counts per mm in the machine image).\n"}}) {
    EXPECT_EQ(motion::TravelText(c.change, c.k), c.text) << c.change << " " << c.k;
  }
}

TEST(AxisTexts, ResultBoxAndReportBlock) {
  motion::AxisTestResult r;
  r.LinearInitial[1] = 100;
  r.LinearFinal[1] = 10600;
  r.LinearChange[1] = 10500;
  r.RotaryInitial[1] = -5;
  r.RotaryFinal[1] = 20995;
  r.RotaryChange[1] = 21000;
  r.StartingVoltage[1] = 8250;
  r.VoltageLimitReached[1] = 1;
  r.CorrectDirection[1] = 6;
  r.CorrectDistance[1] = 3;  // neither answer: nothing is written
  r.ManuallyStopped[1] = 1;
  EXPECT_EQ(motion::AxisResultText(r, motion::kPositive, 1, 1000),
            "Y axis position moved 10.500mm.\n\r\nVOLTAGE LIMIT REACHED\r\nBefore continuing, make "
            "sure that there is nothing obstructing \r\n the movement of the machine and that the "
            "axis is not at the \r\ntravel limit.\nLinear Encoder Initial Position: 100\nLinear "
            "Encoder Final Position: 10600\nRotary Encoder Initial Position: -5\nRotary Encoder "
            "Final Position: 20995\n\nDid the machine move correctly?");
  EXPECT_EQ(Block(motion::AxisReportBody(r, 1), 1),
            "               Y Axis (+)\r\n"
            "VOLTAGE LIMIT REACHED\r\n"
            " Linear Encoder Positions\r\n"
            "                    Initial: 100\r\n"
            "                      Final: 10600\r\n"
            "                     Change: 10500\r\n"
            " Rotary Encoder Positions\r\n"
            "                    Initial: -5\r\n"
            "                      Final: 20995\r\n"
            "                     Change: 21000\r\n"
            "         Starting Voltage: 8250\r\n"
            "        Correct Direction: Yes\r\n"
            "         Correct Distance: \r\n"
            "         Manually Stopped: Yes\r\n\r\n");
}

using AxisSoundRules = MotionFixture;

TEST_F(AxisSoundRules, NoScaleStopsAtTenThousandCountsAndSaysCounts) {
  FakeStagePage& page = MakePage();
  page.countsPerMm_[0] = 0;
  page.Answer({ui::kIdYes, ui::kIdCancel});
  Run(page, TestButton::kXAxis);
  EXPECT_LT(page.AxisPosition(0), -10000);
  EXPECT_GT(page.AxisPosition(0), -15000);
  const std::string box = page.BoxTexts().at(0);
  EXPECT_NE(box.find(" encoder counts (no counts per mm in the machine image).\n"),
            std::string::npos)
      << box;
}

// The link drops mid ramp and comes back 0.4 s later: the drive ends with the loss, the first
// write on the new link is the axis's own record, and nothing of the run reaches the board after.
TEST_F(AxisSoundRules, ALinkThatComesBackGetsTheAxisOwnRecordFirstAndNoMoreDrive) {
  FakeStagePage& page = MakePage();
  const AxisPid own = page.BoardPid(1);
  int downTicks = -1;
  std::size_t storesBeforeLoss = 0;
  page.onTick = [&](FakeStagePage& p) {
    if (downTicks < 0 && p.AxisPosition(1) < -3000) {
      downTicks = 0;
      storesBeforeLoss = p.Stores().size();
      p.frozen_ = true;
    } else if (downTicks >= 0 && ++downTicks == 20) {
      p.Reconnect();
    }
  };
  page.Choice(ui::kIdOk, 1);
  page.Answer({ui::kIdYes, ui::kIdCancel});
  Run(page, TestButton::kYAxis);
  ASSERT_GE(downTicks, 20);
  const std::vector<Store> stores = page.Stores();
  ASSERT_EQ(stores.size(), storesBeforeLoss + 1) << "one write after the loss";
  EXPECT_EQ(stores.back().pid, own) << "and it is the axis's own record";
  EXPECT_TRUE(page.Owed.Empty());
  // The run ended where the link went: short of its target, at the bias it had then.
  const std::string block = Block(Report("AxisTest_Y_0.dat"), 0);
  const std::size_t change = block.find("Change: -");
  ASSERT_NE(change, std::string::npos) << block;
  EXPECT_LT(std::stoi(block.substr(change + 9)), 5000);
  EXPECT_EQ(block.find("VOLTAGE LIMIT"), std::string::npos) << block;
  EXPECT_EQ(page.AxisPids[1], own);
}

TEST_F(AxisSoundRules, QuitDuringARampEndsItAndSkipsTheNextRun) {
  FakeStagePage& page = MakePage();
  page.SetAxis(0, {.deadBand = 30000});
  page.onTick = [](FakeStagePage& p) {
    if (p.BiasWritten == -1000) p.ThreadGuard().RequestQuit();
  };
  page.Answer({ui::kIdYes, ui::kIdOk, ui::kIdYes});
  Run(page, TestButton::kXAxis);
  EXPECT_EQ(page.Biases(0), (std::vector<int>{0, -250, -500, -750, -1000}));
  EXPECT_EQ(page.Syncs().size(), 1u);
  EXPECT_EQ(page.BoardPid(0).Kp, 100);
}

TEST_F(AxisSoundRules, TraceBesideTheReport) {
  FakeStagePage& page = MakePage();
  page.Answer({ui::kIdYes, ui::kIdCancel});
  Run(page, TestButton::kXAxis);
  const std::string csv = ReadFile(dir_ / "AxisTest_X_0.csv");
  EXPECT_EQ(csv.rfind("time,bias,linear,rotary,limit\n", 0), 0u);
  EXPECT_NE(csv.find(",-750,"), std::string::npos);
  EXPECT_GT(std::count(csv.begin(), csv.end(), '\n'), 20);
  EXPECT_FALSE(page.Trace.Active());
}

using ZoomTest = MotionFixture;

TEST_F(ZoomTest, StillLensAndMovingLens) {
  FakeStagePage& page = MakePage(true);
  page.SetAxis(3, {.deadBand = 30000});
  page.motorMaximum_[3] = 4250;  // Standard: 1000
  page.Answer({ui::kIdYes, ui::kIdOk, ui::kIdNo});
  Run(page, TestButton::kZoomAxis);
  ASSERT_EQ(page.Dialogs().size(), 1u);
  EXPECT_EQ(page.Dialogs()[0].texts.size(), 2u);
  const std::vector<std::string> boxes = page.BoxTexts();
  ASSERT_EQ(boxes.size(), 4u);
  EXPECT_EQ(
      boxes[0],
      "VOLTAGE LIMIT REACHED\r\nBefore continuing, make sure that there is nothing "
      "obstructing \r\n the movement of the machine and that the axis is not at the "
      "\r\ntravel limit.\nRotary Encoder Initial Position: 0\nRotary Encoder Final Position: "
      "0\r\n\r\nEncoder registered NO zoom lens movement.\n\nDid the zoom lens remain still? ");
  EXPECT_EQ(boxes[1], motion::texts::kZoomPositivePrompt.fallback);
  EXPECT_EQ(boxes[3], "Test finished.");
  EXPECT_EQ(StepIntervals(page, 3), (std::vector<std::int64_t>{200, 200, 200}));
  const std::string block =
      "               Zoom Axis (-)\r\n"
      "VOLTAGE LIMIT REACHED\r\n"
      " Rotary Encoder Positions\r\n"
      "                    Initial: 0\r\n"
      "                      Final: 0\r\n"
      "                     Change: 0\r\n"
      "         Starting Voltage: 1000\r\n"
      "        Correct Direction: Yes\r\n"
      "         Manually Stopped: No\r\n\r\n";
  EXPECT_EQ(Report("AxisTest_Zoom_0.dat"), block + std::string(block)
                                                       .replace(block.find("(-)"), 3, "(+)")
                                                       .replace(block.find("Yes"), 3, "No"));
  EXPECT_FALSE(page.TestState().TestZoom || page.TestState().Running);
}

}  // namespace
}  // namespace motion_testing
