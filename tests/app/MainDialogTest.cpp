// The main dialogs against the simulated board, in virtual time: the order of ticks, the link's
// two states and the reconnection, the banner, sleep, and the ends of the modal run.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "app/CTavroTestDlg.h"
#include "pages/Lights.h"
#include "pages/Pendant.h"
#include "pages/Probes.h"
#include "pages/Readings.h"
#include "platform/Files.h"
#include "platform/WindowProbe.h"
#include "tests/pages/PageFixture.h"
#include "tests/support/TempDirs.h"

namespace {

using namespace testing_support;
using std::chrono::milliseconds;

// A page that writes down what the dialog asks of it.
class RecordingPage final : public CTabPage {
 public:
  RecordingPage(std::vector<std::string>& log, int index)
      : CTabPage(103, 104, BoardVersionInfo{}), log_(log), index_(index) {}
  void UpdatePage(std::uint32_t timerId, const ServoStatus&) override {
    log_.push_back(std::to_string(index_) + ":" + std::to_string(timerId));
    if (timerId < ticks.size()) ++ticks[timerId];
  }
  void ResetPage(const BoardVersionInfo&) override { ++resets; }
  std::array<int, 5> ticks{};  // by timer id
  int resets = 0;

 private:
  std::vector<std::string>& log_;
  int index_;
};

// The servo dialog's text with recording pages.
class TestDlg final : public CTavroTestDlgBase {
 public:
  TestDlg(ui::Window& w, platform::TaskLoop& l, CTavroUsbServo* servo, const BoardVersionInfo& v,
          int pageCount, std::vector<std::string>& log)
      : CTavroTestDlgBase(w, l, servo, v), pageCount_(pageCount), log_(log) {}
  RecordingPage& Recorded(int tab) { return static_cast<RecordingPage&>(*Page(tab)); }

 protected:
  unsigned PollTimer() const override { return 2; }
  bool IsSameMachine(const BoardVersionInfo& fresh) override { return fresh.isServo; }
  std::vector<PageRow> MakePages() override {
    std::vector<PageRow> rows;
    for (int i = 0; i < pageCount_; ++i)
      rows.push_back({"Page " + std::to_string(i), std::make_unique<RecordingPage>(log_, i)});
    return rows;
  }

 private:
  int pageCount_;
  std::vector<std::string>& log_;
};

class MainDialogTest : public PageFixture {
 protected:
  ~MainDialogTest() override { platform::SetWindowProbe(nullptr); }

  // Runs the UI loop for `d` of virtual time, the ticks that fall due at its end included (the
  // timer of the highest id fires last among those due together).
  void RunFor(platform::Duration d) {
    bool over = false;
    loop.SetTimer(99, d, [&](unsigned) {
      loop.KillTimer(99);
      over = true;
    });
    loop.RunUntil([&] { return over; });
  }
  std::uint32_t Polls() { return board_->TrafficSeen().commands[0x59]; }
  // Shows the dialog as a modal run would, without running the loop.
  void Open(CTavroTestDlgBase& dlg) {
    ASSERT_EQ(dlg.OnCreate(), 0);
    dlg.OnInitDialog();
  }
  // A dialog on the autovision board with `pages` recording pages, shown.
  std::unique_ptr<TestDlg> Opened(int pages) {
    Start("autovision");
    auto dlg = std::make_unique<TestDlg>(window, loop, &Servo(), version_, pages, log);
    Open(*dlg);
    return dlg;
  }
  void MeasuringApp(bool running) {
    appRunning = running;
    platform::SetWindowProbe(
        [this](const std::string& c) { return c == "MiravaAppFrame" && appRunning; });
  }
  std::string Display(CTabPage* page) {
    const auto all = page->Doc().Snapshot().elements;
    const auto it = all.find("WarningLabel");
    return it == all.end() || !it->second.display ? "(unset)" : *it->second.display;
  }

