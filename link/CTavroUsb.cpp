#include "link/CTavroUsb.h"

#include <algorithm>
#include <mutex>

#include "config/ErrorLog.h"
#include "link/Generations.h"
#include "link/LinkMessages.h"
#include "platform/Clock.h"
#include "ui/MessageBox.h"
#include "util/Text.h"

namespace {
// The link session the calling thread's transfers are held to (0: any); see HoldToSession.
thread_local std::uint32_t tHeldSession = 0;
}  // namespace

namespace usb {

namespace {

constexpr std::uint8_t kRefusal = 0x3F;  // '?': the board refused the command

// Waits until `a` or `b` (may be null) is signalled: 0 for `a`, 1 for `b`, -1 at the deadline.
int WaitForEither(platform::Event& a, platform::Event* b, platform::TimePoint deadline) {
  std::mutex m;
  std::unique_lock lock(m);
  int which = -1;
  platform::Clock::Current().WaitUntil(lock, deadline, [&] {
    if (a.IsSet())
      which = 0;
    else if (b && b->IsSet())
      which = 1;
    return which >= 0;
  });
  return which;
}

platform::TimePoint WaitDeadline(int ms) {
  return ms < 0 ? platform::kNever
                : platform::Clock::Current().Deadline(platform::Milliseconds(ms));
}

// "lpBytesReturned != nOutBufferSize (got wanted), lpBytesReturned = 01 02 ..." with at most
// `replyLength` and 128 bytes shown, an extra blank between groups of 16, and "  ..." when
// bytes were left out.
std::string WrongSizeDetail(const std::uint8_t* reply, std::uint32_t got, std::uint32_t wanted) {
  std::string detail = text::Format("lpBytesReturned != nOutBufferSize (%d %d), lpBytesReturned =",
                                    static_cast<int>(got), static_cast<int>(wanted));
  std::uint32_t shown = got < wanted ? got : wanted;
  if (shown > 128) shown = 128;
  for (std::uint32_t i = 0; i < shown; ++i) {
    if (i > 0 && i % 16 == 0) detail += ' ';
    detail += text::Format(" %.2X", reply[i]);
  }
  if (got > shown) detail += "  ...";
  return detail;
}

// The name an error carries in the log, and whether it is worth another attempt.
struct ErrorClass {
  const char* name;
  bool retried;
};

ErrorClass Classify(std::uint32_t error) {
  switch (error) {
    case platform::kErrInvalidData:
      return {nullptr, true};  // name: the detail text
    case platform::kErrCrc:
      return {"ERROR_CRC", true};
    case platform::kErrSemTimeout:
      return {"ERROR_SEM_TIMEOUT", true};
    case platform::kErrAlreadyExists:
      return {"ERROR_ALREADY_EXISTS", true};
    case platform::kErrFileNotFound:
      return {"ERROR_FILE_NOT_FOUND", false};
    case platform::kErrInvalidHandle:
      return {"ERROR_INVALID_HANDLE", false};
    case platform::kErrOperationAborted:
      return {"ERROR_OPERATION_ABORTED", false};
    default:
      return {"", false};
  }
}

void LogFailure(std::uint32_t code, int replyWait, int attempt, int attempts, std::uint32_t error,
                const std::string& name) {
  if (replyWait == -1) {
    ErrorLog("CTavroUsb.cpp", __LINE__)(
        "DeviceIoControl(0x%X,INF%.0d)[%d/%d]: USB Error %d - %s\r\n", code, 0, attempt + 1,
        attempts, static_cast<int>(error), name.c_str());
  } else {
    ErrorLog("CTavroUsb.cpp", __LINE__)("DeviceIoControl(0x%X,%d)[%d/%d]: USB Error %d - %s\r\n",
                                        code, replyWait, attempt + 1, attempts,
                                        static_cast<int>(error), name.c_str());
  }
}

// One attempt's call and wait. Returns the error and sets `cancelFailed` when a cancel did not
// complete within `cancelWait`.
std::uint32_t Attempt(platform::Transport* handle, std::uint32_t code, const std::uint8_t* request,
                      std::uint32_t requestLength, std::uint8_t* reply, std::uint32_t replyLength,
                      std::uint32_t& bytes, platform::Overlapped* overlapped,
                      platform::Event* cancelEvent, int cancelWait, int replyWait,
                      bool& cancelFailed) {
  if (!handle) return platform::kErrInvalidHandle;
  std::uint32_t error =
      handle->IoControl(code, request, requestLength, reply, replyLength, &bytes, overlapped);
  if (error != platform::kErrIoPending || !overlapped) return error;

  const int which = WaitForEither(overlapped->event, cancelEvent, WaitDeadline(replyWait));
  error = which == 0   ? platform::kErrSuccess
          : which == 1 ? platform::kErrCancelled
                       : platform::kErrIoPending;  // a time-out leaves "pending" as last error
  if (error != platform::kErrSuccess) {
    handle->Cancel(*overlapped);
    if (!overlapped->event.WaitUntil(WaitDeadline(cancelWait))) {
      ErrorLog("CTavroUsb.cpp", __LINE__)(
          "DeviceIoControl failed to Cancel I/O.  USB subsystem might be corrupted and require "
          "resetting.  Try unplugging USB cable or restarting the computer\r\n");
      cancelFailed = true;
    }
    return error;
  }
  return handle->Result(*overlapped, bytes);
}

}  // namespace

std::uint32_t DoDeviceIoControl(platform::Transport* handle, std::uint32_t code,
                                const std::uint8_t* request, std::uint32_t requestLength,
                                std::uint8_t* reply, std::uint32_t replyLength,
                                std::uint32_t* bytesReturned, platform::Overlapped* overlapped,
                                platform::Event* cancelEvent, bool exactSize, int cancelWait,
                                int replyWait, int attempts) {
  std::uint32_t error = platform::kErrSuccess;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    bool cancelFailed = false;
    std::uint32_t bytes = 0;
    if (bytesReturned) *bytesReturned = 0;
    error = Attempt(handle, code, request, requestLength, reply, replyLength, bytes, overlapped,
                    cancelEvent, cancelWait, replyWait, cancelFailed);
    if (bytesReturned) *bytesReturned = bytes;

    std::string detail;
    if (error == platform::kErrSuccess && reply && replyLength > 0) {
      if (bytes >= 1 && reply[0] == kRefusal) {
        error = platform::kErrInvalidData;
        detail = text::Format("NAK_PACKET (%d %d)", static_cast<int>(bytes), reply[0]);
      } else if (exactSize && bytes != replyLength) {
        error = platform::kErrInvalidData;
        detail = WrongSizeDetail(reply, bytes, replyLength);
      }
    }
    if (error == platform::kErrSuccess || error == platform::kErrCancelled) return error;

    const ErrorClass kind = Classify(error);
    const bool retry = kind.retried && attempt + 1 < attempts && !cancelFailed;
    if (!retry) {
      LogFailure(code, replyWait, attempt, attempts, error, kind.name ? kind.name : detail);
      return error;
    }
  }
  return error;
}

}  // namespace usb

