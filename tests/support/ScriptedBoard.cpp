#include "tests/support/ScriptedBoard.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/Clock.h"
#include "platform/DeviceIo.h"

namespace testing_support {

namespace {

void PutU32(std::uint8_t* p, std::uint32_t v) {
  std::memcpy(p, &v, 4);
}
std::uint32_t GetU32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

}  // namespace

ScriptedBoard::ScriptedBoard(std::string path, std::uint32_t driverWord)
    : path_(std::move(path)), driverWord_(driverWord) {
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
  listener_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
  ::unlink(path_.c_str());
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(listener_, 8) != 0) {
    std::abort();
  }
  if (::pipe(stopFds_) != 0) std::abort();
  thread_ = platform::ParticipantThread([this] { Serve(); });
}

ScriptedBoard::~ScriptedBoard() {
  [[maybe_unused]] auto n = ::write(stopFds_[1], "x", 1);
  // Shutting the sockets down makes them readable, which wakes the board's thread at once.
  ::shutdown(listener_, SHUT_RDWR);
  {
    std::lock_guard lock(mutex_);
    if (connection_ >= 0) ::shutdown(connection_, SHUT_RDWR);
  }
  platform::Join(thread_);
  ::close(listener_);
  ::close(stopFds_[0]);
  ::close(stopFds_[1]);
  ::unlink(path_.c_str());
}

void ScriptedBoard::SetHandler(Handler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

std::vector<BoardRequest> ScriptedBoard::Requests() {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<BoardRequest> ScriptedBoard::Commands() {
  std::vector<BoardRequest> out;
  for (auto& r : Requests()) {
    if (r.code != platform::kLinkOpenedCode) out.push_back(r);
  }
  return out;
}

void ScriptedBoard::ClearRequests() {
  std::lock_guard lock(mutex_);
  requests_.clear();
}

// One connection at a time is enough for the channel's tests; the stop pipe ends everything.
void ScriptedBoard::Serve() {
  platform::Clock& clock = platform::Clock::Current();
  for (;;) {
    // The destructor shuts the listener down, which wakes this wait; the stop pipe says why.
    clock.WaitReadable(listener_, platform::kNever);
    pollfd stop{stopFds_[0], POLLIN, 0};
    if (::poll(&stop, 1, 0) > 0) return;
    pollfd l{listener_, POLLIN, 0};
    if (::poll(&l, 1, 0) <= 0) continue;
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    {
      std::lock_guard lock(mutex_);
      connection_ = fd;
    }
    const bool stopped = !ServeConnection(fd);
    {
      std::lock_guard lock(mutex_);
      connection_ = -1;
    }
    ::close(fd);
    if (stopped) return;
  }
}

bool ScriptedBoard::ServeConnection(int fd) {
  platform::Clock& clock = platform::Clock::Current();
  std::uint8_t buf[platform::kHeaderBytes + platform::kMaxTransferBytes + 64];
  for (;;) {
    clock.WaitReadable(fd, platform::kNever);
    pollfd stop{stopFds_[0], POLLIN, 0};
    if (::poll(&stop, 1, 0) > 0) return false;
    const ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n == 0) return true;
    if (n < 0) {
      if (errno == EAGAIN || errno == EINTR) continue;
      return true;
    }
    if (n < 12) continue;
    BoardRequest request;
    const std::uint32_t tag = GetU32(buf);
    request.code = GetU32(buf + 4);
    request.replyLength = GetU32(buf + 8);
    request.bytes.assign(buf + 12, buf + n);
    Handler handler;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(request);
      handler = handler_;
    }
    BoardAnswer answer;
    if (request.code == platform::kLinkOpenedCode) {
      answer.count = driverWord_;
    } else if (handler) {
      answer = handler(request);
    } else {
      answer.bytes.assign(request.replyLength, 0);
    }
    if (answer.hangUp) return true;
    if (answer.noReply) continue;
    std::vector<std::uint8_t> out(12 + answer.bytes.size());
    PutU32(out.data(), tag);
    PutU32(out.data() + 4, answer.status);
    PutU32(out.data() + 8,
           answer.count != ~0u ? answer.count : static_cast<std::uint32_t>(answer.bytes.size()));
    if (!answer.bytes.empty())
      std::memcpy(out.data() + 12, answer.bytes.data(), answer.bytes.size());
    ::send(fd, out.data(), out.size(), MSG_NOSIGNAL);
  }
}

}  // namespace testing_support
