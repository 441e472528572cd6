// The application object. The program's whole life runs inside InitInstance: open the board,
// read its version twice, pick the controller and main dialog by the kind of machine, run the
// dialog, and tear everything down in reverse order. InitInstance always returns false, so no
// message loop of the application's own ever runs, and the process result is the same for every
// way of ending.
#pragma once

#include <functional>
#include <memory>

#include "link/BoardRecords.h"

class CTavroUsbServo;
class CTavroUsbManualVision;
class CTavroTestDlgBase;

namespace platform {
class TaskLoop;
}
namespace ui {
class Window;
class HttpApi;
}  // namespace ui

// What the framework gives the application: the UI thread's loop and the window the browsers
// show, both made before InitInstance so that a start-up failure's box reaches a browser.
// `mainWindow` is the running main dialog (UI thread only), for the system's broadcasts.
// `serveRoutes`, when set, hands the running main dialog's routes (the recorder's, the report
// viewer's) to the web server, and null when the dialog ends.
struct AppFrame {
  platform::TaskLoop& loop;
  ui::Window& window;
  CTavroTestDlgBase* mainWindow = nullptr;
  std::function<void(std::shared_ptr<ui::HttpApi>)> serveRoutes;
};

class CTavroTestApp {
 public:
  // Without a frame the dialogs cannot run: InitInstance ends after the machine selection.
  explicit CTavroTestApp(AppFrame* frame = nullptr) : frame_(frame) {}
  virtual ~CTavroTestApp() = default;

  bool InitInstance();

 protected:
  // The modal runs of the two main dialogs; each returns when its dialog ends.
  virtual void RunServoDialog(CTavroUsbServo& servo, const BoardVersionInfo& versionInfo);
  virtual void RunManualVisionDialog(CTavroUsbManualVision& manual,
                                     const BoardVersionInfo& versionInfo);

 private:
  template <class Dialog, class Controller>
  void RunDialog(Controller& controller, const BoardVersionInfo& versionInfo);

  AppFrame* frame_;
};
