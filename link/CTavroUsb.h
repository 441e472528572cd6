// The driver channel and the base controller: the only code that talks to the board's driver.
//
// The first CTavroUsb makes one counted channel (CTavroUsbFileInfo); every controller copied
// from it holds a reference to the same channel, so "open" is one fact for the whole process and
// the last reference to go closes the device. Transfers go through five fixed slots, each behind
// its own lock held for the whole transfer: slot 0 carries normal commands and the after-open
// code, slot 2 capture-position commands; slots 1, 3 and 4 take part only in Close and
// CancelTransfers.
//
// No operation throws for a device failure: a failed transfer is a false result, a log entry and
// a cleared `linkOpen`. Dialogs for failed transfers appear only while `reportErrors` is set,
// which start-up clears for good once the link is proved.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "link/BoardRecords.h"
#include "platform/DeviceIo.h"
#include "util/WinX.h"
#include "util/idioms.h"

namespace usb {

inline constexpr std::uint32_t kSendNormalCommandCode = 0x80002000;
inline constexpr std::uint32_t kGetCapturePositionCode = 0x80002008;
inline constexpr std::uint32_t kLinkOpenedCode = platform::kLinkOpenedCode;
// The driver's own question "who answers?": no request bytes, a text of at most kDescribeLimit
// bytes back. No board operation sends it; only the window's board identity asks.
inline constexpr std::uint32_t kDescribeCode = 0x80002018;
inline constexpr std::uint32_t kDescribeLimit = 128;
// How long the describe request waits for its answer: it runs on the UI thread.
inline constexpr int kDescribeWaitMs = 1000;
// Whether a description says the board is the simulator's ("simulated <profile>").
inline bool SaysSimulated(const std::string& description) {
  return description.rfind("simulated ", 0) == 0;
}

inline constexpr std::uint32_t kNormalCommandLimit = 300;
inline constexpr std::uint32_t kCapturePositionLimit = 1022;

inline constexpr int kSlotCount = 5;
inline constexpr int kNormalSlot = 0;
inline constexpr int kCaptureSlot = 2;

inline constexpr int kCancelWaitMs = 2000;
inline constexpr int kReplyWaitMs = 5000;
inline constexpr int kAttempts = 3;

// The base name of the device, as messages show it.
inline constexpr const char* kDeviceBaseName = "\\\\.\\HnUsb";

// The transfer routine: one control transfer with up to `attempts` tries. Returns a system error
// code, 0 for success. `overlapped` null makes the transfer synchronous (used only for the
// after-open code); `cancelEvent` null means nothing but the time limits ends a wait.
// `replyWait` of -1 waits without limit. A reply beginning with 0x3F (a refusal) and, with
// `exactSize`, a reply of another size than `replyLength` become error 13 and are retried.
std::uint32_t DoDeviceIoControl(platform::Transport* handle, std::uint32_t code,
                                const std::uint8_t* request, std::uint32_t requestLength,
                                std::uint8_t* reply, std::uint32_t replyLength,
                                std::uint32_t* bytesReturned, platform::Overlapped* overlapped,
                                platform::Event* cancelEvent, bool exactSize, int cancelWait,
                                int replyWait, int attempts);

// The system's text for an error code, as FormatMessage gives it ("" for codes it lacks).
std::string SystemErrorText(std::uint32_t code);

}  // namespace usb

class CTavroUsb {
 public:
  // The counted channel: device handle, flags, the five slots' locks, transfer records and
  // cancel events.
  class CTavroUsbFileInfo : public idioms::storage {
   public:
    CTavroUsbFileInfo();
    ~CTavroUsbFileInfo() override;

    virtual bool IsOpen();
    // 0 open; 1 no device could be opened; 3 a failed open is on record and `showErrors` is
    // set (a failure that was shown is not tried and shown again).
    virtual int Open(bool showErrors);
    virtual void Close();
    virtual void SetReportErrors(bool report);
    // Signals the cancel events: all five, or with `all` clear those of slots 3 and 4.
    virtual void CancelTransfers(bool all);

    // False at once without a device, with lengths over the limit, or when the transfer failed.
    // A `replyLength` of 0 expects no reply. Safe from any thread.
    bool SendNormalCommand(const std::uint8_t* request, std::uint32_t requestLength,
                           std::uint8_t* reply, std::uint32_t replyLength);
    bool GetCapturePosition(const std::uint8_t* request, std::uint32_t requestLength,
                            std::uint8_t* reply, std::uint32_t replyLength);

    // The driver's description of itself ("simulated servo"). False, with `out` untouched, when
    // there is no link, the driver does not know the request or its text is not plain printable
    // text of at most usb::kDescribeLimit bytes. Never changes the link's state or shows a box.
    bool Describe(std::string& out);
    // What the last Describe found ("" when it found nothing). Safe from any thread.
    std::string Described() const;

    std::uint32_t DriverWord() const { return driverWord.load(); }
    bool ReportErrors() const { return reportErrors.load(); }
    // 0 while the link is down; a new number each time an open brings it up.
    std::uint32_t Session() const { return linkOpen.load() ? session.load() : 0; }

