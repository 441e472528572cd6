// The Stage page against the simulated board in virtual time: what each tick reads and when the
// document is pushed, the shared fields it feeds the motion tests shown or hidden, the sleep
// button, a failed read, the clicks, and the manual-vision view.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "pages/Stage.h"
#include "pages/StageManualVision.h"
#include "tests/pages/PageFixture.h"
#include "ui/Window.h"

namespace {

using namespace testing_support;

class StageTest : public OnePageFixture {
 protected:
  void TearDown() override {
    page.reset();  // before the window it was made on
    motion::AutoVisionTestState().Reset();
    motion::FirstGenerationTestState().Reset();
  }
  // A shown page of `Page` on a board of `profile`, after its first reset, with the status polled.
  template <class Page = CTabStageDlg>
  Page& Open(const std::string& profile) {
    Start(profile);
    auto made = std::make_unique<Page>(window, &Servo(), version_);
    Page& p = *made;
    page = std::move(made);
    page->ResetPage(version_);
    page->PageReady = true;
    Poll();
    return p;
  }
  void Poll() { ASSERT_TRUE(Servo().PollStatus(status_, 0, 1)); }
  void Tick(std::uint32_t timer) { page->UpdatePage(timer, status_); }
  void Type(const std::string& id, const std::string& text) {
    page->Doc().TakeBrowserValue(id, text, std::nullopt);
  }
  std::uint32_t AllSent() { return board_->TrafficSeen().total; }
  StageDlg& Stage() { return static_cast<StageDlg&>(*page); }

  static constexpr std::uint8_t kRotary = 0x63;
  static constexpr std::uint8_t kClearSleep = 0x5A;

