#include "link/CTavroUsbManualVision.h"

CTavroUsbManualVision::CTavroUsbManualVision(const CTavroUsb& link)
    : CTavroUsbController(link, Dialect::ManualVision),
      WAxisBridge(static_cast<CTavroUsbController&>(*this)) {
  if (IsOpen()) WAxisBridge::GetEepromInfo(WEepromInfo);
}

int CTavroUsbManualVision::Open(bool showErrors, bool skipVersion) {
  const int result = CTavroUsb::Open(showErrors, skipVersion);
  if (result != 0) return result;
  WAxisBridge::GetEepromInfo(WEepromInfo);
  return 0;
}
