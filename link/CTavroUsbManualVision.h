// The controller of a manual-vision machine: positions, inputs, probes and lights, no motion
// tests. Built by copy from the CTavroUsb that proved the link. It is also the W axis
// (CTavroUsbWAxis); it has no platen, no axis tuning and no machine image.
#pragma once

#include "link/CTavroUsbController.h"
#include "link/ChannelCommands.h"

// The axis operations and the W interface share some names with different signatures on purpose;
// g++ takes the using-declarations below for hiding and warns, though every overload stays
// reachable.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
class CTavroUsbManualVision : public CTavroUsbController, public WAxisBridge {
 public:
  // Checks the firmware again (closing the channel if it is refused) and reads the W axis's
  // EEPROM description.
  explicit CTavroUsbManualVision(const CTavroUsb& link);

  // The base open; on 0 the W EEPROM description is read again.
  int Open(bool showErrors, bool skipVersion) override;

  // Names shared by an operation of the controller and of the W interface: both overloads stay
  // callable. ReadEeprom and ReadEepromBlock exist with one signature for the board and for the
  // W axis, so name the class (CTavroUsb or CTavroUsbWAxis) when calling them.
  using CTavroUsbController::GetIndexCapture;
  using CTavroUsbController::GetTemperature;
  using WAxisBridge::GetIndexCapture;
  using WAxisBridge::GetTemperature;
};
#pragma GCC diagnostic pop
