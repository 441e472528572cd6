// The controller of a manual-vision machine: positions, inputs, probes and lights, no motion
// tests. Built by copy from the CTavroUsb that proved the link.
#pragma once

#include "link/CTavroUsb.h"

class CTavroUsbManualVision : public CTavroUsb {
 public:
  // Checks the firmware again and closes the channel if it is refused.
  explicit CTavroUsbManualVision(const CTavroUsb& link);

  int Open(bool showErrors, bool skipVersion) override;

  const EepromInfo& WEepromInformation() const { return WEepromInfo; }

 private:
  EepromInfo WEepromInfo;
};
