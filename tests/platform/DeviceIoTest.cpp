#include "platform/DeviceIo.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "tests/support/TempDirs.h"

namespace platform {
namespace {

using std::chrono::milliseconds;

// A board end written with raw sockets: it listens at a path and answers by hand.
class RawBoard {
 public:
  explicit RawBoard(const std::string& path) {
    listener_ = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    EXPECT_EQ(::listen(listener_, 4), 0);
  }
  ~RawBoard() {
    if (conn_ >= 0) ::close(conn_);
    ::close(listener_);
  }
  void Accept() { conn_ = ::accept(listener_, nullptr, nullptr); }
  void HangUp() {
    ::close(conn_);
    conn_ = -1;
  }

  struct Request {
    std::uint32_t tag, code, replyLength;
    std::vector<std::uint8_t> body;
    bool operator==(const Request&) const = default;
  };
  Request Receive() {
    Clock::Current().WaitReadable(conn_, kNever);
    std::uint8_t buf[2048];
    const ssize_t n = ::recv(conn_, buf, sizeof buf, 0);
    Request r{};
    if (n < 12) return r;
    std::memcpy(&r.tag, buf, 4);
    std::memcpy(&r.code, buf + 4, 4);
    std::memcpy(&r.replyLength, buf + 8, 4);
    r.body.assign(buf + 12, buf + n);
    return r;
  }
  void Reply(std::uint32_t tag, const std::vector<std::uint8_t>& bytes) {
    const std::uint32_t header[3] = {tag, 0, static_cast<std::uint32_t>(bytes.size())};
    std::vector<std::uint8_t> d(sizeof header + bytes.size());
    std::memcpy(d.data(), header, sizeof header);
    if (!bytes.empty()) std::memcpy(d.data() + sizeof header, bytes.data(), bytes.size());
    ASSERT_EQ(::send(conn_, d.data(), d.size(), 0), static_cast<ssize_t>(d.size()));
  }

 private:
  int listener_ = -1;
  int conn_ = -1;
};

class DeviceIoTest : public ::testing::Test {
 protected:
  // The device on the board listening at HnUsba0.
  std::unique_ptr<Device> Connect(RawBoard& board) {
    std::uint32_t error = 0;
    auto device = Device::Open(dir_ + "/HnUsba0", error);
    EXPECT_NE(device, nullptr) << error;
    board.Accept();
    return device;
  }