  platform::TaskLoop loop;
  ui::Window window{loop};
  std::vector<std::string> log;
  bool appRunning = false;
};

TEST_F(MainDialogTest, EveryTickGoesToEveryPageInTimerAndTabOrder) {
  auto dlg = Opened(2);
  EXPECT_EQ(dlg->Title(), "TavroTest : Connected");
  EXPECT_EQ(dlg->Recorded(1).resets, 1);

  const std::uint32_t polls = Polls();
  RunFor(milliseconds(1000));
  for (int tab : {0, 1})
    EXPECT_EQ(dlg->Recorded(tab).ticks, (std::array<int, 5>{0, 50, 20, 5, 1})) << tab;
  EXPECT_EQ(Polls() - polls, 20u) << "one poll per 50 ms tick";

  // At 200 ms three timers fall due together: they fire in the order of their ids, and each
  // tick reaches the pages in tab order before the next tick starts.
  const auto first3 = std::find(log.begin(), log.end(), "0:3");
  ASSERT_GE(first3 - log.begin(), 4);
  EXPECT_EQ(std::vector<std::string>(first3 - 4, first3 + 2),
            (std::vector<std::string>{"0:1", "1:1", "0:2", "1:2", "0:3", "1:3"}));
}

TEST_F(MainDialogTest, ALostLinkStopsThePagesButNotTheBannerAndComesBackWithinASecondWithAReset) {
  auto dlg = Opened(2);
  RunFor(milliseconds(430));
  Control("unplug");
  RunFor(milliseconds(50));  // one poll period
  EXPECT_FALSE(dlg->IsConnected());
  EXPECT_EQ(dlg->Title(), "TavroTest : Disconnected");

  log.clear();
  RunFor(milliseconds(2500));
  EXPECT_TRUE(log.empty()) << "no UpdatePage while disconnected";
  EXPECT_EQ(dlg->Recorded(0).resets, 1);
  // The banner runs on meanwhile.
  MeasuringApp(true);
  RunFor(milliseconds(20));
  EXPECT_EQ(Display(dlg->Page(0)), "inline");

  Control("replug");
  RunFor(milliseconds(1000));
  EXPECT_EQ(dlg->Title(), "TavroTest : Connected");
  EXPECT_EQ(dlg->Recorded(0).resets, 2);
  EXPECT_EQ(dlg->Recorded(1).resets, 2);
  EXPECT_FALSE(log.empty());
}

TEST_F(MainDialogTest, ABoardOfAnotherKindIsRefusedWithoutAWord) {
  Start("autovision");
  CTavroTestDlg dlg(window, loop, &Servo(), version_);
  Open(dlg);
  EXPECT_EQ(dlg.PageCount(), 7);
  EXPECT_NE(dynamic_cast<CTabPendantDlg*>(dlg.Page(2)), nullptr);
  EXPECT_NE(dynamic_cast<CTabLightsDlg*>(dlg.Page(3)), nullptr);
  EXPECT_NE(dynamic_cast<CTabReadingsDlg*>(dlg.Page(4)), nullptr);
  RunFor(milliseconds(200));

  // Another family, and the same family with another machine kind.
  for (const char* other : {"manualvision", "servo"}) {
    SCOPED_TRACE(other);
    Control("unplug");
    Control(std::string("profile ") + other);
    Control("replug");
    RunFor(milliseconds(3000));
    EXPECT_EQ(dlg.Title(), "TavroTest : Disconnected");
    EXPECT_FALSE(Servo().IsOpen()) << "closed again after each attempt";
    EXPECT_GE(board_->TrafficSeen().linkOpened, 3u);
  }
  EXPECT_TRUE(boxes.Boxes().empty());

  Control("profile autovision");
  RunFor(milliseconds(1000));
  EXPECT_TRUE(dlg.IsConnected());
  EXPECT_EQ(dlg.VersionRecord().firmwareName, "Auto Vision");
}

// The pendant and lights pages sit between Stage and the rest; the manual-vision family has no
// pendant and the first generation no readings, so both have six tabs, the current family seven.
TEST_F(MainDialogTest, EachFamilyHasItsPendantAndLightsPagesInTabOrder) {
  Start("servo");
  CTavroTestDlg servo(window, loop, &Servo(), version_);
  Open(servo);
  EXPECT_EQ(servo.PageCount(), 6);
  EXPECT_NE(dynamic_cast<CTabV1PendantDlg*>(servo.Page(2)), nullptr);
  EXPECT_NE(dynamic_cast<CTabV1LightsDlg*>(servo.Page(3)), nullptr);
  EXPECT_NE(dynamic_cast<CTabProbesDlg*>(servo.Page(4)), nullptr);
}

TEST_F(MainDialogTest, ManualVisionPollsOnTimerThreeAndRefusesAServoBoard) {
  Start("manualvision");
  CTavroTestManualVisionDlg dlg(window, loop, &Manual(), version_);
  Open(dlg);
  EXPECT_EQ(dlg.PageCount(), 6);
  EXPECT_NE(dynamic_cast<CTabManualVisionLightsDlg*>(dlg.Page(2)), nullptr);
  const std::uint32_t polls = Polls();
  RunFor(milliseconds(1000));
  EXPECT_EQ(Polls() - polls, 5u);

  Control("unplug");
  Control("profile autovision");
  Control("replug");
  RunFor(milliseconds(3000));
  EXPECT_EQ(dlg.Title(), "TavroTest : Disconnected");
  Control("profile manualvision");
  RunFor(milliseconds(1000));
  EXPECT_EQ(dlg.Title(), "TavroTest : Connected");
}

// The banner comes on at once on every page, shown or not; it goes only on the second tick
// without the application, so one that closes and reopens within two ticks keeps it up.
TEST_F(MainDialogTest, TheBannerFollowsTheApplicationWithOneTickOfGrace) {
  auto dlg = Opened(2);
  struct Step {
    bool app;
    std::uint32_t state;
    const char* display;
  };
  const Step steps[] = {{false, 0, "(unset)"}, {true, 1, "inline"},  {false, 2, "inline"},
                        {true, 2, "inline"},   {true, 2, "inline"},  {false, 0, "none"},
                        {true, 1, "inline"},   {false, 2, "inline"}, {false, 0, "none"}};
  int n = 0;
  for (const Step& s : steps) {
    SCOPED_TRACE(n++);
    MeasuringApp(s.app);
    dlg->OnTimer(1);
    EXPECT_EQ(dlg->WarningState(), s.state);
    EXPECT_EQ(Display(dlg->Page(0)), s.display);
    EXPECT_EQ(Display(dlg->Page(1)), s.display);
  }
}

TEST_F(MainDialogTest, SleepFreezesEveryTickAndTheWakeLetsThePollFindOut) {
  auto dlg = Opened(1);
  EXPECT_TRUE(dlg->OnPowerBroadcast(kPowerSuspend));
  const std::uint32_t polls = Polls();
  log.clear();
  MeasuringApp(true);
  RunFor(milliseconds(1000));
  EXPECT_EQ(Polls(), polls);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(dlg->WarningState(), 0u) << "the banner sleeps too";

  // The board went away during the sleep: the first poll after the wake finds out.
  Control("unplug");
  EXPECT_TRUE(dlg->OnPowerBroadcast(kPowerResume));
  RunFor(milliseconds(50));
  EXPECT_EQ(dlg->Title(), "TavroTest : Disconnected");

  // With the link closed the broadcast is not looked at: the reconnection goes on.
  EXPECT_TRUE(dlg->OnPowerBroadcast(kPowerSuspend));
  EXPECT_FALSE(dlg->IsSuspended());
}

TEST_F(MainDialogTest, ATimerThatCannotStartSaysSoOnceAndTheDialogStays) {
  Start("autovision");
  platform::TaskLoop ended;
  ended.Quit(0);
  ended.Run();
  TestDlg dlg(window, ended, &Servo(), version_, 1, log);
  Open(dlg);
  const auto shown = boxes.Boxes();
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0].text, "SetTimer failed");
  EXPECT_EQ(shown[0].style, ui::kMbOk | ui::kMbIconStop);
  EXPECT_EQ(dlg.Title(), "TavroTest : Connected");
}

