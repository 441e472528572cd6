// The platen toggle and test against the fake page's platen (4 s from end to end): prompts,
// cycles, stops between moves, time-outs, the count rule, the summary, the box and the report.
#include "motion/TestTexts.h"
#include "motion/Tests.h"
#include "tests/motion/FakeStagePage.h"

namespace motion_testing {
namespace {

using motion::TestButton;

const std::string kSeeLatest = "See latest \"PlatenTest_[i].dat\" file for complete test results.";

class PlatenTest : public MotionFixture {
 protected:
  // A page whose platen stands closed, with the test quantity given.
  FakeStagePage& ClosedPlaten(const std::string& count) {
    FakeStagePage& page = MakePage();
    page.platenCount_ = count;
    page.TestState().PlatenClosed = 1;
    return page;
  }
  // STOP, or a failing move, when the page is told to make its n-th move.
  static void AtMove(FakeStagePage& page, std::size_t n, std::function<void(FakeStagePage&)> act) {
    // The hook is copied at every tick: its once-only flag lives outside it.
    auto done = std::make_shared<bool>(false);
    page.onTick = [n, act, done](FakeStagePage& p) {
      if (!*done && p.PlatenMoves().size() == n) {
        *done = true;
        act(p);
      }
    };
  }
};

TEST_F(PlatenTest, NotConnected) {
  FakeStagePage& page = MakePage();
  page.platenPresent_ = false;
  Run(page, TestButton::kPlatenTest);
  EXPECT_EQ(page.BoxTexts(), std::vector<std::string>{"Platen is not connected to the machine."});
  EXPECT_EQ(page.TestState().MessageResult, 0);
  EXPECT_FALSE(page.TestState().PlatenTest || page.TestState().Running);
}

TEST_F(PlatenTest, CountsTheTestCannotRunAreRefused) {
  const std::string refusal =
      "Test Qty must be a whole number from 1 to 1000000.\r\n\r\nThe Platen test was not started.";
  for (const char* count : {"0", "-5", "abc", "1000001", "99999999999"}) {
    FakeStagePage& page = MakePage();
    page.platenCount_ = count;
    Run(page, TestButton::kPlatenTest);
    EXPECT_EQ(page.BoxTexts(), std::vector<std::string>{refusal}) << count;
    EXPECT_TRUE(page.PlatenMoves().empty());
    EXPECT_FALSE(page.TestState().Running);
  }
  // The bound itself is allowed: the prompt names it.
  FakeStagePage& page = MakePage();
  page.platenCount_ = "1000000";
  page.Answer({ui::kIdCancel});
  Run(page, TestButton::kPlatenTest);
  EXPECT_EQ(page.BoxTexts().at(0).rfind(" The Platen test will run 1000000 times. \r\n\r\n", 0),
            0u);
  EXPECT_TRUE(page.PlatenMoves().empty());
}

TEST_F(PlatenTest, ToggleClosesFromBetweenThenOpens) {
  FakeStagePage& page = MakePage();
  Run(page, TestButton::kPlatenToggle);
  Run(page, TestButton::kPlatenToggle);
  EXPECT_EQ(
      page.BoxTexts(),
      (std::vector<std::string>{
          "Make sure the platen is clear of obstruction, then click OK to close the platen.",
          "Make sure the platen is clear of obstruction, then click OK to open the platen."}));
  EXPECT_EQ(page.PlatenMoves(), (std::vector<bool>{false, true}));
  EXPECT_EQ(page.PlatenTexts(), (std::vector<std::string>{"Closing", "Opening"}));
  EXPECT_TRUE(page.TestState().PlatenOpen);
  EXPECT_FALSE(Exists("PlatenTest_0.dat"));
}

TEST_F(PlatenTest, CompletedCyclesFromBetweenTheEnds) {
  FakeStagePage& page = MakePage();
  page.platenCount_ = "3";
  Run(page, TestButton::kPlatenTest);
  EXPECT_EQ(page.PlatenTexts(),
            (std::vector<std::string>{"Closing", "Run 1 of 3", "Run 2 of 3", "Run 3 of 3"}));
  // Arrivals read 1000 + n % 3 open and -(n % 4) closed; the first is the closing move.
  const std::string extremes =
      "Platen open position:\r\n    Min: 1000\r\n    Max: 1002\r\n"
      "Platen closed position:\r\n    Min: -3\r\n    Max: -1\r\n\r\n";
  const std::vector<std::string> boxes = page.BoxTexts();
  ASSERT_EQ(boxes.size(), 2u);
  EXPECT_EQ(boxes[0],
            " The Platen test will run 3 times. \r\n\r\nYou can click the STOP button or push the "
            "Escape key \r\nat any time to stop the test after the current move finishes. "
            "\r\n\r\nMake sure the platen is free of obstruction, then click OK to begin.");
  EXPECT_EQ(boxes[1], "Platen test completed cycle 3.\r\n\r\n" + extremes + kSeeLatest);
  EXPECT_EQ(Report("PlatenTest_0.dat"),
            "Platen test completed cycle 3.\r\n\r\n" + extremes +
                "Count\tOpen Position\tClosed Position\r\n1\t1002\t\t-3\r\n2\t1001\t\t-1\r\n"
                "3\t1000\t\t-3\r\n");
  EXPECT_TRUE(Exists("PlatenTest_0.csv"));
  EXPECT_EQ(page.TestState().MessageResult, 0);
}

TEST_F(PlatenTest, StopsAndTimeOutsBetweenMoves) {
  auto stop = [](FakeStagePage& p) { p.StopRequested = 1; };
  auto openFails = [](FakeStagePage& p) { p.platenOpenWorks_ = false; };
  auto closeFails = [](FakeStagePage& p) { p.platenCloseWorks_ = false; };
  struct Case {
    const char* name;
    std::size_t move;  // the move at which it happens (the platen starts closed)
    std::function<void(FakeStagePage&)> act;
    std::string box;
    std::string reportStart;  // the outcome line
    std::string rows;
  };
  const std::vector<Case> cases = {
      {"stop in the first opening", 1, stop,
       "Platen test manually stopped in the middle of cycle 1.\r\n\r\nPlaten open position:\r\n"
       "    Min: 1001\r\n    Max: 1001\r\n\r\n" +
           kSeeLatest,
       "Platen test manually stopped in the middle of cycle 1.\r\n\r\nPlaten open position:\r\n"
       "    Min: 1001\r\n    Max: 1001\r\nPlaten closed position:\r\n    Min: -\r\n    Max: "
       "-\r\n\r\n",
       "1\t1001\r\n"},
      {"stop in an earlier closing", 2, stop, "Platen test manually stopped after cycle 1.\r\n\r\n",
       "Platen test manually stopped after "
       "cycle 1.\r\n\r\n",
       "1\t1001\t\t-2\r\n"},
      {"stop in the last closing", 6, stop, "Platen test completed cycle 3.\r\n\r\n",
       "Platen test completed cycle 3.\r\n\r\n", "3\t1002\t\t-2\r\n"},
      {"opening times out", 2, openFails,
       "Platen test failed in the middle of cycle 2.\r\n\r\n" + kSeeLatest,
       "Platen test failed in the middle of cycle 2.\r\n\r\n", "2\t-2\r\n"},
      {"closing times out", 1, closeFails, "Platen test failed after cycle 1.\r\n\r\n" + kSeeLatest,
       "Platen test failed after cycle 1.\r\n\r\n", "1\t1001\t\t1001\r\n"},
  };
  for (const Case& c : cases) {
    testing_support::ScratchDir folder;
    FakeStagePage& page = ClosedPlaten("3");
    page.SetFolder(folder.Path() + "/");
    AtMove(page, c.move, c.act);
    Run(page, TestButton::kPlatenTest);
    const std::vector<std::string> boxes = page.BoxTexts();
    ASSERT_EQ(boxes.size(), 2u) << c.name;
    EXPECT_EQ(boxes[1].rfind(c.box, 0), 0u) << c.name << "\n" << boxes[1];
    const std::string report = ReadReport(folder / "PlatenTest_0.dat");
    EXPECT_EQ(report.rfind(c.reportStart, 0), 0u) << c.name << "\n" << report;
    EXPECT_EQ(report.substr(report.size() - c.rows.size()), c.rows) << c.name << "\n" << report;
    EXPECT_EQ(page.StopRequested, 0) << c.name;
  }
}

TEST_F(PlatenTest, StopWhileIdleCancelsAtTheFirstCycle) {
  FakeStagePage& page = ClosedPlaten("5");
  page.StopRequested = 1;  // a STOP click with no test running stays pending
  Run(page, TestButton::kPlatenTest);
  EXPECT_EQ(page.BoxTexts().back(), "Platen test canceled");
  EXPECT_TRUE(page.PlatenMoves().empty());
  EXPECT_FALSE(Exists("PlatenTest_0.dat"));
  EXPECT_EQ(page.StopRequested, 0);
}

TEST(PlatenSummary, ExtremesOverTheCountedSamples) {
  std::vector<motion::PlatenSample> samples = {{10, -1}, {12, -5}, {8, 50000}};
  motion::PlatenTestSummary s;
  s.StoppedInCycle = 2;  // the last takes the closed value before it
  motion::SummarisePlaten(samples, 3, s);
  EXPECT_EQ(samples[2].Closed, -5);
  EXPECT_EQ((std::vector<int>{s.OpenMin, s.OpenMax, s.ClosedMin, s.ClosedMax}),
            (std::vector<int>{8, 12, -5, -1}));
  motion::PlatenTestSummary failed;
  failed.OpenFailedInCycle = 0;  // no sample counted: the extremes are those of sample 0
  motion::SummarisePlaten(samples, 3, failed);
  EXPECT_EQ((std::vector<int>{failed.OpenMin, failed.OpenMax}), (std::vector<int>{10, 10}));
}

}  // namespace
}  // namespace motion_testing
