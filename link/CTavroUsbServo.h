// The controller of a servo machine: the current auto-vision boards (machineKind 2) and the
// first generation (machineKind 1). Built by copy from the CTavroUsb that proved the link, so it
// shares the channel and starts with copies of both records.
#pragma once

#include <cstdint>

#include "link/CTavroUsb.h"

class CTavroUsbServo : public CTavroUsb {
 public:
  // Checks the firmware again (closing the channel if it is refused) and learns the kind of
  // machine; a closed object results when the link was or became closed.
  explicit CTavroUsbServo(const CTavroUsb& link);

  // The base open; on 0 the machine's kind and data are learnt again.
  int Open(bool showErrors, bool skipVersion) override;

  // 0 unknown, 1 Servo (first generation), 2 Auto Vision.
  std::uint32_t MachineKind() const { return machineKind; }
  const EepromInfo& WEepromInformation() const { return WEepromInfo; }

 private:
  // Sets machineKind from the firmware name; another name leaves it as it was, so a reconnection
  // to a board with an unknown name keeps the kind learnt before.
  void LearnMachineKind();

  std::uint32_t machineKind = 0;
  EepromInfo WEepromInfo;
};
