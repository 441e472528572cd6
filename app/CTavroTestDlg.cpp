#include "app/CTavroTestDlg.h"

#include <sys/stat.h>

#include <algorithm>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "motion/StageTest.h"
#include "pages/BoardInformation.h"
#include "pages/Lights.h"
#include "pages/Pendant.h"
#include "pages/Probes.h"
#include "pages/Readings.h"
#include "pages/Stage.h"
#include "pages/StageManualVision.h"
#include "pages/UsbSerial.h"
#include "platform/Clock.h"
#include "platform/Files.h"
#include "ui/MessageBox.h"
#include "util/StringTable.h"

namespace {

// How long a motion test drives with no browser attached, and with none showing a sign of life.
constexpr std::chrono::seconds kNoBrowserLimit{1};
constexpr std::chrono::seconds kNoSignOfLifeLimit{2};

constexpr const char* kConnected = " : Connected";
constexpr const char* kDisconnected = " : Disconnected";

// The menu item without its keyboard mark ("&About" shows as "About").
std::string MenuText(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), '&'), text.end());
  return text;
}

template <class Page, class Controller>
std::unique_ptr<CTabPage> Make(Controller* controller, const BoardVersionInfo& v) {
  return std::make_unique<Page>(controller, v);
}

}  // namespace

CTavroTestDlgBase::CTavroTestDlgBase(ui::Window& parent, platform::TaskLoop& uiLoop,
                                     CTavroUsbController* link, const BoardVersionInfo& record)
    : window(parent),
      loop(uiLoop),
      controller(link),
      versionInfo(record),
      api(std::make_shared<RecorderApi>(recording, runTime, platform::ProgramFolder())) {}

CTavroTestDlgBase::~CTavroTestDlgBase() {
  EndPageThreads();
}

void CTavroTestDlgBase::EndPageThreads() {
  for (auto& page : pages) {
    if (page) page->EndThreads();
  }
}

int CTavroTestDlgBase::PageCount() const {
  return static_cast<int>(
      std::count_if(pages.begin(), pages.end(), [](const auto& p) { return p != nullptr; }));
}

int CTavroTestDlgBase::DoModal() {
  if (OnCreate() != 0) return -1;
  OnInitDialog();
  const int result = loop.Run();
  // The run is over (Close, SIGINT, SIGTERM): a test that runs is asked to stop, and every box a
  // test thread waits in is answered cautiously, so that the thread hands its axis back and the
  // pages, which join their threads, can go.
  if (motion::StagePage* stage = StageTests(); stage && stage->TestState().Running) {
    stage->StopRequested = 1;
  }
  window.Shutdown();
  // Before any page or anything a test thread reaches goes, the threads end.
  EndPageThreads();
  OnDestroy();
  return result;
}

int CTavroTestDlgBase::OnCreate() {
  std::vector<PageRow> rows = MakePages();
  // The window of a page is its document; a page without one cannot be made.
  for (const PageRow& row : rows) {
    if (row.page->DocumentPath().empty()) return -1;
  }
  for (std::size_t i = 0; i < rows.size() && i < pages.size(); ++i) {
    window.AddPage(rows[i].title, *rows[i].page);
    pages[i] = std::move(rows[i].page);
  }
  // The browsers lay the tabs out and show the first; every page gets its first reset.
  for (auto& page : pages) {
    if (page) page->ResetPage(versionInfo);
  }
  // Then each page adds the channels of what its first reset found, under its tab's title.
  for (std::size_t i = 0; i < rows.size() && i < pages.size(); ++i) {
    pages[i]->StartRecording(*recording, runTime, rows[i].title);
  }
  return 0;
}