  platform::TaskLoop loop;
  ui::Window window{loop};
};

TEST_F(StageTest, ReadsTheMachineImageOnceAtConstructionAndZeroesItWhenTheReadFails) {
  Open("autovision");
  EepromImage image;
  std::uint32_t result = 1;
  ASSERT_TRUE(Servo().GetEepromImage(image, result, true));
  ASSERT_EQ(result, 0u);
  EXPECT_NE(Stage().MotorMaximum(0), 0);
  EXPECT_EQ(Stage().MotorMaximum(2), image.MotorMaximum(2));
  EXPECT_EQ(Stage().CountsPerMm(1), image.CountsPerMm(1));

  Control("fault refuse 0x29");
  ::testing::internal::CaptureStderr();
  CTabStageDlg blind(window, &Servo(), version_);
  const std::string told = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(blind.MotorMaximum(0), 0);
  EXPECT_EQ(blind.CountsPerMm(0), 0);
  EXPECT_EQ(blind.Image().bytes, EepromImage{}.bytes);
  // Said, not silent: otherwise every run ends with a voltage warning about an obstruction that
  // is not there. The next reset (a reconnection) reads it again.
  EXPECT_NE(told.find("The machine image could not be read: the board did not answer."),
            std::string::npos)
      << told;
  Control("fault clear");
  ASSERT_EQ(link_.Open(false, false), 0);  // the refusal took the link down: it comes back
  blind.ResetPage(version_);  // the first reset follows construction at once: no second read
  EXPECT_FALSE(blind.ImageRead());
  blind.ResetPage(version_);
  EXPECT_TRUE(blind.ImageRead());
  EXPECT_EQ(blind.MotorMaximum(2), image.MotorMaximum(2));
}

TEST_F(StageTest, LimitTextsFollowTheByteAndFeedTheFlagsOfTheAxisUnderTest) {
  Open("autovision");
  Stage().TestAxis = 0;
  auto& state = motion::AutoVisionTestState();
  struct Step {
    std::int8_t limit;
    const char* text;
    std::uint8_t neg, pos;
  };
  // 1 to -1 between two ticks shows "Neg" at once; back to 0 blanks the cell.
  for (const Step& s : {Step{1, "Pos", 0, 1}, Step{-1, "Neg", 1, 0}, Step{0, "", 0, 0}}) {
    status_.Limit[0] = s.limit;
    status_.Limit[2] = s.limit;  // not the axis under test: text only
    Tick(3);
    EXPECT_EQ(Text("LimitX"), s.text) << int{s.limit};
    EXPECT_EQ(Text("LimitZ"), s.text) << int{s.limit};
    EXPECT_EQ(state.NegLimit, s.neg) << int{s.limit};
    EXPECT_EQ(state.PosLimit, s.pos) << int{s.limit};
  }
}

TEST_F(StageTest, MotionFlagTextsWaitForAPushThatSomethingElseCauses) {
  Open("autovision");
  Tick(3);
  status_.Moving[1] = true;
  status_.Stalled[0] = true;
  status_.Failed[3] = true;
  Tick(3);
  EXPECT_EQ(Text("MovingY"), "");
  EXPECT_EQ(Text("StalledX"), "");

  status_.LinearPosition[2] += 5;  // a real change: the push carries the flags along
  Tick(3);
  EXPECT_EQ(Text("LinearZ"), std::to_string(status_.LinearPosition[2]));
  EXPECT_EQ(Text("MovingY"), "Moving");
  EXPECT_EQ(Text("StalledX"), "Stall");
  EXPECT_EQ(Text("FailedZoom"), "Fail");
}

TEST_F(StageTest, SleepButtonTakesItsStateOnTheFirstSecondAndClearSleepNeedsASleepingBoard) {
  Open("autovision");
  struct Case {
    bool asleep;
    bool enabledAfterFirstSecond;
    const char* sleepText;
    std::uint32_t clearsSent;
  };
  for (const Case c : {Case{false, false, "", 0}, Case{true, true, "Sleep", 1}}) {
    SCOPED_TRACE(c.asleep);
    Control(c.asleep ? "sleep on" : "sleep off");
    Poll();
    page = std::make_unique<CTabStageDlg>(window, &Servo(), version_);
    page->ResetPage(version_);
    page->PageReady = true;
    const std::uint32_t before = Sent(kClearSleep);
    Click("StatusClearSleep");  // before any tick: not yet disabled, nor has a status been seen
    EXPECT_EQ(Sent(kClearSleep), before);

    Tick(4);
    EXPECT_EQ(page->Doc().Enabled("StatusClearSleep"), c.enabledAfterFirstSecond);
    Tick(3);
    EXPECT_EQ(Text("Sleep"), c.sleepText);
    Click("StatusClearSleep");
    EXPECT_EQ(Sent(kClearSleep) - before, c.clearsSent);

    // Only the first second sets it; later it follows the sleep state on the 200 ms tick.
    page->Doc().Enable("StatusClearSleep", !c.enabledAfterFirstSecond);
    Tick(4);
    EXPECT_EQ(page->Doc().Enabled("StatusClearSleep"), !c.enabledAfterFirstSecond);
  }
}

TEST_F(StageTest, FailedRotaryReadOfYKeepsXRefreshedSilencesThePageUntilReset) {
  Open("autovision");
  Tick(3);
  const std::string shownX = Text("RotaryX");
  const std::string shownLinear = Text("LinearX");
  Control("place x 40");
  Poll();
  // X's read is let through (late by a millisecond), Y's is refused.
  Control("fault late 0x63 count=1 ms=1");
  Control("fault refuse 0x63");
  Tick(3);
  EXPECT_FALSE(page->Connected);
  EXPECT_TRUE(boxes.Boxes().empty());

  // The board comes back; the page stays silent all the same.
  Control("fault clear");
  ASSERT_EQ(Servo().Open(false, false), 0);
  std::int32_t fresh = 0;
  ASSERT_TRUE(Stage().GetRotaryPosition(0, fresh));
  EXPECT_EQ(Stage().RotaryOf(0), fresh);
  EXPECT_NE(std::to_string(fresh), shownX);
  EXPECT_EQ(Text("RotaryX"), shownX) << "no push after a failed read";
  EXPECT_EQ(Text("LinearX"), shownLinear);

  const std::uint32_t reads = Sent(kRotary);
  for (int i = 0; i < 3; ++i)
    Tick(3);
  EXPECT_EQ(Sent(kRotary), reads);

  page->ResetPage(version_);
  Tick(3);
  EXPECT_EQ(Sent(kRotary) - reads, 4u);
  EXPECT_EQ(Text("RotaryX"), std::to_string(fresh));
}

TEST_F(StageTest, HiddenPageLetsTimersOneAndTwoFeedTheTestButFreezesTheRest) {
  Open<CTabV1StageDlg>("servo");
  ASSERT_TRUE(version_.platenFitted);
  auto& state = motion::FirstGenerationTestState();
  Tick(3);
  ASSERT_EQ(state.PlatenClosed, 1) << "the platen starts closed";
  page->PageReady = false;
  Control("estop on");
  Poll();
  state.Running = 1;
  state.TestY = 1;
  state.LimitTest = 1;
  state.PlatenTest = 1;
  Stage().TestAxis = 1;
  Stage().Sampling = 1;
  status_.LinearPosition[1] = 4321;
  status_.Limit[1] = -1;
  status_.PlatenLimit = 1;
  const std::uint32_t sent = AllSent();

  for (std::uint32_t timer : {1u, 2u, 3u, 4u})
    Tick(timer);
  EXPECT_EQ(Stage().TestPosition, 4321);
  EXPECT_EQ(state.NegLimit, 1);
  EXPECT_EQ(Stage().CachedEStop, 0);
  EXPECT_EQ(state.PlatenOpen, 0);
  EXPECT_EQ(Text("RunningTestY"), "Ready");
  EXPECT_EQ(AllSent(), sent) << "the hidden page reads nothing";

  // Shown again: the platen's reading becomes the test position and the rest catches up.
  Stage().Sampling = 0;
  page->PageReady = true;
  Tick(3);
  EXPECT_EQ(Stage().TestPosition, Stage().RotaryOf(kPlatenSlot));
  EXPECT_NE(Stage().TestPosition, 4321);
  EXPECT_EQ(Stage().CachedEStop, 1);
  EXPECT_EQ(Text("EStop"), "EStop");
  EXPECT_EQ(state.PlatenOpen, 1);
  EXPECT_EQ(state.PlatenClosed, 0);
  EXPECT_EQ(Text("LimitPlaten"), "Pos");
  EXPECT_EQ(Text("RunningTestX"), "");
  EXPECT_EQ(Text("RunningTestY"), "Testing Axis");
  EXPECT_EQ(Text("RunningTestZoom"), "");
  EXPECT_EQ(Text("PlatenStatus"), "Ready") << "the platen's text stays while its test runs";
  EXPECT_EQ(Text("IndexPlaten"), "");

  // While a test runs every tick pushes, so the thread's texts follow; its end shows "Ready".
  Stage().SetRunningText(1, "MB: 250");
  Tick(3);
  EXPECT_EQ(Text("RunningTestY"), "MB: 250");
  state.Running = 0;
  Tick(3);
  EXPECT_EQ(Text("RunningTestY"), "Ready");
  EXPECT_EQ(Text("PlatenStatus"), "Ready");
}

TEST_F(StageTest, IndexStaysBlankUntilTheBoardCapturesOne) {
  Open("autovision");
  Tick(3);
  EXPECT_EQ(Text("IndexX"), "");
  // The joystick jogs X over several motor turns.
  Control("joystick 1 0 0");
  clock.SleepFor(std::chrono::milliseconds(1000));
  Control("joystick 0 0 0");
  Poll();
  Tick(3);
  const std::string shown = Text("IndexX");
  EXPECT_NE(shown, "");
  EXPECT_EQ(shown.find_first_not_of("-0123456789"), std::string::npos) << shown;
  EXPECT_EQ(Text("IndexY"), "");
}

TEST_F(StageTest, WAndPlatenColumnsAreLeftAloneWithoutThoseUnits) {
  Open("autovision");
  ASSERT_TRUE(version_.hasWAxis);
  ASSERT_FALSE(version_.platenFitted);
  Tick(3);
  EXPECT_TRUE(Has("RotaryW"));
  EXPECT_TRUE(Has("MovingW"));
  for (const char* id : {"RotaryPlaten", "IndexPlaten", "LimitPlaten", "MovingPlaten",
                         "SettledPlaten", "StalledPlaten", "RunningTestZoom", "LinearW"})
    EXPECT_FALSE(Has(id)) << id;

  BoardVersionInfo bare = version_;
  bare.hasWAxis = false;
  CTabStageDlg without(window, &Servo(), bare);
  without.ResetPage(bare);
  without.PageReady = true;
  without.UpdateData();
  const auto shown = without.Doc().Snapshot().elements;
  for (const char* id : {"RotaryW", "IndexW", "MovingW", "SettledW", "StalledW"})
    EXPECT_EQ(shown.count(id), 0u) << id;
  EXPECT_EQ(shown.count("RotaryX"), 1u);
}

TEST_F(StageTest, PlatenCountLastsUntilTheNextPushAndAClickReadsItFirst) {
  Open("autovision");
  EXPECT_TRUE(page->Events().Has("PlatenCount", ui::EventKind::kChange))
      << "a browser sends what was typed only for a change the page listens to";
  Type("PlatenCount", "25");
  page->ResetPage(version_);
  EXPECT_EQ(Text("PlatenCount"), "100");

  // The toggle on a machine without a platen tells so in a box and ends at once.
  Type("PlatenCount", "7");
  Click("PlatenToggle");
  Stage().ThreadGuard().Join();
  EXPECT_EQ(Stage().PlatenCountText(), "7");
  ASSERT_EQ(boxes.Boxes().size(), 1u);
  EXPECT_EQ(boxes.Boxes()[0].title, "TavroTest");
  EXPECT_EQ(motion::AutoVisionTestState().Running, 0);
  Type("PlatenCount", "9");
  status_.LinearPosition[0] += 1;
  Tick(3);
  EXPECT_EQ(Text("PlatenCount"), "7");

  Type("PlatenCount", std::string(5000, '1'));
  Click("PlatenToggle");
  Stage().ThreadGuard().Join();
  EXPECT_EQ(Stage().PlatenCountText().size(), kMaxPlatenCountText);
}

TEST_F(StageTest, ClicksWhileATestRunsChangeNothingButStopAndEscapeAskTheTestToEnd) {
  Open("autovision");
  auto& state = motion::AutoVisionTestState();
  // Escape without a test: nothing to cancel. STOP asks regardless.
  page->OnCancel();
  EXPECT_EQ(Stage().StopRequested, 0);
  Click("StopMotor");
  EXPECT_EQ(Stage().StopRequested, 1);
  Stage().StopRequested = 0;

  state.Running = 1;
  state.PlatenTest = 1;
  Type("PlatenCount", "3");
  const std::uint32_t sent = AllSent();
  for (const char* id : {"XAxisTest", "YLimitTest", "ZAxisTest", "PlatenTest", "PlatenToggle"})
    Click(id);
  EXPECT_EQ(AllSent(), sent);
  EXPECT_EQ(state.TestX + state.TestY + state.TestZ + state.LimitTest, 0);
  EXPECT_EQ(Stage().TestAxis, motion::kNoAxis);
  EXPECT_EQ(Stage().PlatenCountText(), "100");
  EXPECT_FALSE(page->Events().Has("ZoomAxisTest", ui::EventKind::kClick));

  page->OnCancel();
  EXPECT_EQ(Stage().StopRequested, 1);
}

TEST_F(StageTest, TheTwentyMillisecondTickTracesTheUnitUnderTestWhileATraceRuns) {
  Open("autovision");
  Stage().TestAxis = 2;
  Stage().Sampling = 1;
  status_.LinearPosition[2] = 1234;
  status_.Limit[2] = 1;
  Tick(1);
  EXPECT_TRUE(Stage().Trace.Take().empty());
  Stage().Trace.Begin();
  Stage().BiasWritten = -300;
  Tick(1);
  const auto samples = Stage().Trace.Take();
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].linear, 1234);
  EXPECT_EQ(samples[0].bias, -300);
  EXPECT_EQ(samples[0].limit, 1);
  EXPECT_EQ(samples[0].rotary, Stage().RotaryOf(2));
  Stage().Trace.End();
}

