#include "app/CTavroTestApp.h"

#include <cstdio>

#include "link/CTavroUsb.h"
#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"

namespace {

// Until the main window exists, start-up says how far it got and ends there.
void ReportReached(const char* controller, const BoardVersionInfo& v) {
  std::printf(
      "TavroTest: board \"%s\" (firmware %.2f, protocol %u) opened with %s; the main "
      "window is not available in this build.\n",
      v.firmwareName.c_str(), static_cast<double>(v.firmwareVersion), v.protocolVersion,
      controller);
  std::fflush(stdout);
}

}  // namespace

void CTavroTestApp::RunServoDialog(CTavroUsbServo&, const BoardVersionInfo& versionInfo) {
  ReportReached("CTavroUsbServo", versionInfo);
}

void CTavroTestApp::RunManualVisionDialog(CTavroUsbManualVision&,
                                          const BoardVersionInfo& versionInfo) {
  ReportReached("CTavroUsbManualVision", versionInfo);
}

bool CTavroTestApp::InitInstance() {
  // The window system's control classes and control hosting need no set-up here: the window is
  // a local web page.
  CTavroUsb link;
  if (link.Open(true, false) != 0) return false;

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
