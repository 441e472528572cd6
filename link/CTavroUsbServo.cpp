#include "link/CTavroUsbServo.h"

#include "util/Text.h"

CTavroUsbServo::CTavroUsbServo(const CTavroUsb& link) : CTavroUsb(link) {
  machineKind = 0;
  if (IsOpen() && !CheckFirmware(true)) Close();
  WEepromInfo = EepromInfo{};
  if (!IsOpen()) return;
  LearnMachineKind();
}

int CTavroUsbServo::Open(bool showErrors, bool skipVersion) {
  const int result = CTavroUsb::Open(showErrors, skipVersion);
  if (result != 0) return result;
  LearnMachineKind();
  return 0;
}

void CTavroUsbServo::LearnMachineKind() {
  if (text::EqualsNoCase(versionInfo.firmwareName, "Auto Vision")) {
    machineKind = 2;
  } else if (text::EqualsNoCase(versionInfo.firmwareName, "Servo")) {
    machineKind = 1;
  }
}
