// The main dialogs: a tab host with up to seven pages, driven by four timers on the UI thread. On
// its poll timer the dialog reads the board's status and hands it, on every tick of every timer,
// to every page; it notices when the link drops and comes back, shows that in its title, and
// runs the banner that warns while the measuring application runs.
//
// CTavroTestDlg (servo machines) and CTavroTestManualVisionDlg (manual vision) share the text of
// CTavroTestDlgBase and differ by: the poll timer, the same-machine test on reconnection, and
// the page families.
//
// All members run on the UI thread (the thread of the loop).
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "app/RecorderApi.h"
#include "link/BoardRecords.h"
#include "link/ControllerRecords.h"
#include "link/Generations.h"
#include "pages/CTabDlg.h"
#include "platform/PowerEvents.h"
#include "platform/TaskLoop.h"
#include "recorder/Recorder.h"
#include "ui/HttpApi.h"
#include "ui/Window.h"

class CTavroUsbController;
namespace motion {
class StagePage;
}
class CTavroUsbServo;
class CTavroUsbManualVision;

// The power broadcast's events: the computer is about to sleep, and it woke again.
inline constexpr unsigned kPowerSuspend = platform::kPowerEventSuspend;  // 4
inline constexpr unsigned kPowerResume = platform::kPowerEventResume;    // 7
// The system menu's about item.
inline constexpr unsigned kSysCommandAbout = 16;

inline constexpr int kMaxPages = 7;

class CTavroTestDlgBase {
 public:
  virtual ~CTavroTestDlgBase();
  CTavroTestDlgBase(const CTavroTestDlgBase&) = delete;
  CTavroTestDlgBase& operator=(const CTavroTestDlgBase&) = delete;

  // The modal run: creation, the loop until the window's Close or SIGINT/SIGTERM ends it, then
  // the destruction of the window. Returns the loop's code, or -1 when creation failed. The
  // window's waits end (Shutdown) before the timers go and long before the pages do, so a test
  // thread that waits in a box gets its cautious answer and the page's end can join it.
  int DoModal();

  // The dialog's message handlers, in the order a run calls them. Public so that a test can run
  // them one by one in virtual time.
  // Makes the pages of the family and the tabs; -1 when a page has no document.
  int OnCreate();
  // Title, menu, and the four timers; a timer that cannot start shows "SetTimer failed".
  bool OnInitDialog();
  // One tick of timer `id`: poll, reconnection, UpdatePage to every page, the banner.
  void OnTimer(unsigned id);
  // kPowerSuspend / kPowerResume while the controller is open; always true.
  bool OnPowerBroadcast(unsigned event);
  void OnSysCommand(unsigned id);
  // Kills the timers, 4 to 1.
  void OnDestroy();
  // Every page's threads ended and joined (a running test stopped, its boxes answered).
  void EndPageThreads();

  // What tests look at.
  bool IsConnected() const { return connected; }
  bool IsSuspended() const { return suspended; }
  std::uint32_t WarningState() const { return static_cast<std::uint32_t>(warningState); }
  std::string Title() { return window.Shell().Text("title"); }
  int PageCount() const;
  CTabPage* Page(int tab) const { return tab >= 0 && tab < kMaxPages ? pages[tab].get() : nullptr; }
  const BoardVersionInfo& VersionRecord() const { return versionInfo; }

  // The run's recorder, which the pages record into, and its routes for the web server. The
  // routes hold the recorder, so an answer under way keeps it after the dialog has gone.
  recorder::Recorder& Recording() { return *recording; }
  std::shared_ptr<ui::HttpApi> Api() const { return api; }
  // The time the recorder's ticks are stamped with.
  recorder::TimeUs RunNow() const { return runTime.Now(); }

 protected:
  CTavroTestDlgBase(ui::Window& window, platform::TaskLoop& loop, CTavroUsbController* controller,
                    const BoardVersionInfo& versionInfo);

