// The base of every tab page. A page is a model: its fields hold what is to be shown, and one
// operation (UpdateData) copies all of them to the document's elements. The main dialog drives
// every page through WantsCaptureData, UpdatePage and ResetPage, and shows the warning banner
// through UpdateWarning and ShowWarning.
//
// CTabDlg (servo families) and CTabManualVisionDlg (manual vision) are the same text over their
// controller class; CTabPage is what the main dialog sees of either. Everything runs on the UI
// thread.
#pragma once

#include <cstdint>
#include <string>

#include "link/BoardRecords.h"
#include "link/ControllerRecords.h"
#include "pages/DataExchange.h"
#include "pages/PageRecording.h"
#include "ui/Window.h"

class CTavroUsbServo;
class CTavroUsbManualVision;

// The window class of the measuring application, whose presence raises the banner.
inline constexpr const char* kMeasuringAppWindowClass = "MiravaAppFrame";

// The banner that warns while the measuring application runs, as the main dialog keeps it (the
// same whether the link is up or not). A page raises it on the tick that leaves kDown and takes
// it down on the tick that leaves kFading, so a window that closes and reopens within two ticks
// keeps it up.
enum class Banner : std::uint32_t {
  kDown = 0,    // no banner; the application was not seen
  kUp = 1,      // up; the application was there on the last tick
  kFading = 2,  // up; the application was missing on the last tick (one more miss takes it down)
};

class CTabPage : public ui::HtmlPage {
 public:
  // `htmlId` names the page's document (PageDocumentPath). The dialog template a page names has
  // nothing to lay out here: the document is the whole page.
  CTabPage(std::uint32_t templateId, std::uint32_t htmlId, const BoardVersionInfo& version);

  // Asked before each poll: true asks the board to add its capture data to the status reply.
  virtual bool WantsCaptureData() { return false; }
  // Every tick of timers 1 to 4 while the link is up, on every page, shown or not.
  virtual void UpdatePage(std::uint32_t /*timerId*/, const ServoStatus& /*status*/) {}
  // Once after the window exists, and after each reconnection: read the static data again.
  virtual void ResetPage(const BoardVersionInfo& record) = 0;
  // Ends what the page runs on threads of its own, before anything of the page or its owner
  // goes: such a thread calls the page's virtual functions, which are not the page's any more
  // once its destructors have begun.
  virtual void EndThreads() {}

  // On page 0 only: looks for the measuring application and shows the banner by `state`.
  bool UpdateWarning(Banner state);
  // Raises the banner when the application runs and the banner is down; takes it down when it
  // does not and the banner is fading. Returns `running`. Other combinations touch nothing.
  bool ShowWarning(bool running, Banner state);

  // The update to the document: every bound field to its element.
  void UpdateData();

  // Once, after the first ResetPage: the page records into `recorder` from now on, under the
  // tab's title, and adds its channels (those of the machine it shows).
  void StartRecording(recorder::Recorder& recorder, const recorder::RunTime& time,
                      const std::string& title) {
    recording.Attach(&recorder, &time, title);
    AddChannels();
  }

  const BoardVersionInfo& VersionInfo() const { return versionInfo; }

  // The page's last reads worked. A page that gets a false result clears it and reads nothing
  // more until ResetPage sets it again.
  bool Connected = true;
  // Some browser shows the page (the show-window notice).
  bool PageReady = false;
  // Guards against an UpdatePage inside an UpdatePage.
  bool InTick = false;

 protected:
  // Lists the page's bindings; the base has none.
  virtual void DoDataExchange(DataExchange& /*dx*/) {}
  // Adds the channels the page records; the base records none.
  virtual void AddChannels() {}

  PageRecording recording;

  // Sets InTick for its life; `Entered()` is false when a tick was already under way, and the
  // guard then leaves the flag alone.
  class TickGuard {
   public:
    explicit TickGuard(CTabPage& page) : page_(page), entered_(!page.InTick) {
      page_.InTick = true;
    }
    ~TickGuard() {
      if (entered_) page_.InTick = false;
    }
    TickGuard(const TickGuard&) = delete;
    TickGuard& operator=(const TickGuard&) = delete;
    bool Entered() const { return entered_; }

   private:
    CTabPage& page_;
    bool entered_;
  };

  BoardVersionInfo versionInfo;

 private:
  // The framework runs one update when the document has loaded: that is how the values of the
  // first ResetPage reach it, since PageReady was clear then.
  void OnDocumentComplete() override { UpdateData(); }
  void OnShowWindow(bool shown) override { PageReady = shown; }
};

// The URL path of a page document by its resource id; empty for an id no page has.
std::string PageDocumentPath(std::uint32_t htmlId);

template <class Controller>
class CTabDlgOf : public CTabPage {
 public:
  CTabDlgOf(std::uint32_t templateId, std::uint32_t htmlId, Controller* owner,
            const BoardVersionInfo& version)
      : CTabPage(templateId, htmlId, version), controller(owner) {}

 protected:
  Controller* controller;  // not owned
};

class CTabDlg : public CTabDlgOf<CTavroUsbServo> {
 public:
  using CTabDlgOf::CTabDlgOf;
};

class CTabManualVisionDlg : public CTabDlgOf<CTavroUsbManualVision> {
 public:
  using CTabDlgOf::CTabDlgOf;
};