// ---------------------------------------------------------------------------------------------
// The channel.

using CTavroUsbFileInfo = CTavroUsb::CTavroUsbFileInfo;

CTavroUsbFileInfo::CTavroUsbFileInfo() = default;

void CTavroUsb::HoldToSession(std::uint32_t session) {
  tHeldSession = session;
}

CTavroUsbFileInfo::~CTavroUsbFileInfo() {
  Close();
  for (auto& e : cancelEvents)
    e.reset();
}

bool CTavroUsbFileInfo::IsOpen() {
  return linkOpen.load();
}

void CTavroUsbFileInfo::SetReportErrors(bool report) {
  reportErrors = report;
}

void CTavroUsbFileInfo::CancelTransfers(bool all) {
  if (!cancelEvents[0]) return;
  for (int slot = all ? 0 : 3; slot < usb::kSlotCount; ++slot)
    cancelEvents[slot]->Set();
}

void CTavroUsbFileInfo::Close() {
  linkOpen = false;
  openFailed = false;
  CancelTransfers(true);
  // Passing through every lock waits until no transfer still uses the handle.
  for (auto& lock : locks) {
    lock.Enter();
    lock.Leave();
  }
  handleValid = false;
  device.reset();
  if (overlapped[0]) {
    for (auto& record : overlapped)
      record.reset();
  }
}

// Searches the two device interface classes, then the names, and keeps the first device that
// opens. `lastError` is the failure of the last attempt, for the message.
bool CTavroUsbFileInfo::FindDevice(std::uint32_t& lastError) {
  lastError = platform::kErrFileNotFound;
  for (const char* interfaceClass : {platform::kInterfaceClass1, platform::kInterfaceClass2}) {
    for (unsigned index = 0; index < 10; ++index) {
      std::string path;
      const std::uint32_t found = platform::EnumerateInterface(interfaceClass, index, path);
      if (found == platform::kErrNoMoreItems) break;
      if (found != platform::kErrSuccess) continue;
      device = platform::OpenTransport(path, lastError);
      if (device) return true;
    }
  }
  for (char letter : {'a', 'b'}) {
    for (unsigned digit = 0; digit < 10; ++digit) {
      const std::string name = text::Format("%s%c%u", usb::kDeviceBaseName, letter, digit);
      device = platform::OpenTransport(platform::DevicePathForName(name), lastError);
      if (device) return true;
    }
  }
  return false;
}

