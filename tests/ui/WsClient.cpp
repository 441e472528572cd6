#include "tests/ui/WsClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/Clock.h"

namespace testing_support {

int ConnectLoopback(std::uint16_t port, int receiveBuffer) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (receiveBuffer > 0) {
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

namespace {

void SendAll(int fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<std::size_t>(n);
  }
}

// Appends what is there after waiting for it; false at the end of the stream.
bool ReadSome(int fd, std::string& out) {
  char buffer[4096];
  if (platform::Clock::Current().WaitReadable(fd, platform::kNever) != 1) return false;
  const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
  if (n <= 0) return false;
  out.append(buffer, static_cast<std::size_t>(n));
  return true;
}

}  // namespace

std::string HttpExchange(std::uint16_t port, const std::string& request) {
  return HttpExchangeOn(ConnectLoopback(port), request);
}

std::string HttpExchangeOn(int fd, const std::string& request) {
  if (fd < 0) return {};
  SendAll(fd, request);
  std::string response;
  while (ReadSome(fd, response)) {
  }
  ::close(fd);
  return response;
}

int StatusOf(const std::string& response) {
  if (response.compare(0, 9, "HTTP/1.1 ") != 0 || response.size() < 12) return 0;
  return std::atoi(response.substr(9, 3).c_str());
}

WsClient::~WsClient() {
  if (fd_ >= 0) ::close(fd_);
}

int WsClient::Open(std::uint16_t port, const std::string& target, const std::string& origin,
                   const std::string& host, int receiveBuffer) {
  fd_ = ConnectLoopback(port, receiveBuffer);
  if (fd_ < 0) return 0;
  std::string request = "GET " + target + " HTTP/1.1\r\nHost: " +
                        (host.empty() ? "127.0.0.1:" + std::to_string(port) : host) +
                        "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                        "Sec-WebSocket-Version: 13\r\n";
  if (!origin.empty()) request += "Origin: " + origin + "\r\n";
  SendAll(fd_, request + "\r\n");
  std::size_t end;
  while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
    if (!ReadSome(fd_, buffer_)) return StatusOf(buffer_);
  }
  const int status = StatusOf(buffer_);
  buffer_.erase(0, end + 4);
  return status;
}

// A masked text frame; the lengths the tests send need the 7-bit or the 64-bit form.
void WsClient::SendText(const std::string& text) {
  std::string frame = "\x81";  // FIN, text
  const std::size_t n = text.size();
  if (n < 126) {
    frame += static_cast<char>(0x80 | n);
  } else {
    frame += static_cast<char>(0x80 | 127);
    for (int shift = 56; shift >= 0; shift -= 8)
      frame += static_cast<char>((n >> shift) & 0xFF);
  }
  const char mask[4] = {0x12, 0x34, 0x56, 0x78};
  frame.append(mask, 4);
  for (std::size_t i = 0; i < n; ++i)
    frame += static_cast<char>(text[i] ^ mask[i % 4]);
  SendAll(fd_, frame);
}

bool WsClient::Fill(std::size_t n) {
  while (buffer_.size() < n) {
    if (!ReadSome(fd_, buffer_)) return false;
  }
  return true;
}

// Unfragmented server frames: a header of 2, 4 or 10 bytes, then the payload.
std::optional<std::string> WsClient::ReceiveContaining(const std::string& fragment) {
  while (fd_ >= 0 && Fill(2)) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(buffer_[i]); };
    std::size_t head = 2;
    std::uint64_t length = byte(1) & 0x7F;
    if (length >= 126) {
      const std::size_t bytes = length == 126 ? 2 : 8;
      if (!Fill(2 + bytes)) break;
      length = 0;
      for (std::size_t i = 0; i < bytes; ++i)
        length = (length << 8) | byte(2 + i);
      head += bytes;
    }
    if (!Fill(head + length)) break;
    const int opcode = byte(0) & 0x0F;
    std::string payload = buffer_.substr(head, length);
    buffer_.erase(0, head + length);
    if (opcode == 0x8) break;  // close
    if (opcode == 0x1 && payload.find(fragment) != std::string::npos) return payload;
  }
  return std::nullopt;
}

}  // namespace testing_support