  // The timer on which the status is polled.
  virtual unsigned PollTimer() const = 0;
  // Whether a freshly read version record is the machine this dialog was made for.
  virtual bool IsSameMachine(const BoardVersionInfo& fresh) = 0;
  // The pages of the family in tab order, without holes; none for an unknown machine.
  struct PageRow {
    std::string title;
    std::unique_ptr<CTabPage> page;
  };
  virtual std::vector<PageRow> MakePages() = 0;

  ui::Window& window;
  platform::TaskLoop& loop;
  CTavroUsbController* controller;  // not owned
  BoardVersionInfo versionInfo;

 private:
  void Reconnect();
  void RunBanner();
  void Mark(recorder::EventKind kind, std::string_view text = {});
  void MarkStatusEdges();
  void SetTitleSuffix(const char* suffix);
  // The window's Close: ends the run at once, or after a Yes while a test runs.
  void OnCloseChosen();
  // The board's state and identity as the shell shows them (live or lost since the last read).
  void ShowBoard(bool live);
  // The Stage page of tab 1 as its test thread sees it, or null (no such page, or one without
  // tests).
  motion::StagePage* StageTests() const;
  // On every tick: a test's drive ends once no browser watches it (Unwatched); on the 200 ms
  // tick the title bar's STOP control follows the running test.
  void WatchRunningTest(unsigned timerId);
  // A box when the folder reports go to is open to other users' writes.
  void WarnOfOpenReportFolder();

  std::string baseTitle = "TavroTest";  // the template's caption
  bool connected = true;
  bool closeAsked = false;  // the Close question is open
  // Expires with the dialog: an answer that comes later finds nobody to tell.
  std::shared_ptr<bool> lifetime = std::make_shared<bool>(true);
  std::chrono::system_clock::time_point lastRead = std::chrono::system_clock::now();
  Banner warningState = Banner::kDown;
  // What a page, and a test thread of a page, may reach: made before the pages so that it goes
  // after them. A page's end joins its test thread, which still marks its last answers and its
  // report in the recorder on the way out.
  recorder::RunTime runTime;
  std::shared_ptr<recorder::Recorder> recording = std::make_shared<recorder::Recorder>();
  std::shared_ptr<RecorderApi> api;
  std::array<std::unique_ptr<CTabPage>, kMaxPages> pages;
  bool suspended = false;
  bool timersStarted[5] = {};
  ServoStatus status{};  // zeroed: a tick may come before the first poll
  // The status flags as the last marks left them: an e-stop that is on at the start is marked.
  bool markedEStop = false;
  bool markedSleep = false;
};

class CTavroTestDlg final : public CTavroTestDlgBase {
 public:
  CTavroTestDlg(ui::Window& window, platform::TaskLoop& loop, CTavroUsbServo* servo,
                const BoardVersionInfo& versionInfo);

  MachineKind GetMachineKind() const { return machineKind; }

 protected:
  unsigned PollTimer() const override { return TickId(Tick::k50ms); }
  bool IsSameMachine(const BoardVersionInfo& fresh) override;
  std::vector<PageRow> MakePages() override;

 private:
  CTavroUsbServo* servo;
  MachineKind machineKind = MachineKind::Unknown;
};

class CTavroTestManualVisionDlg final : public CTavroTestDlgBase {
 public:
  CTavroTestManualVisionDlg(ui::Window& window, platform::TaskLoop& loop,
                            CTavroUsbManualVision* manual, const BoardVersionInfo& versionInfo);

 protected:
  unsigned PollTimer() const override { return TickId(Tick::k200ms); }
  bool IsSameMachine(const BoardVersionInfo& fresh) override;
  std::vector<PageRow> MakePages() override;

 private:
  CTavroUsbManualVision* manual;
};

// The about box: the program's name and version, and OK.
class CAboutDlg {
 public:
  explicit CAboutDlg(ui::Window& window) : window_(window) {}
  // Opens the box; the UI thread goes on while it is shown.
  void DoModal();

 private:
  ui::Window& window_;
};