int CTavroUsbFileInfo::Open(bool showErrors) {
  if (openFailed && showErrors) return 3;
  if (linkOpen && handleValid) return 0;
  Close();

  std::uint32_t lastError = 0;
  if (!FindDevice(lastError)) {
    if (showErrors) {
      ui::MessageBox(usb::CouldNotOpenText(lastError), usb::ErrorTitle(), ui::kMbIconStop);
    }
    openFailed = true;
    return 1;
  }
  handleValid = true;
  for (auto& record : overlapped)
    record = std::make_unique<platform::Overlapped>();
  for (auto& event : cancelEvents) {
    if (event)
      event->Reset();
    else
      event = std::make_unique<platform::Event>(false);
  }
  // A new session before the link counts as open: a transfer that sees it open sees its session.
  ++session;
  if (session == 0) ++session;  // 0 means "no link"
  linkOpen = true;
  openFailed = false;

  WinX::CriticalSectionLock lock(locks[usb::kNormalSlot]);
  std::uint32_t word = 0;
  const std::uint32_t error =
      usb::DoDeviceIoControl(device.get(), usb::kLinkOpenedCode, nullptr, 0, nullptr, 0, &word,
                             nullptr, nullptr, true, usb::kCancelWaitMs, usb::kReplyWaitMs, 1);
  driverWord = error == platform::kErrSuccess ? word : 0;
  return 0;
}

bool CTavroUsbFileInfo::SendNormalCommand(const std::uint8_t* request, std::uint32_t requestLength,
                                          std::uint8_t* reply, std::uint32_t replyLength) {
  return Transfer(usb::kNormalSlot, usb::kSendNormalCommandCode,
                  "IOCTL_TAVROUSB_SEND_NORMAL_COMMAND", usb::kNormalCommandLimit, request,
                  requestLength, reply, replyLength);
}

bool CTavroUsbFileInfo::GetCapturePosition(const std::uint8_t* request, std::uint32_t requestLength,
                                           std::uint8_t* reply, std::uint32_t replyLength) {
  return Transfer(usb::kCaptureSlot, usb::kGetCapturePositionCode,
                  "IOCTL_TAVROUSB_GET_CAPTURE_POSITION", usb::kCapturePositionLimit, request,
                  requestLength, reply, replyLength);
}

std::string CTavroUsbFileInfo::Described() const {
  std::lock_guard lock(describedMutex);
  return described;
}

bool CTavroUsbFileInfo::Describe(std::string& out) {
  {
    std::lock_guard lock(describedMutex);
    described.clear();
  }
  if (!handleValid || !linkOpen) return false;
  std::uint8_t reply[usb::kDescribeLimit];
  std::uint32_t bytes = 0;
  std::uint32_t error;
  {
    WinX::CriticalSectionLock lock(locks[usb::kNormalSlot]);
    if (!linkOpen) return false;
    // One try, any length up to the buffer: an older driver's refusal is an answer, not a fault
    // of the link, so nothing here counts the link as lost.
    error = usb::DoDeviceIoControl(device.get(), usb::kDescribeCode, nullptr, 0, reply,
                                   usb::kDescribeLimit, &bytes, overlapped[usb::kNormalSlot].get(),
                                   nullptr, false, usb::kCancelWaitMs, usb::kDescribeWaitMs, 1);
  }
  if (error != platform::kErrSuccess || bytes == 0 || bytes > usb::kDescribeLimit) return false;
  // The text goes onto the window and into report files: printable ASCII only.
  const bool printable =
      std::all_of(reply, reply + bytes, [](std::uint8_t c) { return c >= 0x20 && c < 0x7F; });
  if (!printable) return false;
  out.assign(reinterpret_cast<const char*>(reply), bytes);
  std::lock_guard lock(describedMutex);
  described = out;
  return true;
}

