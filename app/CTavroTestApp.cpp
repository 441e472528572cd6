#include "app/CTavroTestApp.h"

#include "app/CTavroTestDlg.h"
#include "link/CTavroUsb.h"
#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"

template <class Dialog, class Controller>
void CTavroTestApp::RunDialog(Controller& controller, const BoardVersionInfo& versionInfo) {
  if (!frame_) return;
  Dialog dialog(frame_->window, frame_->loop, &controller, versionInfo);
  frame_->mainWindow = &dialog;
  if (frame_->serveRoutes) frame_->serveRoutes(dialog.Api());
  dialog.DoModal();  // its result is not looked at
  if (frame_->serveRoutes) frame_->serveRoutes(nullptr);
  frame_->mainWindow = nullptr;
}

void CTavroTestApp::RunServoDialog(CTavroUsbServo& servo, const BoardVersionInfo& versionInfo) {
  RunDialog<CTavroTestDlg>(servo, versionInfo);
}

void CTavroTestApp::RunManualVisionDialog(CTavroUsbManualVision& manual,
                                          const BoardVersionInfo& versionInfo) {
  RunDialog<CTavroTestManualVisionDlg>(manual, versionInfo);
}

bool CTavroTestApp::InitInstance() {
  // The window system's control classes and control hosting need no set-up here: the window is
  // a local web page.
  CTavroUsb link;
  if (const int opened = link.Open(true, false); opened != 0) {
    // The window's last word says which folder held no board.
    if (opened == 1 && frame_) frame_->window.NoteEnding("no-board");
    return false;
  }

  BoardVersionInfo versionInfo;
  if (!link.ReadBoardVersion(versionInfo)) return false;

  // From here on a failed transfer only logs; the main dialog sees it in its poll.
  link.SetReportErrors(false);

  // isServo is tested first: a board that sets both flags is a servo machine.
  if (versionInfo.isServo) {
    CTavroUsbServo servo(link);
    if (!servo.IsOpen()) return false;
    RunServoDialog(servo, versionInfo);
  } else if (versionInfo.isManualVision) {
    CTavroUsbManualVision manual(link);
    if (!manual.IsOpen()) return false;
    RunManualVisionDialog(manual, versionInfo);
  }
  return false;
}