bool CTavroTestDlgBase::OnInitDialog() {
  const std::string about = strings::Load(101);
  if (!about.empty()) {
    window.Shell().SetText("menu-about", MenuText(about));
    window.ShellEvents().OnClick(
        "menu-about", [this](const ui::Event&) { OnSysCommand(kSysCommandAbout); },
        ui::From::kAnyone);
  } else {
    window.Shell().Show("menu-about", false);
  }
  // The window's Close ends the modal run, as the dialog's cancel does; during a test it asks
  // first.
  window.SetCloseHandler([this] { OnCloseChosen(); });
  // The title bar's STOP asks for the same stop as the page's own STOP, without a question.
  window.SetStopHandler([this] {
    motion::StagePage* stage = StageTests();
    if (stage && stage->TestState().Running) stage->StopRequested = 1;
  });
  // One operator at a time: the window gives control to the tab whose click starts a test.
  window.SetRunningTestQuery([this]() -> std::string {
    const motion::StagePage* stage = StageTests();
    return stage ? motion::RunningTestName(*stage) : std::string();
  });

  SetTitleSuffix(kConnected);
  ShowBoard(true);
  WarnOfOpenReportFolder();
  for (const TickPeriod& t : kTickPeriods) {
    if (!loop.SetTimer(TickId(t.tick), platform::Milliseconds(t.ms),
                       [this](unsigned id) { OnTimer(id); })) {
      ui::MessageBox("SetTimer failed", "Error", ui::kMbOk | ui::kMbIconStop);
      break;
    }
    timersStarted[TickId(t.tick)] = true;
  }
  return true;
}

void CTavroTestDlgBase::OnTimer(unsigned id) {
  if (suspended) return;  // the timers go on firing and do nothing

  bool tickPages = true;
  if (id == PollTimer()) {
    if (connected) {
      bool wantCapture = false;
      for (auto& page : pages) {
        if (page && page->WantsCaptureData()) wantCapture = true;
      }
      if (!controller->PollStatus(status, wantCapture ? 1 : 0, 1)) {
        // No page is told; they keep their last values, and the stale record stays.
        connected = false;
        SetTitleSuffix(kDisconnected);
        ShowBoard(false);
        Mark(recorder::EventKind::kLinkLost);
      } else {
        lastRead = std::chrono::system_clock::now();
        MarkStatusEdges();
      }
    }
  } else if (id == TickId(Tick::k1s)) {
    if (!connected) Reconnect();
    // The report viewer shows travels in mm by the scale of the machine connected now.
    if (const motion::StagePage* stage = StageTests()) {
      for (unsigned axis = 0; axis < RecorderApi::kScaledAxes; ++axis)
        api->SetCountsPerMm(axis, stage->CountsPerMm(axis));
    }
  } else if (PeriodMs(id) == 0) {
    tickPages = false;
  }

  if (connected && tickPages) {
    // The values the pages record in this tick belong to it.
    recording->BeginTick(PeriodMs(id), runTime.Now());
    for (auto& page : pages) {
      if (page) page->UpdatePage(id, status);
    }
  }
  if (pages[0]) RunBanner();
  WatchRunningTest(id);
}

// Reports go to the program's folder. One that other users may write lets them replace or delete
// reports (what TavroTest itself writes there is safe: it only ever creates new files).
void CTavroTestDlgBase::WarnOfOpenReportFolder() {
  const std::string folder = platform::ProgramFolder();
  struct stat st {};
  if (::stat(folder.c_str(), &st) != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) == 0) return;
  window.ShowBoxAsync("Other users can write to the folder that test reports go to:\r\n" + folder +
                          "\r\n\r\nThey can replace or delete the reports there. Let only "
                          "its owner write to it (chmod go-w).",
                      "TavroTest", ui::kMbOk, {});
}

motion::StagePage* CTavroTestDlgBase::StageTests() const {
  return dynamic_cast<motion::StagePage*>(pages[1].get());
}

void CTavroTestDlgBase::WatchRunningTest(unsigned timerId) {
  motion::StagePage* stage = StageTests();
  if (!stage) return;
  if (timerId == TickId(Tick::k200ms)) window.SetStopControl(motion::RunningTestName(*stage));
  // A ramp, seek or centering must not go on unwatched: its boxes wait for the next browser,
  // but the drive ends once no browser has been attached for a second (the last tab closed), or
  // none has shown a sign of life for two (a tab that hangs keeps its connection). Checked on
  // every tick, so within 20 ms of either; a run that begins meanwhile stops at its first look.
  const std::uint8_t unwatched =
      window.NoBrowserFor() < kNoBrowserLimit && window.NoSignOfLifeFor() < kNoSignOfLifeLimit ? 0
                                                                                               : 1;
  if (stage->Unwatched != unwatched) stage->Unwatched = unwatched;
  // Its operator's tab has gone, though others may still watch: a drive ends as on STOP (the
  // watchers' signs of life do not stand in for the operator's), and control returns to nobody,
  // so that whoever is there answers what the test still asks. A test that holds no axis waits,
  // as it does for the next browser.
  if (window.DropLostHolder(kNoBrowserLimit, kNoSignOfLifeLimit) &&
      stage->HeldAxis != motion::kNoAxis) {
    stage->StopRequested = 1;
  }
}