TEST_F(MainDialogTest, TheModalRunEndsOnTheWindowsCloseAndTheAboutBoxComesFromTheMenu) {
  // Before the dialog runs the window's own menu item shows the same box.
  ::testing::internal::CaptureStderr();
  window.ShellEvents().Dispatch(ui::Event{ui::kShellPage, "menu-about", ui::EventKind::kClick});
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "About TavroTest: TavroTest, Version 1.0\n");

  Start("autovision");
  TestDlg dlg(window, loop, &Servo(), version_, 1, log);
  loop.SetTimer(50, milliseconds(300), [this](unsigned) {
    loop.KillTimer(50);
    window.ShellEvents().Dispatch(ui::Event{ui::kShellPage, "menu-close", ui::EventKind::kClick});
  });
  EXPECT_EQ(dlg.DoModal(), ui::kIdCancel);
  EXPECT_EQ(dlg.Recorded(0).ticks[2], 6);

  EXPECT_EQ(window.Shell().Text("menu-about"), "About TavroTest...");
  ::testing::internal::CaptureStderr();
  dlg.OnSysCommand(0xF060);  // Close: not the dialog's business here
  dlg.OnSysCommand(kSysCommandAbout | 0x3);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "About TavroTest: TavroTest, Version 1.0\n");
}

// Reports go to the program's folder. One that other users can write is told once, at the start;
// one only its owner writes is not.
TEST_F(MainDialogTest, AReportFolderOthersCanWriteIsToldAtTheStart) {
  Start("autovision");
  ScratchDir folder;
  platform::SetProgramFolder(folder.Path());
  for (const mode_t mode : {0755, 0775, 0757}) {
    ASSERT_EQ(::chmod(folder.Path().c_str(), mode), 0);
    TestDlg dlg(window, loop, &Servo(), version_, 1, log);
    ::testing::internal::CaptureStderr();
    Open(dlg);
    const std::string told = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(told.find("Other users can write to the folder that test reports go to"),
              mode == 0755 ? std::string::npos : std::string("TavroTest: ").size())
        << std::oct << mode << ": " << told;
    dlg.OnDestroy();
  }
  platform::SetProgramFolder("");
}

}  // namespace
