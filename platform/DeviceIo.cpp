#include "platform/DeviceIo.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

namespace platform {

namespace {

std::mutex g_dirMutex;
std::string g_dirOverride;

void PutU32(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v);
  p[1] = static_cast<std::uint8_t>(v >> 8);
  p[2] = static_cast<std::uint8_t>(v >> 16);
  p[3] = static_cast<std::uint8_t>(v >> 24);
}

std::uint32_t GetU32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16) |
         (std::uint32_t{p[3]} << 24);
}

std::uint32_t ErrnoToSystemError(int e) {
  switch (e) {
    case ENOENT:
    case ECONNREFUSED:
      return kErrFileNotFound;
    case EACCES:
    case EPERM:
      return kErrAccessDenied;
    default:
      return kErrGenFailure;
  }
}

// How long a transfer without an Overlapped waits for its reply before it gives up.
constexpr std::int64_t kSynchronousWaitMs = 5000;

}  // namespace

std::string DeviceDirectory() {
  {
    std::lock_guard lock(g_dirMutex);
    if (!g_dirOverride.empty()) return g_dirOverride;
  }
  const char* env = std::getenv("TAVRO_DEVICE_DIR");  // NOLINT(concurrency-mt-unsafe)
  return env && *env ? env : "/run/hnusb";
}

void SetDeviceDirectory(const std::string& dir) {
  std::lock_guard lock(g_dirMutex);
  g_dirOverride = dir;
}

namespace {

// Completes every transfer on the caller's thread, so an overlapped record is never left pending.
class InProcessTransport final : public Transport {
 public:
  explicit InProcessTransport(TransferHandler handler) : handler_(std::move(handler)) {}

  std::uint32_t IoControl(std::uint32_t code, const std::uint8_t* request,
                          std::uint32_t requestLength, std::uint8_t* reply,
                          std::uint32_t replyLength, std::uint32_t* bytesReturned,
                          Overlapped*) override {
    std::uint32_t bytes = 0;
    const std::uint32_t status =
        handler_(code, request, requestLength, reply, reply ? replyLength : 0, bytes);
    if (bytesReturned) *bytesReturned = bytes;
    return status;
  }
  void Cancel(Overlapped&) override {}
  std::uint32_t Result(Overlapped&, std::uint32_t& bytesReturned) override {
    bytesReturned = 0;
    return kErrSuccess;
  }

 private:
  TransferHandler handler_;
};

std::mutex endpointsMutex;
std::map<std::string, TransferHandler>& Endpoints() {
  static std::map<std::string, TransferHandler> endpoints;
  return endpoints;
}

const TransferHandler* FindEndpoint(const std::string& path) {
  std::lock_guard lock(endpointsMutex);
  const auto it = Endpoints().find(path);
  return it == Endpoints().end() ? nullptr : &it->second;
}

}  // namespace

void RegisterEndpoint(const std::string& path, TransferHandler handler) {
  std::lock_guard lock(endpointsMutex);
  Endpoints()[path] = std::move(handler);
}

void UnregisterEndpoint(const std::string& path) {
  std::lock_guard lock(endpointsMutex);
  Endpoints().erase(path);
}

std::unique_ptr<Transport> OpenTransport(const std::string& path, std::uint32_t& error) {
  if (const TransferHandler* handler = FindEndpoint(path)) {
    error = kErrSuccess;
    return std::make_unique<InProcessTransport>(*handler);
  }
  return Device::Open(path, error);
}

std::uint32_t EnumerateInterface(const char* interfaceClass, unsigned index, std::string& path) {
  std::string entry = DeviceDirectory() + "/" + interfaceClass + "/" + std::to_string(index);
  if (FindEndpoint(entry)) {
    path = std::move(entry);
    return kErrSuccess;
  }
  struct stat st {};
  if (::lstat(entry.c_str(), &st) != 0) return kErrNoMoreItems;
  if (!S_ISSOCK(st.st_mode)) return kErrGenFailure;
  path = std::move(entry);
  return kErrSuccess;
}

std::string DevicePathForName(const std::string& deviceName) {
  const auto slash = deviceName.find_last_of("\\/");
  const std::string leaf = slash == std::string::npos ? deviceName : deviceName.substr(slash + 1);
  return DeviceDirectory() + "/" + leaf;
}

std::unique_ptr<Device> Device::Open(const std::string& path, std::uint32_t& error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    error = kErrFileNotFound;
    return nullptr;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = ErrnoToSystemError(errno);
    return nullptr;
  }
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    error = ErrnoToSystemError(errno);
    ::close(fd);
    return nullptr;
  }
  error = kErrSuccess;
  return std::unique_ptr<Device>(new Device(fd));
}

Device::Device(int fd) : fd_(fd) {
  reader_ = ParticipantThread([this] { ReadReplies(); });
}

Device::~Device() {
  ::shutdown(fd_, SHUT_RDWR);
  Join(reader_);
  {
    std::lock_guard lock(mutex_);
    FailAllLocked(kErrInvalidHandle);
  }
  ::close(fd_);
}