// The link, as the dialog sees it: connected (" : Connected", polls, pages ticked) or
// disconnected (" : Disconnected", no poll, no page ticks, a reopen once a second). A failed poll
// leads from the first to the second; a reopen of the same kind of machine leads back.
void CTavroTestDlgBase::Reconnect() {
  if (controller->IsOpen()) return;
  bool ok = false;
  // Silently: the dialogs of a failed transfer belong to start-up only.
  if (controller->Open(false, false) == 0) {
    BoardVersionInfo fresh;
    if (controller->ReadBoardVersion(fresh) && IsSameMachine(fresh)) {
      versionInfo = fresh;
      ok = true;
    }
  }
  if (ok) {
    connected = true;
    SetTitleSuffix(kConnected);
    ShowBoard(true);
    Mark(recorder::EventKind::kLinkBack);
    for (auto& page : pages) {
      if (page) page->ResetPage(versionInfo);
    }
  } else if (controller->IsOpen()) {
    controller->Close();  // another machine, or half a start: the next attempt starts clean
  }
}

// The banner's state machine (Banner): down -> up when the application is seen, up -> fading when
// it is missed once, fading -> down when it is missed again.
void CTavroTestDlgBase::RunBanner() {
  const bool running = pages[0]->UpdateWarning(warningState);
  for (int tab = 1; tab < kMaxPages; ++tab) {
    if (pages[tab]) pages[tab]->ShowWarning(running, warningState);
  }
  if (warningState == Banner::kDown && running) {
    warningState = Banner::kUp;
  } else if (warningState == Banner::kUp && !running) {
    warningState = Banner::kFading;
  } else if (warningState == Banner::kFading && !running) {
    warningState = Banner::kDown;
  }
}

void CTavroTestDlgBase::Mark(recorder::EventKind kind, std::string_view text) {
  recording->Mark(kind, runTime.Now(), text);
}

// E-stop on and off, and the board going to sleep, as the poll finds them.
void CTavroTestDlgBase::MarkStatusEdges() {
  if (status.EStop != markedEStop) {
    markedEStop = status.EStop;
    Mark(markedEStop ? recorder::EventKind::kEStopOn : recorder::EventKind::kEStopOff);
  }
  if (status.Sleep != markedSleep) {
    markedSleep = status.Sleep;
    if (markedSleep) Mark(recorder::EventKind::kSleep);
  }
}

bool CTavroTestDlgBase::OnPowerBroadcast(unsigned event) {
  if (controller->IsOpen()) {
    if (event == kPowerSuspend) suspended = true;
    if (event == kPowerResume) suspended = false;
  }
  return true;
}

void CTavroTestDlgBase::OnSysCommand(unsigned id) {
  if ((id & 0xFFF0) == kSysCommandAbout) CAboutDlg(window).DoModal();
}

void CTavroTestDlgBase::OnDestroy() {
  // Last started, first killed.
  for (auto t = std::rbegin(kTickPeriods); t != std::rend(kTickPeriods); ++t) {
    const unsigned id = TickId(t->tick);
    if (timersStarted[id]) loop.KillTimer(id);
    timersStarted[id] = false;
  }
  window.SetCloseHandler(nullptr);
  window.SetStopHandler(nullptr);
  window.SetRunningTestQuery(nullptr);
  window.SetStopControl("");
}

void CTavroTestDlgBase::OnCloseChosen() {
  motion::StagePage* stage = StageTests();
  const std::string test = stage ? motion::RunningTestName(*stage) : "";
  if (test.empty()) {
    window.NoteEnding("closed");
    loop.Quit(ui::kIdCancel);
    return;
  }
  if (closeAsked) return;  // one question at a time, whoever clicks Close again
  closeAsked = true;
  window.AskAsync("The " + test + " is running.\r\n\r\nStop it and close TavroTest?",
                  "Close TavroTest", [this, alive = std::weak_ptr<bool>(lifetime)](int answer) {
                    // A browser may answer after the run ended and the dialog went.
                    if (alive.expired()) return;
                    closeAsked = false;
                    if (answer != ui::kIdYes) return;
                    window.NoteEnding("closed");
                    loop.Quit(ui::kIdCancel);
                  });
}

