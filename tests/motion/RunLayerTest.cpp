// The shared layer: who may start a test, the voltage limit, the start dialogs, report files and
// traces, the thread guard, and the string table behind the texts.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "motion/Reports.h"
#include "motion/TestRun.h"
#include "motion/TestTexts.h"
#include "motion/Tests.h"
#include "tests/motion/FakeStagePage.h"

namespace motion_testing {
namespace {

using motion::TestButton;

TEST(VoltageLimit, ChoicesFromMotorMaximum) {
  struct Case {
    std::uint16_t maximum;
    std::uint32_t choice;
    std::int32_t limit;
  };
  for (const Case& c : {Case{32766, 0, 8129}, Case{32766, 1, 16258}, Case{32766, 2, 32516},
                        Case{32766, 7, 32516}, Case{0, 0, -62}, Case{0, 2, -250},
                        // A maximum beyond 16 bits of bias ends the ramp at the cap.
                        Case{65535, 2, 32767}, Case{65535, 1, 32642}}) {
    EXPECT_EQ(motion::VoltageLimit(c.maximum, c.choice), c.limit) << c.maximum << " " << c.choice;
  }
}

TEST(StartDialogs, CaptionsGroupAndTexts) {
  const ui::ChoiceDialog axis = motion::MakeStartDialog(motion::StartDialog::kAxis);
  EXPECT_EQ(axis.title, "Dialog");
  EXPECT_EQ(axis.group, "Voltage Limit");
  EXPECT_EQ(axis.options, (std::vector<std::string>{"Standard", "High", "No Limit"}));
  EXPECT_EQ(axis.initial, 0);
  ASSERT_EQ(axis.texts.size(), 3u);
  EXPECT_EQ(axis.texts[0], "Position will begin moving in the NEGATIVE direction. ");
  EXPECT_EQ(motion::MakeStartDialog(motion::StartDialog::kLimit).texts.size(), 3u);
  const ui::ChoiceDialog zoom = motion::MakeStartDialog(motion::StartDialog::kZoom);
  ASSERT_EQ(zoom.texts.size(), 2u);
  EXPECT_EQ(
      zoom.texts[1],
      "Run the test using the Standard Voltage Limit before trying it \r\nwith the higher "
      "voltages. \r\n\r\nUse the camera window in Mirava to monitor the Zoom lens. \r\n\nClick "
      "OK to begin the test.");
}

// The table and the code's fallbacks must say the same, or a build without the table would show
// other words.
TEST(TestTexts, StringTableHoldsEveryFallback) {
  namespace t = motion::texts;
  for (const t::Text& x : {t::kAxisStartDirection,
                           t::kAxisStartStop,
                           t::kAxisStartAdvice,
                           t::kLimitStartDirection,
                           t::kLimitStartPosition,
                           t::kLimitStartAdvice,
                           t::kZoomStartDirection,
                           t::kZoomStartAdvice,
                           t::kAxisMoved,
                           t::kVoltageLimitReached,
                           t::kBeforeContinuing,
                           t::kLinearInitial,
                           t::kLinearFinal,
                           t::kRotaryInitial,
                           t::kRotaryFinal,
                           t::kMovedCorrectly,
                           t::kCorrectDirection,
                           t::kCorrectDistance,
                           t::kAxisPositivePrompt,
                           t::kTestFinished,
                           t::kCountsNoScale,
                           t::kZoomMovedPositive,
                           t::kZoomStill,
                           t::kZoomMovedNegative,
                           t::kZoomPositivePrompt,
                           t::kHigherLimitAdvice,
                           t::kAxisLimits,
                           t::kPlatenNotConnected,
                           t::kToggleOpenPrompt,
                           t::kToggleClosePrompt,
                           t::kPlatenWillRun,
                           t::kPlatenTimes,
                           t::kPlatenCanceled,
                           t::kOpening,
                           t::kClosing,
                           t::kStoppedInCycle,
                           t::kCompletedCycle,
                           t::kStoppedAfterCycle,
                           t::kFailedAfterCycle,
                           t::kFailedInCycle,
                           t::kSeeLatest,
                           t::kCountRefused,
                           t::kCountRefusedEnd,
                           t::kReportNotWritten}) {
    EXPECT_EQ(strings::Load(x.id), x.fallback) << x.id;
  }
}

TEST(PlatenCount, LeadingDigitsOnly) {
  struct Case {
    const char* text;
    std::int32_t count;
  };
  for (const Case& c :
       {Case{"100", 100}, Case{"12abc", 12}, Case{"abc", 0}, Case{"", 0}, Case{" 7", 7},
        Case{"-5", -5}, Case{"+3", 3}, Case{"1.5", 1}, Case{"99999999999999999999", INT32_MAX},
        Case{"-99999999999999999999", INT32_MIN}}) {
    EXPECT_EQ(motion::ParsePlatenCount(c.text), c.count) << c.text;
  }
}

using StartTest = MotionFixture;

TEST_F(StartTest, SetsFlagsAndAxisPerButton) {
  struct Case {
    TestButton button;
    bool firstGeneration;
    std::atomic<std::uint8_t> motion::StageTestState::*flag;
    bool limit;
    std::uint32_t axis;  // kNoAxis: left as it was
  };
  using S = motion::StageTestState;
  for (const Case& c :
       {Case{TestButton::kXAxis, false, &S::TestX, false, 0},
        Case{TestButton::kYAxis, false, &S::TestY, false, 1},
        Case{TestButton::kZLimit, false, &S::TestZ, true, 2},
        Case{TestButton::kZoomAxis, true, &S::TestZoom, false, 3},
        Case{TestButton::kPlatenTest, false, &S::PlatenTest, false, motion::kNoAxis},
        Case{TestButton::kPlatenToggle, true, &S::PlatenTest, false, motion::kNoAxis}}) {
    FakeStagePage& page = MakePage(c.firstGeneration);
    page.TestAxis = motion::kNoAxis;
    page.platenPresent_ = false;  // the platen runs end at their first box
    bool seen = false;
    auto check = [&](FakeStagePage& p) {
      // While the first box stands the flags are already set.
      if (seen) return;
      seen = true;
      EXPECT_TRUE(p.TestState().Running);
      EXPECT_TRUE(p.TestState().*c.flag);
      EXPECT_EQ(p.TestState().LimitTest != 0, c.limit);
      EXPECT_EQ(p.TestAxis, c.axis);
    };
    page.onChoose = check;
    page.onAsk = [&](FakeStagePage& p, const std::string&) { check(p); };
    page.Choice(ui::kIdCancel, 0);
    Run(page, c.button);
    EXPECT_TRUE(seen);
    const S& state = page.TestState();
    EXPECT_FALSE(state.Running || state.AnyTestFlag() || state.LimitTest);
  }
}

TEST_F(StartTest, SecondClickWhileRunningChangesNothing) {
  FakeStagePage& page = MakePage();
  FakeStagePage& other = MakePage(true);
  page.Choice(ui::kIdCancel, 0);
  bool refused = false;
  page.onChoose = [&](FakeStagePage& p) {
    // A click on another button of the same family, while the start dialog stands.
    refused = !motion::StartTest(p, TestButton::kYLimit);
    EXPECT_FALSE(p.TestState().TestY || p.TestState().LimitTest);
    EXPECT_EQ(p.TestAxis, 0u);
    // The other family has its own block and is free.
    EXPECT_FALSE(other.TestState().Running);
  };
  Run(page, TestButton::kXAxis);
  EXPECT_TRUE(refused);
  EXPECT_EQ(page.Dialogs().size(), 1u);
  EXPECT_EQ(motion::RunningTestName(page), "");
}

TEST_F(StartTest, ZoomOnlyOnFirstGeneration) {
  FakeStagePage& page = MakePage(false);
  EXPECT_FALSE(motion::StartTest(page, TestButton::kZoomAxis));
  EXPECT_FALSE(page.TestState().Running);
}

TEST_F(StartTest, RunningTestNames) {
  FakeStagePage& page = MakePage();
  std::vector<std::string> names;
  page.onChoose = [&](FakeStagePage& p) { names.push_back(motion::RunningTestName(p)); };
  page.onAsk = [&](FakeStagePage& p, const std::string&) {
    names.push_back(motion::RunningTestName(p));
  };
  page.Choice(ui::kIdCancel, 0);
  page.Choice(ui::kIdCancel, 0);
  page.platenPresent_ = false;
  Run(page, TestButton::kYLimit);
  Run(page, TestButton::kXAxis);
  Run(page, TestButton::kPlatenTest);
  // The axis test's Cancel still ends in a report, with no box.
  EXPECT_EQ(names, (std::vector<std::string>{"Y Limit Test", "X Axis Test", "Platen Test"}));
  // Each start dialog carries the name of the test it starts.
  std::vector<std::string> titles;
  for (const ui::ChoiceDialog& d : page.Dialogs())
    titles.push_back(d.title);
  EXPECT_EQ(titles, (std::vector<std::string>{"Y Limit Test", "X Axis Test"}));
}

using ReportFiles = MotionFixture;

TEST_F(ReportFiles, NumbersSkipNothingAndReuseNothing) {
  std::ofstream(dir_ / "AxisTest_X_0.dat") << "old";
  std::ofstream(dir_ / "AxisTest_X_2.dat") << "old";
  std::vector<std::string> names;
  for (int i = 0; i < 3; ++i) {
    const motion::ReportOutcome r =
        motion::WriteReportFiles(dir_.Path(), "AxisTest_X_", "a\r\n", {});
    ASSERT_TRUE(r.written) << r.reason;
    names.push_back(r.path.substr(dir_.Path().size() + 1));
  }
  EXPECT_EQ(names,
            (std::vector<std::string>{"AxisTest_X_1.dat", "AxisTest_X_3.dat", "AxisTest_X_4.dat"}));
  EXPECT_EQ(ReadFile(dir_ / "AxisTest_X_0.dat"), "old");
  EXPECT_EQ(ReadFile(dir_ / "AxisTest_X_2.dat"), "old");
}

// The folder may be one that other users write, and the program runs as root. Whatever stands
// at a report's or a trace's name is left as it is and the number skipped: a FIFO (opening it
// would block the test thread until someone reads the trace), a link (to a file or to nowhere),
// another user's file. The files made are new, plain and 0644 whatever the umask.
TEST_F(ReportFiles, WhatOthersPlantedAtTheNextNamesIsSkippedUntouched) {
  ASSERT_EQ(::mkfifo((dir_ / "AxisTest_X_0.csv").c_str(), 0666), 0);
  std::ofstream(dir_ / "AxisTest_X_1.dat") << "theirs";
  std::ofstream(dir_ / "victim") << "precious";
  ASSERT_EQ(::symlink((dir_ / "victim").c_str(), (dir_ / "AxisTest_X_2.csv").c_str()), 0);
  ASSERT_EQ(::symlink((dir_ / "nowhere").c_str(), (dir_ / "AxisTest_X_3.dat").c_str()), 0);
  const mode_t umask = ::umask(0);
  const motion::ReportOutcome r =
      motion::WriteReportFiles(dir_.Path(), "AxisTest_X_", "a\r\n", {{.time = 0.02}});
  ::umask(umask);
  ASSERT_TRUE(r.traceWritten) << r.reason;
  EXPECT_EQ(r.path, dir_ / "AxisTest_X_4.dat");
  struct stat st {};
  ASSERT_EQ(::lstat((dir_ / "AxisTest_X_0.csv").c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_FALSE(Exists("AxisTest_X_0.dat")) << "the half of a pair that was taken goes again";
  EXPECT_EQ(ReadFile(dir_ / "AxisTest_X_1.dat"), "theirs");
  EXPECT_EQ(ReadFile(dir_ / "victim"), "precious");
  EXPECT_FALSE(Exists("nowhere"));
  for (const char* made : {"AxisTest_X_4.dat", "AxisTest_X_4.csv"}) {
    ASSERT_EQ(::lstat((dir_ / made).c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode)) << made;
    EXPECT_EQ(st.st_mode & 07777, 0644u) << made;
  }
}

TEST_F(ReportFiles, Utf16LittleEndianWithMark) {
  const motion::ReportOutcome r =
      motion::WriteReportFiles(dir_.Path() + "/", "PlatenTest_", "A\r\n\xC3\xA9", {});
  ASSERT_TRUE(r.written);
  EXPECT_EQ(r.path, dir_ / "PlatenTest_0.dat");
  EXPECT_EQ(ReadFile(r.path), std::string("\xFF\xFE"
                                          "A\0\r\0\n\0\xE9\0",
                                          10));
}

TEST_F(ReportFiles, UnwritableFolderIsToldWithNameAndReason) {
  // A folder that is gone fails for root too, unlike one without write permission.
  const std::string missing = dir_ / "gone";
  FakeStagePage& page = MakePage();
  page.SetFolder(missing + "/");
  page.Choice(ui::kIdCancel, 0);
  Run(page, TestButton::kYAxis);
  const std::vector<std::string> boxes = page.BoxTexts();
  ASSERT_EQ(boxes.size(), 1u);
  EXPECT_EQ(boxes[0], "The test report could not be written to " + missing +
                          "/AxisTest_Y_0.dat:\r\nNo such file or directory");
  EXPECT_EQ(page.Boxes()[0].style, ui::kMbOk);
  EXPECT_FALSE(page.TestState().Running);
}

TEST_F(ReportFiles, TraceCsvRows) {
  const std::vector<motion::TraceSample> samples = {
      {.time = 0.02, .bias = -250, .linear = 10, .rotary = 27, .limit = 0},
      {.time = 1.5, .bias = 0, .linear = -3, .rotary = 1, .limit = -1}};
  const std::string rows = "time,bias,linear,rotary,limit\n0.020,-250,10,27,0\n1.500,0,-3,1,-1\n";
  EXPECT_EQ(motion::TraceCsv(samples), rows);
  // Only a board that says it is simulated leaves a mark, as the trace's first line.
  EXPECT_EQ(motion::TraceCsv(samples, "simulated servo"), "# board: simulated servo\n" + rows);
  for (const char* other : {"", "simulated", "bridge to hnusb 2.4", "Simulated servo"}) {
    EXPECT_EQ(motion::TraceCsv(samples, other), rows) << other;
  }
}

TEST_F(ReportFiles, TraceBoundedAndOnlyWhileActive) {
  motion::RunTrace trace;
  trace.Append({});
  EXPECT_TRUE(trace.Take().empty());
  trace.Begin();
  for (std::size_t i = 0; i < motion::RunTrace::kMaxSamples + 10; ++i)
    trace.Append({});
  EXPECT_EQ(trace.Take().size(), motion::RunTrace::kMaxSamples);
}

TEST(ThreadGuard, DestructorAsksToQuitAndJoins) {
  platform::VirtualClock clock;
  platform::ScopedClock scoped(clock);
  std::atomic<bool> sawQuit{false};
  {
    motion::TestThreadGuard guard;
    guard.RecordThread(platform::ParticipantThread([&] {
      while (!guard.IsQuitRequested())
        platform::Clock::Current().SleepFor(platform::Milliseconds(100));
      sawQuit = true;
    }));
    EXPECT_TRUE(guard.HoldsAxis());
    guard.ClearThread();
    EXPECT_FALSE(guard.HoldsAxis());
  }
  EXPECT_TRUE(sawQuit);
}

}  // namespace
}  // namespace motion_testing