bool CTavroUsbFileInfo::Transfer(int slot, std::uint32_t code, const char* codeName,
                                 std::uint32_t limit, const std::uint8_t* request,
                                 std::uint32_t requestLength, std::uint8_t* reply,
                                 std::uint32_t replyLength) {
  if (!handleValid || !linkOpen) return false;
  if (requestLength > limit || replyLength > limit) return false;

  std::uint32_t error;
  std::uint32_t bytes = 0;
  {
    WinX::CriticalSectionLock lock(locks[slot]);
    if (!linkOpen) return false;
    // An open counts the session up before the link counts as open again, so a transfer that
    // finds the link open finds the session it goes out in.
    if (tHeldSession != 0 && tHeldSession != session) return false;
    error = usb::DoDeviceIoControl(device.get(), code, request, requestLength,
                                   replyLength ? reply : nullptr, replyLength, &bytes,
                                   overlapped[slot].get(), nullptr, true, usb::kCancelWaitMs,
                                   usb::kReplyWaitMs, usb::kAttempts);
  }
  if (error == platform::kErrCancelled) return false;
  if (error == platform::kErrSuccess) return true;
  linkOpen = false;  // the moment the connection counts as lost
  // A motion test waiting out a pass ends its drive now rather than at the pass's end.
  platform::Clock::Current().NotifyAll();
  if (!reportErrors) return false;

  // The dialog is formed and shown outside the lock, so other threads' transfers go on.
  const char command = requestLength > 0 ? static_cast<char>(request[0]) : '\0';
  std::string message;
  if (error == platform::kErrInvalidData && replyLength > 0 && bytes >= 1 && reply[0] == 0x3F) {
    const int reason = replyLength >= 2 ? static_cast<std::int8_t>(reply[1]) : 0;
    message = usb::ReturnedCodeText(codeName, command, reason);
  } else if (error == platform::kErrInvalidData && replyLength > 0 && bytes != replyLength) {
    message = usb::WrongSizeText(codeName, command, replyLength, bytes);
  } else {
    message = usb::FailedText(codeName, command, usb::SystemErrorText(error));
  }
  ui::MessageBox(message, usb::ErrorTitle(), ui::kMbIconStop);
  return false;
}

// ---------------------------------------------------------------------------------------------
// CTavroUsb: the parts that concern the channel. The base commands are in BaseCommands.cpp.

CTavroUsb::CTavroUsb() : channel(new CTavroUsbFileInfo()) {}

CTavroUsb::CTavroUsb(const CTavroUsb& other)
    : versionInfo(other.versionInfo), eepromInfo(other.eepromInfo), channel(other.channel) {}

// Members go in reverse order: the channel reference first, then the mutex handle.
CTavroUsb::~CTavroUsb() = default;

bool CTavroUsb::IsOpen() {
  return channel && channel.get()->IsOpen();
}

bool CTavroUsb::Close() {
  if (!channel) return false;
  channel->Close();
  return true;
}

void CTavroUsb::SetReportErrors(bool report) {
  if (channel) channel->SetReportErrors(report);
}

void CTavroUsb::CancelTransfers(bool all) {
  if (channel) channel->CancelTransfers(all);
}

int CTavroUsb::Open(bool showErrors, bool skipVersion) {
  if (!channel) return 3;
  const int opened = channel->Open(showErrors);
  if (opened != 0) return opened;
  if (skipVersion) return 0;
  // A failed version or EEPROM query: one message for both, and the channel closes again.
  const auto noVersion = [&] {
    if (showErrors) {
      ui::MessageBox(usb::NoVersionInformationText(), usb::ErrorTitle(), ui::kMbIconStop);
    }
    channel->Close();
    return 2;
  };
  if (!ReadBoardVersion(versionInfo)) return noVersion();
  if (!CheckFirmware(showErrors)) {
    channel->Close();
    return 4;
  }
  if (!ReadEepromInfo(eepromInfo)) return noVersion();
  return 0;
}

bool CTavroUsb::SendNormalCommand(const std::uint8_t* request, std::uint32_t requestLength,
                                  std::uint8_t* reply, std::uint32_t replyLength) {
  return channel && channel.get()->SendNormalCommand(request, requestLength, reply, replyLength);
}

bool CTavroUsb::GetCapturePosition(const std::uint8_t* request, std::uint32_t requestLength,
                                   std::uint8_t* reply, std::uint32_t replyLength) {
  return channel && channel.get()->GetCapturePosition(request, requestLength, reply, replyLength);
}

bool CTavroUsb::Describe(std::string& out) {
  return channel && channel.get()->Describe(out);
}

bool CTavroUsb::CheckFirmware(bool showErrors) {
  if (generation::ProtocolSupported(versionInfo)) return true;
  if (showErrors) ReportFirmwareIncompatible();
  return false;
}

void CTavroUsb::ReportFirmwareIncompatible() {
  ui::MessageBox(usb::FirmwareIncompatibleText(), usb::ErrorTitle(), ui::kMbIconStop);
}
