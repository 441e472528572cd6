// The main dialog and a test that runs on its Stage page, in virtual time: the title bar's STOP
// control, the stop when the last browser goes, and the end of the run while a test thread
// waits in a box or ramps. The Stage page here is a stand-in with a scripted test thread.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/CTavroTestDlg.h"
#include "motion/StageTest.h"
#include "tests/pages/PageFixture.h"

namespace {

using namespace testing_support;
using std::chrono::milliseconds;

class PlainPage final : public CTabPage {
 public:
  PlainPage() : CTabPage(103, 104, BoardVersionInfo{}) {}
  void ResetPage(const BoardVersionInfo&) override {}
};

// A Stage page whose X axis test takes the axis, waits in a box, a choice dialog or a ramp that
// samples until it is stopped, and hands the axis back.
class FakeStagePage final : public CTabPage, public motion::StagePage {
 public:
  enum class Wait { kNone, kBox, kChoice, kRamp };

  explicit FakeStagePage(ui::Window& window)
      : CTabPage(103, 104, BoardVersionInfo{}), window_(window) {}
  // As the real page does: the thread goes first, before any member it uses.
  ~FakeStagePage() override {
    guard_.RequestQuit();
    guard_.Join();
  }
  void ResetPage(const BoardVersionInfo&) override {}

  void StartXTest(Wait wait) {
    state_.Running = 1;
    state_.TestX = 1;
    StopRequested = 0;
    guard_.RecordThread(platform::ParticipantThread([this, wait] { Run(wait); }));
  }

  std::atomic<bool> driven{false};
  std::atomic<bool> finished{false};
  std::atomic<int> answer{0};
  mutable motion::StageTestState state_;  // the family's shared state stands outside the page

  // --- motion::StagePage ---
  motion::StageTestState& TestState() const override { return state_; }
  motion::TestThreadGuard& ThreadGuard() override { return guard_; }
  bool FirstGeneration() const override { return false; }
  void LoadAxisPid(unsigned) override {}
  bool StoreAxisPid(unsigned) override { return true; }
  std::uint32_t LinkSession() override { return 1; }
  std::string BoardSerial() override { return ""; }
  void SyncTestedAxis(unsigned) override {}
  std::uint16_t MotorMaximum(unsigned) const override { return 0; }
  std::int32_t CountsPerMm(unsigned) const override { return 1; }
  const AxisExtents& Extents() const override { return extents_; }
  bool PlatenPresent() const override { return false; }
  bool GetRotaryPosition(unsigned, std::int32_t&) override { return true; }
  bool MovePlaten(bool) override { return true; }
  void SetRunningText(unsigned, const std::string&) override {}
  void SetPlatenStatusText(const std::string&) override {}
  int Ask(const std::string& text, unsigned style) override {
    return window_.Show(text, "X Axis Test", style);
  }
  ui::ChoiceResult Choose(const ui::ChoiceDialog& dialog) override {
    return window_.ShowChoice(dialog);
  }
  std::string ReportFolder() const override { return ""; }
  std::string PlatenCountText() const override { return ""; }

 private:
  void Run(Wait wait) {
    driven = true;
    if (wait == Wait::kBox) answer = Ask("Move the X axis?", ui::kMbOkCancel);
    if (wait == Wait::kChoice)
      answer = Choose({"X Axis Test", {"Pick"}, "Voltage", {"A", "B"}}).result;
    if (wait == Wait::kRamp || wait == Wait::kNone) {
      HeldAxis = 0;
      Sampling = 1;
      while (!StopRequested && !Unwatched && !guard_.IsQuitRequested()) {
        platform::Clock::Current().SleepFor(milliseconds(20));
      }
      Sampling = 0;
      HeldAxis = motion::kNoAxis;
    }
    driven = false;  // the axis is handed back
    state_.TestX = 0;
    state_.Running = 0;
    guard_.ClearThread();
    finished = true;
  }

  ui::Window& window_;
  motion::TestThreadGuard guard_;
  AxisExtents extents_{};
};

class StageDlg final : public CTavroTestDlgBase {
 public:
  StageDlg(ui::Window& w, platform::TaskLoop& l, CTavroUsbServo* servo, const BoardVersionInfo& v)
      : CTavroTestDlgBase(w, l, servo, v) {}
  FakeStagePage& Stage() { return dynamic_cast<FakeStagePage&>(*Page(1)); }