TEST_F(StageTest, ManualVisionPageWorksOnTheTwoHundredMillisecondTickOnly) {
  Start("manualvision");
  CTabManualVisionStageDlg view(&Manual(), version_);
  view.ResetPage(version_);
  view.PageReady = true;
  ASSERT_TRUE(Manual().PollStatus(status_, 0, 1));
  status_.LinearPosition[0] = 11;
  status_.Footswitch = true;
  status_.EStop = true;
  status_.Moving[0] = true;
  status_.Moving[3] = true;
  const std::uint32_t sent = AllSent();
  for (std::uint32_t timer : {1u, 2u, 4u})
    view.UpdatePage(timer, status_);
  EXPECT_EQ(AllSent(), sent);
  EXPECT_EQ(view.Doc().Text("LinearX"), "") << "never pushed";

  view.UpdatePage(3, status_);
  EXPECT_GT(AllSent(), sent);
  const auto& doc = view.Doc();
  EXPECT_EQ(doc.Text("LinearX"), "11");
  EXPECT_EQ(doc.Text("Footswitch"), "On");
  EXPECT_EQ(doc.Text("EStop"), "EStop");
  EXPECT_EQ(doc.Text("MovingZoom"), "Moving");
  EXPECT_EQ(doc.Text("IndexX"), "");
  EXPECT_NE(doc.Text("RotaryW"), "");
  const auto shown = doc.Snapshot().elements;
  for (const char* id : {"MovingX", "Sleep", "RotaryX", "LimitX", "PlatenCount"})
    EXPECT_EQ(shown.count(id), 0u) << id;

  // Hidden, it reads nothing.
  view.PageReady = false;
  const std::uint32_t shownSent = AllSent();
  view.UpdatePage(3, status_);
  EXPECT_EQ(AllSent(), shownSent);
}

}  // namespace