// The shell's word on the board: "live", or "lost <ms>" with the time of the last good read
// (milliseconds since the epoch) that the pages' values come from. Each time the link comes up,
// the board is asked once who it is, so a simulated board is marked on every tab.
void CTavroTestDlgBase::ShowBoard(bool live) {
  const auto readMs =
      std::chrono::duration_cast<std::chrono::milliseconds>(lastRead.time_since_epoch()).count();
  window.Shell().SetText("board-link", live ? "live" : "lost " + std::to_string(readMs));
  if (!live) return;
  lastRead = std::chrono::system_clock::now();
  std::string description;
  window.Shell().SetText("board-describe", controller->Describe(description) ? description : "");
}

void CTavroTestDlgBase::SetTitleSuffix(const char* suffix) {
  window.SetTitle(baseTitle + suffix);
}

CTavroTestDlg::CTavroTestDlg(ui::Window& parent, platform::TaskLoop& uiLoop, CTavroUsbServo* link,
                             const BoardVersionInfo& record)
    : CTavroTestDlgBase(parent, uiLoop, link, record), servo(link) {}

bool CTavroTestDlg::IsSameMachine(const BoardVersionInfo& fresh) {
  // Open has learnt the kind again from the board's name.
  return fresh.isServo && servo->GetMachineKind() == machineKind;
}

std::vector<CTavroTestDlgBase::PageRow> CTavroTestDlg::MakePages() {
  machineKind = servo->GetMachineKind();
  std::vector<PageRow> rows;
  if (machineKind == MachineKind::AutoVision) {
    rows.push_back({"Board Information", Make<CTabBoardInformationDlg>(servo, versionInfo)});
    rows.push_back({"Stage", std::make_unique<CTabStageDlg>(window, servo, versionInfo)});
    rows.push_back({"Pendant", Make<CTabPendantDlg>(servo, versionInfo)});
    rows.push_back({"Lights", Make<CTabLightsDlg>(servo, versionInfo)});
    rows.push_back({"Readings", Make<CTabReadingsDlg>(servo, versionInfo)});
    rows.push_back({"Probes", Make<CTabProbesDlg>(servo, versionInfo)});
    rows.push_back({"Diag Output", Make<CTabUsbSerialDlg>(servo, versionInfo)});
  } else if (machineKind == MachineKind::Servo) {
    rows.push_back({"Board Information", Make<CTabV1BoardInformationDlg>(servo, versionInfo)});
    rows.push_back({"Stage", std::make_unique<CTabV1StageDlg>(window, servo, versionInfo)});
    rows.push_back({"Pendant", Make<CTabV1PendantDlg>(servo, versionInfo)});
    rows.push_back({"Lights", Make<CTabV1LightsDlg>(servo, versionInfo)});
    rows.push_back({"Probes", Make<CTabProbesDlg>(servo, versionInfo)});
    rows.push_back({"Diag Output", Make<CTabUsbSerialDlg>(servo, versionInfo)});
  }
  return rows;
}

CTavroTestManualVisionDlg::CTavroTestManualVisionDlg(ui::Window& parent, platform::TaskLoop& uiLoop,
                                                     CTavroUsbManualVision* link,
                                                     const BoardVersionInfo& record)
    : CTavroTestDlgBase(parent, uiLoop, link, record), manual(link) {}

bool CTavroTestManualVisionDlg::IsSameMachine(const BoardVersionInfo& fresh) {
  return !fresh.isServo && fresh.isManualVision;
}

std::vector<CTavroTestDlgBase::PageRow> CTavroTestManualVisionDlg::MakePages() {
  std::vector<PageRow> rows;
  rows.push_back(
      {"Board Information", Make<CTabManualVisionBoardInformationDlg>(manual, versionInfo)});
  rows.push_back({"Stage", Make<CTabManualVisionStageDlg>(manual, versionInfo)});
  rows.push_back({"Lights", Make<CTabManualVisionLightsDlg>(manual, versionInfo)});
  rows.push_back({"Readings", Make<CTabManualVisionReadingsDlg>(manual, versionInfo)});
  rows.push_back({"Probes", Make<CTabManualVisionProbesDlg>(manual, versionInfo)});
  rows.push_back({"Diag Output", Make<CTabManualVisionUsbSerialDlg>(manual, versionInfo)});
  return rows;
}

void CAboutDlg::DoModal() {
  window_.ShowBoxAsync(ui::AboutText(), "About TavroTest", ui::kMbOk, {});
}