void Device::CompleteLocked(Overlapped& ov, std::uint32_t status, std::uint32_t bytes) {
  ov.pending = false;
  ov.status = status;
  ov.bytes = bytes;
  for (auto& slot : pending_) {
    if (slot == &ov) slot = nullptr;
  }
  ov.event.Set();
}

void Device::FailAllLocked(std::uint32_t status) {
  for (Overlapped* ov : pending_) {
    if (ov) CompleteLocked(*ov, status, 0);
  }
}

Overlapped* Device::FindLocked(std::uint32_t tag) {
  for (Overlapped* ov : pending_) {
    if (ov && ov->tag == tag) return ov;
  }
  return nullptr;
}

void Device::ReadReplies() {
  Clock& clock = Clock::Current();
  std::uint8_t buffer[kHeaderBytes + kMaxTransferBytes + 64];
  for (;;) {
    if (clock.WaitReadable(fd_, kNever) < 0) break;
    const ssize_t n = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) break;  // end of stream or a socket error: the board is gone
    if (static_cast<std::size_t>(n) < kHeaderBytes) continue;  // not a reply; drop it
    const std::uint32_t tag = GetU32(buffer);
    const std::uint32_t status = GetU32(buffer + 4);
    const std::uint32_t claimed = GetU32(buffer + 8);
    const auto payload = static_cast<std::uint32_t>(n - kHeaderBytes);

    std::lock_guard lock(mutex_);
    Overlapped* found = FindLocked(tag);
    if (!found) continue;  // late reply to a cancelled transfer
    Overlapped& ov = *found;
    // The link-opened code returns the driver word as its count and carries no bytes. Otherwise
    // the count is what actually arrived: the header of an untrusted reply is not believed.
    const std::uint32_t bytes = ov.code == kLinkOpenedCode ? claimed : payload;
    if (ov.reply && payload > 0) {
      std::memcpy(ov.reply, buffer + kHeaderBytes,
                  payload < ov.replyCapacity ? payload : ov.replyCapacity);
    }
    CompleteLocked(ov, status, bytes);
  }
  std::lock_guard lock(mutex_);
  dead_ = true;
  FailAllLocked(kErrFileNotFound);
}

std::uint32_t Device::Send(std::uint32_t tag, std::uint32_t code, const std::uint8_t* request,
                           std::uint32_t requestLength, std::uint32_t replyLength) {
  std::uint8_t datagram[kHeaderBytes + kMaxTransferBytes];
  if (requestLength > kMaxTransferBytes) return kErrInvalidData;
  PutU32(datagram, tag);
  PutU32(datagram + 4, code);
  PutU32(datagram + 8, replyLength);
  if (requestLength > 0) std::memcpy(datagram + kHeaderBytes, request, requestLength);
  const ssize_t sent = ::send(fd_, datagram, kHeaderBytes + requestLength, MSG_NOSIGNAL);
  if (sent < 0)
    return errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN ? kErrInvalidHandle
                                                                      : ErrnoToSystemError(errno);
  return kErrSuccess;
}

std::uint32_t Device::IoControl(std::uint32_t code, const std::uint8_t* request,
                                std::uint32_t requestLength, std::uint8_t* reply,
                                std::uint32_t replyLength, std::uint32_t* bytesReturned,
                                Overlapped* ov) {
  if (!ov) {
    Overlapped local;
    std::uint32_t error =
        IoControl(code, request, requestLength, reply, replyLength, nullptr, &local);
    if (error == kErrIoPending) {
      if (!local.event.WaitUntil(Clock::Current().Deadline(Milliseconds(kSynchronousWaitMs)))) {
        Cancel(local);
        return kErrSemTimeout;
      }
      error = Result(local, *(bytesReturned ? bytesReturned : &local.bytes));
    }
    return error;
  }

  std::lock_guard lock(mutex_);
  if (dead_) return kErrInvalidHandle;
  if (ov->pending) return kErrGenFailure;  // one transfer per record, as with OVERLAPPED
  const std::uint32_t tag = nextTag_++;
  if (nextTag_ == 0) nextTag_ = 1;
  Overlapped** slot = nullptr;
  for (auto& entry : pending_) {
    if (!entry) {
      slot = &entry;
      break;
    }
  }
  if (!slot) return kErrGenFailure;
  *slot = ov;
  ov->event.Reset();
  ov->tag = tag;
  ov->code = code;
  ov->pending = true;
  ov->status = kErrSuccess;
  ov->bytes = 0;
  ov->reply = reply;
  ov->replyCapacity = reply ? replyLength : 0;
  const std::uint32_t error = Send(tag, code, request, requestLength, replyLength);
  if (error != kErrSuccess) {
    CompleteLocked(*ov, error, 0);
    return error;
  }
  return kErrIoPending;
}

void Device::Cancel(Overlapped& ov) {
  std::lock_guard lock(mutex_);
  if (ov.pending) CompleteLocked(ov, kErrOperationAborted, 0);
}

std::uint32_t Device::Result(Overlapped& ov, std::uint32_t& bytesReturned) {
  std::lock_guard lock(mutex_);
  if (ov.pending) return kErrIoIncomplete;
  bytesReturned = ov.bytes;
  return ov.status;
}

}  // namespace platform