 protected:
  unsigned PollTimer() const override { return 2; }
  bool IsSameMachine(const BoardVersionInfo& fresh) override { return fresh.isServo; }
  std::vector<PageRow> MakePages() override {
    std::vector<PageRow> rows;
    rows.push_back({"Board Information", std::make_unique<PlainPage>()});
    rows.push_back({"Stage", std::make_unique<FakeStagePage>(window)});
    return rows;
  }
};

class NullBrowser final : public ui::Connection {
 public:
  void Send(std::shared_ptr<const std::string>) override {}
};

// A browser that keeps what it is sent, to find a dialog's id by its text.
class KeepingBrowser final : public ui::Connection {
 public:
  void Send(std::shared_ptr<const std::string> message) override {
    std::lock_guard lock(mutex_);
    messages_.push_back(*message);
  }
  // The id of the last dialog whose message holds `text`; -1 when none.
  int DialogWith(const std::string& text) {
    std::lock_guard lock(mutex_);
    for (auto it = messages_.rbegin(); it != messages_.rend(); ++it) {
      if (it->find(R"("t":"dialog")") == std::string::npos || it->find(text) == std::string::npos) {
        continue;
      }
      const std::size_t at = it->find(R"("id":)");
      return at == std::string::npos ? -1 : std::stoi(it->substr(at + 5));
    }
    return -1;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> messages_;
};

class RunningTestTest : public PageFixture {
 protected:
  void SetUp() override {
    Start("autovision");
    dlg = std::make_unique<StageDlg>(window, loop, &Servo(), version_);
  }
  void TearDown() override {
    window.Shutdown();  // a failed check must not leave a thread waiting in a box
    dlg.reset();
  }
  void RunFor(platform::Duration d) {
    bool over = false;
    loop.SetTimer(99, d, [&](unsigned) {
      loop.KillTimer(99);
      over = true;
    });
    loop.RunUntil([&] { return over; });
  }
  void Open() {
    ASSERT_EQ(dlg->OnCreate(), 0);
    dlg->OnInitDialog();
  }
  // A browser's sign of life, now and then every half second (as the shell's script sends it).
  void Beat(ui::Window::ClientId id) { window.Receive(id, R"({"t":"beat"})"); }
  void BeatFrom(ui::Window::ClientId id) {
    Beat(id);
    loop.SetTimer(98, milliseconds(500), [this, id](unsigned) { Beat(id); });
  }
  void StopBeats() { loop.KillTimer(98); }
  void ClickStop() {
    window.ShellEvents().Dispatch(ui::Event{ui::kShellPage, "stop-test", ui::EventKind::kClick});
  }
  // Waits up to `limit` of virtual time for the test thread to end.
  bool Finished(platform::Duration limit) {
    const auto end = clock.Now() + limit;
    while (!dlg->Stage().finished && clock.Now() < end)
      clock.SleepFor(milliseconds(10));
    return dlg->Stage().finished;
  }

