// The stand-in for the board's kernel driver: device discovery and control transfers.
//
// A board is reached through a device directory ($TAVRO_DEVICE_DIR, else /run/hnusb). Each entry
// there is a Unix-domain SOCK_SEQPACKET socket served by a board (the simulator, or a bridge to a
// real driver); opening the device is one connect, and the connected socket is the device handle.
// One datagram each way per transfer, every header field a little-endian u32:
//   request: tag, code, replyLength (bytes wanted, 0 for none), then the request bytes
//   reply:   tag (echoed), status (0 or a system error code), bytesReturned, then the bytes;
//            for kLinkOpenedCode, bytesReturned is the driver word and no bytes follow.
// The tag lets several transfers be in flight on one connection and lets a late reply to a
// cancelled transfer be dropped.
//
// Socket events become the system error codes the channel understands:
//   the peer hangs up while a transfer waits        -> kErrFileNotFound (2)
//   a transfer is started on a connection that died -> kErrInvalidHandle (6)
//   Cancel of a transfer under way                  -> it completes with kErrOperationAborted (995)
//   a transfer is under way                         -> kErrIoPending (997) from IoControl
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/Clock.h"

namespace platform {

// System error codes, by the names the channel logs.
inline constexpr std::uint32_t kErrSuccess = 0;
inline constexpr std::uint32_t kErrFileNotFound = 2;
inline constexpr std::uint32_t kErrAccessDenied = 5;
inline constexpr std::uint32_t kErrInvalidHandle = 6;
inline constexpr std::uint32_t kErrInvalidData = 13;
inline constexpr std::uint32_t kErrCrc = 23;
inline constexpr std::uint32_t kErrGenFailure = 31;
inline constexpr std::uint32_t kErrSemTimeout = 121;
inline constexpr std::uint32_t kErrAlreadyExists = 183;
inline constexpr std::uint32_t kErrNoMoreItems = 259;
inline constexpr std::uint32_t kErrOperationAborted = 995;
inline constexpr std::uint32_t kErrIoIncomplete = 996;
inline constexpr std::uint32_t kErrIoPending = 997;
inline constexpr std::uint32_t kErrCancelled = 1223;

inline constexpr std::uint32_t kLinkOpenedCode = 0x80002010;

// Largest request or reply body any control code carries.
inline constexpr std::uint32_t kMaxTransferBytes = 1022;
inline constexpr std::uint32_t kHeaderBytes = 12;

// The two device interface classes, tried in this order before any name.
inline constexpr const char* kInterfaceClass1 = "{9A231617-FEC3-48CF-816B-3AA928B12D1D}";
inline constexpr const char* kInterfaceClass2 = "{EEE31489-92D6-4E60-9809-CB54981F8CC5}";

// $TAVRO_DEVICE_DIR, else /run/hnusb; SetDeviceDirectory overrides both (tests).
std::string DeviceDirectory();
void SetDeviceDirectory(const std::string& dir);

// Enumerates interface `index` of interface class `interfaceClass` (one of the two above):
// kErrSuccess with the entry's path, kErrNoMoreItems when that index does not exist (the class
// has no more devices), another code when the entry exists but is unusable.
std::uint32_t EnumerateInterface(const char* interfaceClass, unsigned index, std::string& path);

// The entry for a device name such as "\\.\HnUsba0": the name's last component in the directory.
std::string DevicePathForName(const std::string& deviceName);

// The stand-in for OVERLAPPED: one asynchronous transfer at a time. `event` is signalled when no
// transfer is under way; it starts signalled, as the channel creates it.
struct Overlapped {
  Event event{true};

 private:
  friend class Device;
  std::uint32_t tag = 0;
  std::uint32_t code = 0;
  bool pending = false;
  std::uint32_t status = kErrSuccess;
  std::uint32_t bytes = 0;
  std::uint8_t* reply = nullptr;
  std::uint32_t replyCapacity = 0;
};

// An open device as the channel sees it: control transfers and nothing else. The socket device
// below is the real one; an in-process endpoint (fuzzing, benchmarks) is another.
class Transport {
 public:
  virtual ~Transport() = default;

  // DeviceIoControl. With `ov`: starts the transfer and returns kErrIoPending (ov->event is reset
  // and set again on completion), or completes it at once and returns its status with the count
  // in `bytesReturned`, or returns an error at once. Without `ov`: waits for the reply, for at
  // most the board's usual five seconds, and returns its status (kErrSemTimeout if none came).
  virtual std::uint32_t IoControl(std::uint32_t code, const std::uint8_t* request,
                                  std::uint32_t requestLength, std::uint8_t* reply,
                                  std::uint32_t replyLength, std::uint32_t* bytesReturned,
                                  Overlapped* ov) = 0;

  // CancelIo for one transfer: a transfer still under way completes now with
  // kErrOperationAborted, and its reply, if it ever comes, is dropped.
  virtual void Cancel(Overlapped& ov) = 0;

  // GetOverlappedResult without waiting: kErrIoIncomplete while under way, else the status.
  virtual std::uint32_t Result(Overlapped& ov, std::uint32_t& bytesReturned) = 0;
};

// An in-process board: answers each transfer at once, on the caller's thread. Returns the
// status and sets `bytesReturned` (at most `replyLength` bytes written to `reply`).
using TransferHandler = std::function<std::uint32_t(
    std::uint32_t code, const std::uint8_t* request, std::uint32_t requestLength,
    std::uint8_t* reply, std::uint32_t replyLength, std::uint32_t& bytesReturned)>;

// Serves `path` in this process: enumeration finds it and OpenTransport connects to it without
// a socket. Registering a path again replaces its handler; the handler must outlive every
// transport opened on it.
void RegisterEndpoint(const std::string& path, TransferHandler handler);
void UnregisterEndpoint(const std::string& path);

// Opens `path`: an in-process endpoint if one is registered there, else the socket. On failure
// returns null and sets `error` to a system error code.
std::unique_ptr<Transport> OpenTransport(const std::string& path, std::uint32_t& error);

// An open device. Its reader thread takes the replies off the socket and completes the transfer
// they belong to; it is a participant of the clock that was current when the device opened.
class Device final : public Transport {
 public:
  // connect()s to `path`. On failure returns null and sets `error` to a system error code.
  static std::unique_ptr<Device> Open(const std::string& path, std::uint32_t& error);
  ~Device() override;  // closes the connection; transfers under way complete kErrInvalidHandle
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  std::uint32_t IoControl(std::uint32_t code, const std::uint8_t* request,
                          std::uint32_t requestLength, std::uint8_t* reply,
                          std::uint32_t replyLength, std::uint32_t* bytesReturned,
                          Overlapped* ov) override;
  void Cancel(Overlapped& ov) override;
  std::uint32_t Result(Overlapped& ov, std::uint32_t& bytesReturned) override;

 private:
  explicit Device(int fd);
  void ReadReplies();
  void CompleteLocked(Overlapped& ov, std::uint32_t status, std::uint32_t bytes);
  void FailAllLocked(std::uint32_t status);
  Overlapped* FindLocked(std::uint32_t tag);
  std::uint32_t Send(std::uint32_t tag, std::uint32_t code, const std::uint8_t* request,
                     std::uint32_t requestLength, std::uint32_t replyLength);

  int fd_;
  std::mutex mutex_;
  // Transfers under way, found by tag. A fixed table: nothing is allocated per transfer.
  std::array<Overlapped*, 8> pending_{};
  std::uint32_t nextTag_ = 1;
  bool dead_ = false;  // the peer hung up or the socket failed
  std::thread reader_;
};

}  // namespace platform
