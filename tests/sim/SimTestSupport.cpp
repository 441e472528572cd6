#include "SimTestSupport.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace sim::testing {

namespace {

void PutLe32(Packet& out, std::uint32_t v) {
  for (int shift = 0; shift < 32; shift += 8)
    out.push_back(static_cast<std::uint8_t>(v >> shift));
}

std::uint32_t GetLe32(const std::uint8_t* p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) | (std::uint32_t{p[3]} << 24);
}

}  // namespace

RawClient::RawClient(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

RawClient::~RawClient() {
  if (fd_ >= 0) ::close(fd_);
}

void RawClient::SendDatagram(const Packet& datagram) {
  ASSERT_EQ(::send(fd_, datagram.data(), datagram.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(datagram.size()));
}

void RawClient::Send(std::uint32_t tag, std::uint32_t code, std::uint32_t replyLength,
                     const Packet& packet) {
  Packet d;
  PutLe32(d, tag);
  PutLe32(d, code);
  PutLe32(d, replyLength);
  d.insert(d.end(), packet.begin(), packet.end());
  SendDatagram(d);
}

std::optional<RawReply> RawClient::Receive(platform::Duration wait) {
  platform::Clock& clock = platform::Clock::Current();
  if (clock.WaitReadable(fd_, clock.Deadline(wait)) != 1) return std::nullopt;
  std::uint8_t buffer[2048];
  const ssize_t n = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
  if (n < 12) return std::nullopt;  // the board hung up (or sent garbage, which is a failure too)
  RawReply r{GetLe32(buffer), GetLe32(buffer + 4), GetLe32(buffer + 8), {}};
  r.bytes.assign(buffer + 12, buffer + n);
  return r;
}

bool RawClient::WaitHungUp(platform::Duration wait) {
  platform::Clock& clock = platform::Clock::Current();
  if (clock.WaitReadable(fd_, clock.Deadline(wait)) != 1) return false;
  std::uint8_t byte;
  const ssize_t n = ::recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
  // A connection still waiting in the backlog when the board went away reads as reset.
  return n == 0 || (n < 0 && errno == ECONNRESET);
}

RawReply RawClient::Command(const Packet& packet, std::uint32_t replyLength) {
  const std::uint32_t tag = nextTag_++;
  Send(tag, 0x80002000, replyLength, packet);
  const std::optional<RawReply> reply = Receive();
  EXPECT_TRUE(reply.has_value()) << "no reply to command 0x" << std::hex << int{packet.at(0)};
  if (!reply) return RawReply{tag, ~0u, 0, {}};
  EXPECT_EQ(reply->tag, tag);
  return *reply;
}

RawReply RawClient::LinkOpened() {
  const std::uint32_t tag = nextTag_++;
  Send(tag, 0x80002010, 0, {});
  const std::optional<RawReply> reply = Receive();
  EXPECT_TRUE(reply.has_value()) << "no reply to link-opened";
  return reply.value_or(RawReply{tag, ~0u, 0, {}});
}

Packet Request(std::uint8_t code, std::size_t length, const Packet& fill) {
  Packet p(std::max<std::size_t>(length, 1), 0);
  p[0] = code;
  for (std::size_t i = 0; i < fill.size() && i + 1 < length; ++i)
    p[i + 1] = fill[i];
  return p;
}

SimTest::SimTest() = default;

SimTest::~SimTest() {  // the simulator goes before its folder
  client_.reset();
  sim_.reset();
}

void SimTest::StartBoard(const std::string& profile, SimulatorOptions options) {
  options.profile = profile;
  if (options.deviceDir.empty()) options.deviceDir = dir_;
  sim_ = std::make_unique<Simulator>(options);
  std::string why;
  ASSERT_TRUE(sim_->Start(&why)) << why;
}

void SimTest::StartConnected(const std::string& profile) {
  StartBoard(profile, {.diagPeriod = platform::Duration::zero()});
  client_ = Connect();
  ASSERT_TRUE(client_->Connected());
}

std::string SimTest::Control(const std::string& line) {
  const std::string answer = sim_->Command(line);
  EXPECT_EQ(answer.rfind("ok", 0), 0u) << line << " -> " << answer;
  return answer;
}

void SimTest::ExpectRefused(std::initializer_list<const char*> lines) {
  for (const char* line : lines)
    EXPECT_EQ(sim_->Command(line).rfind("error: ", 0), 0u) << line;
}

double SimTest::Position(const std::string& axis) {
  const std::string answer = Control("axis " + axis);
  const auto at = answer.find(" pos=");
  return at == std::string::npos ? -1 : std::stod(answer.substr(at + 5));
}

bool SimTest::AxisShows(const std::string& axis, const std::string& part) {
  return Control("axis " + axis).find(part) != std::string::npos;
}

}  // namespace sim::testing
