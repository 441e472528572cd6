#include "link/LinkMessages.h"

#include "link/CTavroUsb.h"
#include "util/StringTable.h"
#include "util/Text.h"

namespace usb {

std::string ErrorTitle() {
  return strings::LoadOr(19905, "Error");
}

std::string GeneralUsbErrorText() {
  return strings::LoadOr(19906,
                         "A USB Error has occurred.  Please make sure the machine is on and the "
                         "USB\ncable is secure.\n\nIt may be necessary to restart the machine "
                         "and/or this program.\n");
}

std::string CouldNotOpenText(std::uint32_t lastError) {
  return text::FormatRuntime(
      strings::LoadOr(19907, "%s\nError: Couldn't open %s, (%x)\r\n").c_str(),
      GeneralUsbErrorText().c_str(), kDeviceBaseName, lastError);
}

std::string FailedText(const char* codeName, char command, const std::string& systemText) {
  return text::FormatRuntime(strings::LoadOr(19908, "%s\nError: %s failed: %c, %s\r\n").c_str(),
                             GeneralUsbErrorText().c_str(), codeName, command, systemText.c_str());
}

std::string ReturnedCodeText(const char* codeName, char command, int reason) {
  return text::FormatRuntime(
      strings::LoadOr(19909, "%s\nError: %s returned code: %c, %d\r\n").c_str(),
      GeneralUsbErrorText().c_str(), codeName, command, reason);
}

std::string WrongSizeText(const char* codeName, char command, std::uint32_t wanted,
                          std::uint32_t received) {
  return text::FormatRuntime(
      strings::LoadOr(19910, "%s\nError: %s returned wrong size packet: %c, %d, %d\r\n").c_str(),
      GeneralUsbErrorText().c_str(), codeName, command, static_cast<int>(wanted),
      static_cast<int>(received));
}

std::string NoVersionInformationText() {
  return text::FormatRuntime(
      strings::LoadOr(19912,
                      "Error: Opened %s, but error getting version information.\r\nMachine "
                      "firmware may be incompatible.\r\n")
          .c_str(),
      kDeviceBaseName);
}

std::string FirmwareIncompatibleText() {
  return text::FormatRuntime(
      strings::LoadOr(19913,
                      "Error: Opened %s, but firmware version is incompatible with this "
                      "software.\r\nMachine firmware may be newer.\r\n")
          .c_str(),
      kDeviceBaseName);
}

// FormatMessage's texts for the codes the channel meets.
std::string SystemErrorText(std::uint32_t code) {
  switch (code) {
    case 2:
      return "The system cannot find the file specified.\r\n";
    case 5:
      return "Access is denied.\r\n";
    case 6:
      return "The handle is invalid.\r\n";
    case 13:
      return "The data is invalid.\r\n";
    case 23:
      return "Data error (cyclic redundancy check).\r\n";
    case 31:
      return "A device attached to the system is not functioning.\r\n";
    case 121:
      return "The semaphore timeout period has expired.\r\n";
    case 183:
      return "Cannot create a file when that file already exists.\r\n";
    case 995:
      return "The I/O operation has been aborted because of either a thread exit or an "
             "application request.\r\n";
    case 996:
      return "Overlapped I/O event is not in a signaled state.\r\n";
    case 997:
      return "Overlapped I/O operation is in progress.\r\n";
    case 1223:
      return "The operation was canceled by the user.\r\n";
    default:
      return "";
  }
}

}  // namespace usb
