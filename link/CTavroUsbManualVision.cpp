#include "link/CTavroUsbManualVision.h"

CTavroUsbManualVision::CTavroUsbManualVision(const CTavroUsb& link) : CTavroUsb(link) {
  if (IsOpen() && !CheckFirmware(true)) Close();
  WEepromInfo = EepromInfo{};
}

int CTavroUsbManualVision::Open(bool showErrors, bool skipVersion) {
  return CTavroUsb::Open(showErrors, skipVersion);
}