   private:
    bool Transfer(int slot, std::uint32_t code, const char* codeName, std::uint32_t limit,
                  const std::uint8_t* request, std::uint32_t requestLength, std::uint8_t* reply,
                  std::uint32_t replyLength);
    bool FindDevice(std::uint32_t& lastError);

    std::atomic<std::uint32_t> driverWord{0};
    std::atomic<std::uint32_t> session{0};  // counts the opens; read with linkOpen
    std::atomic<bool> linkOpen{false};
    std::atomic<bool> openFailed{false};
    std::atomic<bool> reportErrors{true};
    std::atomic<bool> handleValid{false};
    std::unique_ptr<platform::Transport> device;
    WinX::CriticalSection locks[usb::kSlotCount];
    std::unique_ptr<platform::Overlapped> overlapped[usb::kSlotCount];
    std::unique_ptr<platform::Event> cancelEvents[usb::kSlotCount];
    mutable std::mutex describedMutex;
    std::string described;
  };

  // The system-wide mutex "CTavroUsb Access" that keeps other programs off the board during a
  // long read. Every object holds its own handle on it; the channel itself never takes it. The
  // measuring application runs as any user and must be kept off too, so it is open to every
  // user; its only taker here waits with a time limit.
  class CTavroUsbMutex : public WinX::Mutex {
   public:
    CTavroUsbMutex() : WinX::Mutex("CTavroUsb Access", true) {}
  };

  // Makes a new channel (closed) and zeroes both records.
  CTavroUsb();
  // Shares the channel, opens its own mutex handle and copies both records.
  CTavroUsb(const CTavroUsb& other);
  CTavroUsb& operator=(const CTavroUsb&) = delete;
  virtual ~CTavroUsb();

  virtual bool IsOpen();
  // 0 open (and, unless `skipVersion`, the records read and the firmware accepted); 1 no device;
  // 2 the version or EEPROM query failed; 3 no channel, or a shown failed open on record;
  // 4 the firmware was refused. On 2 and 4 the channel is closed again.
  virtual int Open(bool showErrors, bool skipVersion);
  virtual bool Close();
  virtual void SetReportErrors(bool report);
  virtual void CancelTransfers(bool all);
  // True when the firmware's protocol generation is one this program speaks
  // (generation::ProtocolSupported).
  virtual bool CheckFirmware(bool showErrors);
  virtual void ReportFirmwareIncompatible();

  bool SendNormalCommand(const std::uint8_t* request, std::uint32_t requestLength,
                         std::uint8_t* reply, std::uint32_t replyLength);
  bool GetCapturePosition(const std::uint8_t* request, std::uint32_t requestLength,
                          std::uint8_t* reply, std::uint32_t replyLength);

  // Base commands; each returns false when the transfer failed and then leaves `out` untouched.
  // Reads the version record. Into another record than the object's own, the four live fields
  // (laserType, laserNotReady, hasWAxis, platenFitted) are copied into the object's own as well.
  bool ReadBoardVersion(BoardVersionInfo& out);
  bool ReadEepromInfo(EepromInfo& out);
  bool ReadBoardIdentity(BoardIdentity& out);
  // The board's pending diagnostic output; empty when none, and always on boards without it
  // (generation::HasDiagText).
  bool ReadDiagText(std::string& out);
  // One read of at most `maxReadWrite` bytes; `status` is the board's (1: refused here).
  bool ReadEepromBlock(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                       std::uint8_t* destination, bool area);
  // A read split at page boundaries. Returns true with `status` 1 when the range passes the
  // machine area, and true at once on the first nonzero `status`: callers must test `status`.
  bool ReadEeprom(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                  std::uint8_t* destination, bool area);

  // The driver's description of itself (CTavroUsbFileInfo::Describe); no board command.
  bool Describe(std::string& out);
  std::string Described() const { return channel ? channel.get()->Described() : std::string(); }

  const BoardVersionInfo& VersionInfo() const { return versionInfo; }
  const EepromInfo& EepromInformation() const { return eepromInfo; }
  CTavroUsbMutex& AccessMutex() { return mutex; }
  // The driver's word from the last open (0 when that call failed or there is no channel).
  std::uint32_t DriverWord() const { return channel ? channel.get()->DriverWord() : 0; }
  // The link's session: 0 while it is down, a new number each time it comes back.
  std::uint32_t LinkSession() const { return channel ? channel.get()->Session() : 0; }
  // Holds the calling thread's transfers to the link session `session` (0: any session). While
  // held, a transfer in another session fails at once, without reaching the board: a motion test
  // holds its thread to the session in which it took an axis over, so that none of its writes
  // can reach a link that came back meanwhile (whose first write to the axis is the axis's own
  // record, made by the page).
  static void HoldToSession(std::uint32_t session);

 protected:
  CTavroUsbMutex mutex;
  BoardVersionInfo versionInfo;
  EepromInfo eepromInfo;
  idioms::ref<CTavroUsbFileInfo> channel;
};