  testing_support::TempDeviceDir devices;
  const std::string dir_ = devices.Path();
  VirtualClock clock;
  ScopedClock scoped{clock};
  ClockParticipant self{clock};
};

TEST_F(DeviceIoTest, DiscoveryTellsMissingUnusableAndUsableEntriesApart) {
  std::string path;
  EXPECT_EQ(EnumerateInterface(kInterfaceClass1, 0, path), kErrNoMoreItems);
  const std::string classDir = dir_ + "/" + kInterfaceClass1;
  std::filesystem::create_directory(classDir);
  std::ofstream(classDir + "/0") << "not a socket";
  EXPECT_NE(EnumerateInterface(kInterfaceClass1, 0, path), kErrSuccess);
  EXPECT_NE(EnumerateInterface(kInterfaceClass1, 0, path), kErrNoMoreItems);
  RawBoard board(classDir + "/1");
  EXPECT_EQ(EnumerateInterface(kInterfaceClass1, 1, path), kErrSuccess);
  EXPECT_EQ(path, classDir + "/1");
  EXPECT_EQ(DevicePathForName("\\\\.\\HnUsbb7"), dir_ + "/HnUsbb7");

  std::uint32_t error = 0;
  EXPECT_EQ(Device::Open(dir_ + "/HnUsba0", error), nullptr);
  EXPECT_EQ(error, kErrFileNotFound);
  EXPECT_NE(Device::Open(path, error), nullptr);
}

// The fuzzer and the benchmarks stand in for the board this way.
TEST_F(DeviceIoTest, AnInProcessEndpointIsFoundAndAnswersAtOnceUntilUnregistered) {
  const std::string entry = dir_ + "/" + kInterfaceClass2 + "/3";
  RegisterEndpoint(entry, [](std::uint32_t, const std::uint8_t* request, std::uint32_t,
                             std::uint8_t* reply, std::uint32_t, std::uint32_t& bytes) {
    reply[0] = request[0];
    bytes = 1;
    return kErrSuccess;
  });
  std::string path;
  ASSERT_EQ(EnumerateInterface(kInterfaceClass2, 3, path), kErrSuccess);
  std::uint32_t error = 1;
  auto transport = OpenTransport(path, error);
  ASSERT_NE(transport, nullptr);

  // An overlapped transfer completes at once, never pending, so the channel does not wait.
  Overlapped ov;
  const std::uint8_t request[] = {0x2B};
  std::uint8_t reply[4] = {};
  std::uint32_t bytes = 0;
  EXPECT_EQ(transport->IoControl(0x80002000, request, 1, reply, 4, &bytes, &ov), kErrSuccess);
  EXPECT_EQ(bytes, 1u);
  EXPECT_EQ(reply[0], 0x2B);
  EXPECT_TRUE(ov.event.IsSet());

  UnregisterEndpoint(entry);
  EXPECT_EQ(EnumerateInterface(kInterfaceClass2, 3, path), kErrNoMoreItems);
  EXPECT_EQ(OpenTransport(entry, error), nullptr);
}

TEST_F(DeviceIoTest, TransfersCarryTheFrameAndCompleteByTagInAnyOrder) {
  RawBoard board(dir_ + "/HnUsba0");
  auto device = Connect(board);
  ASSERT_NE(device, nullptr);

  Overlapped a, b;
  std::uint8_t replyA[4] = {}, replyB[2] = {};
  const std::uint8_t reqA[] = {0x2B};
  const std::uint8_t reqB[] = {0x22, 9};
  EXPECT_EQ(device->IoControl(0x80002000, reqA, 1, replyA, 4, nullptr, &a), kErrIoPending);
  EXPECT_EQ(device->IoControl(0x80002008, reqB, 2, replyB, 2, nullptr, &b), kErrIoPending);
  auto ra = board.Receive();
  auto rb = board.Receive();
  EXPECT_NE(ra.tag, rb.tag);
  EXPECT_EQ(ra, (RawBoard::Request{ra.tag, 0x80002000, 4, {0x2B}}));
  EXPECT_EQ(rb, (RawBoard::Request{rb.tag, 0x80002008, 2, {0x22, 9}}));

  std::uint32_t bytes = 99;
  EXPECT_EQ(device->Result(a, bytes), kErrIoIncomplete);
  board.Reply(rb.tag, {7, 8});
  board.Reply(ra.tag, {1, 2, 3, 4, 5});  // one byte too many: the count must say so
  ASSERT_TRUE(b.event.WaitUntil(kNever));
  ASSERT_TRUE(a.event.WaitUntil(kNever));
  EXPECT_EQ(device->Result(b, bytes), kErrSuccess);
  EXPECT_EQ(bytes, 2u);
  EXPECT_EQ(replyB[1], 8);
  EXPECT_EQ(device->Result(a, bytes), kErrSuccess);
  EXPECT_EQ(bytes, 5u);
  EXPECT_EQ(replyA[3], 4);  // copied up to the buffer's size, never past it
}

TEST_F(DeviceIoTest, CancelDropsTheLateReplyAndHangUpsMapToErrorCodes) {
  RawBoard board(dir_ + "/HnUsba0");
  auto device = Connect(board);
  ASSERT_NE(device, nullptr);
  Overlapped ov;
  std::uint8_t reply[1];
  const std::uint8_t req[] = {0x2B};
  device->IoControl(0x80002000, req, 1, reply, 1, nullptr, &ov);
  EXPECT_FALSE(ov.event.WaitUntil(clock.Deadline(milliseconds(5000))));
  device->Cancel(ov);
  std::uint32_t bytes;
  EXPECT_EQ(device->Result(ov, bytes), kErrOperationAborted);

  auto late = board.Receive();
  device->IoControl(0x80002000, req, 1, reply, 1, nullptr, &ov);
  auto next = board.Receive();
  board.Reply(late.tag, {0x11});
  board.Reply(next.tag, {0x22});
  ov.event.WaitUntil(kNever);
  EXPECT_EQ(device->Result(ov, bytes), kErrSuccess);
  EXPECT_EQ(reply[0], 0x22);

  device->IoControl(0x80002000, req, 1, reply, 1, nullptr, &ov);
  board.Receive();
  board.HangUp();
  ov.event.WaitUntil(kNever);
  EXPECT_EQ(device->Result(ov, bytes), kErrFileNotFound);
  EXPECT_EQ(device->IoControl(0x80002000, req, 1, reply, 1, nullptr, &ov), kErrInvalidHandle);
}

}  // namespace
}  // namespace platform