  platform::TaskLoop loop;
  ui::Window window{loop};
  std::unique_ptr<StageDlg> dlg;
};

TEST_F(RunningTestTest, TheStopControlShowsTheRunningTestOnItsTickAndOneClickStopsIt) {
  Open();
  auto browser = window.Attach(std::make_shared<NullBrowser>());
  RunFor(milliseconds(400));
  EXPECT_EQ(window.Shell().Text("stop-test-name"), "");

  FakeStagePage& stage = dlg->Stage();
  stage.StartXTest(FakeStagePage::Wait::kNone);
  RunFor(milliseconds(200));
  EXPECT_EQ(window.Shell().Text("stop-test-name"), "X Axis Test");
  EXPECT_EQ(stage.StopRequested, 0);

  ClickStop();
  EXPECT_EQ(stage.StopRequested, 1) << "one click, no question";
  ASSERT_TRUE(Finished(milliseconds(100)));
  EXPECT_FALSE(stage.driven);
  RunFor(milliseconds(200));
  EXPECT_EQ(window.Shell().Text("stop-test-name"), "") << "hidden on the next tick";

  stage.StopRequested = 0;
  ClickStop();
  EXPECT_EQ(stage.StopRequested, 0) << "nothing runs, nothing to stop";
  window.Detach(browser);
}

// A ramp goes on while a browser shows signs of life. It must end within 1.2 s of the last
// browser going (not before a second: a reload is back well within that), and within 2.2 s of
// the last sign of life of a browser that stays connected but hangs; life that comes back lets
// the drive go on.
TEST_F(RunningTestTest, ARampMustEndWhenNoBrowserIsThereOrAlive) {
  Open();
  FakeStagePage& stage = dlg->Stage();
  const auto silent = window.Attach(std::make_shared<NullBrowser>());
  auto lively = window.Attach(std::make_shared<NullBrowser>());
  BeatFrom(lively);
  stage.StartXTest(FakeStagePage::Wait::kRamp);
  RunFor(milliseconds(3000));
  EXPECT_EQ(stage.Unwatched, 0) << "watched";

  window.Detach(silent);
  RunFor(milliseconds(3000));
  EXPECT_EQ(stage.Unwatched, 0) << "one browser is still there";

  // A reload: away for half a second, back again.
  StopBeats();
  window.Detach(lively);
  RunFor(milliseconds(500));
  lively = window.Attach(std::make_shared<NullBrowser>());
  BeatFrom(lively);
  RunFor(milliseconds(3000));
  EXPECT_EQ(stage.Unwatched, 0) << "a reload does not stop the test";

  // The page hangs: connected, and silent from its last sign of life on.
  StopBeats();
  Beat(lively);
  RunFor(milliseconds(1800));
  EXPECT_EQ(stage.Unwatched, 0) << "less than two seconds of silence";
  RunFor(milliseconds(400));
  EXPECT_EQ(stage.Unwatched, 1) << "ended within 2.2 s";
  BeatFrom(lively);
  RunFor(milliseconds(400));
  EXPECT_EQ(stage.Unwatched, 0) << "alive again";

  window.Detach(lively);
  StopBeats();
  RunFor(milliseconds(900));
  EXPECT_EQ(stage.Unwatched, 0) << "less than a second without a browser";
  RunFor(milliseconds(300));
  EXPECT_EQ(stage.Unwatched, 1) << "ended within 1.2 s";
  ASSERT_TRUE(Finished(milliseconds(100)));
  EXPECT_FALSE(stage.driven);
}

// Two tabs: the one that clicked the test's button holds control. When it is closed (no
// connection for a second) or hangs (silent for two) while the other still beats, its ramp is
// stopped as on STOP, and nobody holds control: the watcher's life does not keep the operator's
// drive going. A test in a question is left to wait.
TEST_F(RunningTestTest, TheOperatorsTabThatGoesEndsItsDriveThoughAnotherWatches) {
  struct Case {
    const char* what;
    bool closed;
    platform::Duration notYet;
    platform::Duration by;
  };
  const Case cases[] = {
      {"closed", true, milliseconds(900), milliseconds(1200)},
      {"hung", false, milliseconds(1800), milliseconds(2200)},
  };
  Open();
  FakeStagePage& stage = dlg->Stage();
  stage.Events().OnClick("XAxisTest", [&](const ui::Event&) {
    if (!stage.TestState().Running) stage.StartXTest(FakeStagePage::Wait::kRamp);
  });
  const auto watcher = window.Attach(std::make_shared<NullBrowser>());
  window.Receive(watcher, R"({"t":"hello","tab":"watcher-tab"})");
  loop.SetTimer(97, milliseconds(500), [&](unsigned) { Beat(watcher); });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    stage.finished = false;
    const auto operatorTab = window.Attach(std::make_shared<NullBrowser>());
    window.Receive(operatorTab, R"({"t":"hello","tab":"operator-tab"})");
    BeatFrom(operatorTab);
    window.Receive(operatorTab, R"({"t":"event","page":1,"id":"XAxisTest","kind":"click"})");
    RunFor(milliseconds(3000));
    ASSERT_TRUE(stage.driven);
    EXPECT_EQ(window.ControlHolder(), "operator-tab");

    StopBeats();
    if (c.closed) window.Detach(operatorTab);
    RunFor(c.notYet);
    EXPECT_EQ(stage.StopRequested, 0);
    EXPECT_EQ(stage.Unwatched, 0) << "the watcher is there and alive";
    RunFor(c.by - c.notYet);
    EXPECT_EQ(stage.StopRequested, 1);
    ASSERT_TRUE(Finished(milliseconds(100)));
    EXPECT_FALSE(stage.driven);
    EXPECT_EQ(window.ControlHolder(), "");
    if (!c.closed) window.Detach(operatorTab);
  }

