// The application object. The program's whole life runs inside InitInstance: open the board,
// read its version twice, pick the controller and main dialog by the kind of machine, run the
// dialog, and tear everything down in reverse order. InitInstance always returns false, so no
// message loop of the application's own ever runs, and the process result is the same for every
// way of ending.
#pragma once

#include "link/BoardRecords.h"

class CTavroUsbServo;
class CTavroUsbManualVision;

class CTavroTestApp {
 public:
  virtual ~CTavroTestApp() = default;

  bool InitInstance();

 protected:
  // The modal runs of the two main dialogs; each returns when its dialog ends.
  virtual void RunServoDialog(CTavroUsbServo& servo, const BoardVersionInfo& versionInfo);
  virtual void RunManualVisionDialog(CTavroUsbManualVision& manual,
                                     const BoardVersionInfo& versionInfo);
};
