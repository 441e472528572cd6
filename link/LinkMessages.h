// The link's messages. Each text is looked up in the string table by id first and falls back to
// its literal when the table has none.
#pragma once

#include <cstdint>
#include <string>

namespace usb {

std::string ErrorTitle();                                                                   // 19905
std::string GeneralUsbErrorText();                                                          // 19906
std::string CouldNotOpenText(std::uint32_t lastError);                                      // 19907
std::string FailedText(const char* codeName, char command, const std::string& systemText);  // 19908
std::string ReturnedCodeText(const char* codeName, char command, int reason);               // 19909
std::string WrongSizeText(const char* codeName, char command, std::uint32_t wanted,
                          std::uint32_t received);  // 19910
std::string NoVersionInformationText();             // 19912
std::string FirmwareIncompatibleText();             // 19913

}  // namespace usb