  // In a question it holds no axis: the test waits for whoever answers, and nobody holds control.
  stage.Events().OnClick("XAxisTest", [&](const ui::Event&) {
    if (!stage.TestState().Running) stage.StartXTest(FakeStagePage::Wait::kBox);
  });
  stage.finished = false;
  const auto operatorTab = window.Attach(std::make_shared<NullBrowser>());
  window.Receive(operatorTab, R"({"t":"hello","tab":"operator-tab"})");
  window.Receive(operatorTab, R"({"t":"event","page":1,"id":"XAxisTest","kind":"click"})");
  RunFor(milliseconds(500));
  ASSERT_EQ(window.ControlHolder(), "operator-tab");
  window.Detach(operatorTab);
  RunFor(milliseconds(3000));
  EXPECT_EQ(window.ControlHolder(), "");
  EXPECT_EQ(stage.StopRequested, 0);
  EXPECT_FALSE(stage.finished) << "the box waits";
  loop.KillTimer(97);
}

// Closing the window or SIGTERM (which quits the loop the same way) ends the modal run; the
// thread, in a box, a choice or a ramp, ends with the cautious answer or a stop and hands its
// axis back before the dialog (and its pages) go.
TEST_F(RunningTestTest, TheEndOfTheRunEndsATestThreadWhereverItWaits) {
  struct Case {
    const char* what;
    FakeStagePage::Wait wait;
    bool bySignal;
    int answer;
  };
  const Case cases[] = {
      {"box, Close", FakeStagePage::Wait::kBox, false, ui::kIdCancel},
      {"box, SIGTERM", FakeStagePage::Wait::kBox, true, ui::kIdCancel},
      {"choice, Close", FakeStagePage::Wait::kChoice, false, ui::kIdCancel},
      {"ramp, SIGTERM", FakeStagePage::Wait::kRamp, true, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    platform::TaskLoop caseLoop;
    ui::Window caseWindow(caseLoop);
    auto caseDlg = std::make_unique<StageDlg>(caseWindow, caseLoop, &Servo(), version_);
    const auto seen = std::make_shared<KeepingBrowser>();
    const auto browser = caseWindow.Attach(seen);
    caseLoop.SetTimer(50, milliseconds(300), [&](unsigned) {
      caseLoop.KillTimer(50);
      caseDlg->Stage().StartXTest(c.wait);
    });
    caseLoop.SetTimer(51, milliseconds(900), [&](unsigned) {
      caseLoop.KillTimer(51);
      if (c.bySignal) {
        caseLoop.Quit(ui::kIdCancel);
      } else {
        caseWindow.ShellEvents().Dispatch(
            ui::Event{ui::kShellPage, "menu-close", ui::EventKind::kClick});
      }
    });
    // Close during a test asks first; the browser's Yes ends the run.
    caseLoop.SetTimer(52, milliseconds(1000), [&](unsigned) {
      caseLoop.KillTimer(52);
      const int question = seen->DialogWith("Stop it and close TavroTest?");
      EXPECT_EQ(question >= 0, !c.bySignal);
      if (question < 0) return;
      EXPECT_NE(caseDlg->Stage().TestState().Running, 0) << "the question alone stops nothing";
      caseWindow.Receive(
          browser, R"({"t":"answer","dialog":)" + std::to_string(question) + R"(,"result":6})");
    });
    EXPECT_EQ(caseDlg->DoModal(), ui::kIdCancel);
    FakeStagePage& stage = caseDlg->Stage();
    const auto end = clock.Now() + milliseconds(500);
    while (!stage.finished && clock.Now() < end)
      clock.SleepFor(milliseconds(10));
    EXPECT_TRUE(stage.finished) << "the thread ended before the pages went";
    EXPECT_FALSE(stage.driven);
    EXPECT_EQ(stage.answer, c.answer);
    caseWindow.Shutdown();  // backstop, so that a failure above cannot hang the test
    caseDlg.reset();        // the page joins its thread
    (void)browser;
  }
}

}  // namespace
