#include "tests/ui/WsClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "platform/Clock.h"

namespace testing_support {

namespace {

int ConnectLoopback(std::uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
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

void SendAll(int fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<std::size_t>(n);
  }
}

// Reads what is there after waiting for it; 0 at the end of the stream.
ssize_t ReadSome(int fd, char* buffer, std::size_t size) {
  if (platform::Clock::Current().WaitReadable(fd, platform::kNever) != 1) return -1;
  return ::recv(fd, buffer, size, 0);
}

}  // namespace

std::string HttpExchange(std::uint16_t port, const std::string& request) {
  const int fd = ConnectLoopback(port);
  if (fd < 0) return {};
  SendAll(fd, request);
  std::string response;
  char buffer[4096];
  ssize_t n;
  while ((n = ReadSome(fd, buffer, sizeof buffer)) > 0)
    response.append(buffer, static_cast<std::size_t>(n));
  ::close(fd);
  return response;
}

int StatusOf(const std::string& response) {
  if (response.compare(0, 9, "HTTP/1.1 ") != 0 || response.size() < 12) return 0;
  return std::atoi(response.substr(9, 3).c_str());
}

WsClient::~WsClient() {
  Close();
}

void WsClient::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

int WsClient::Open(std::uint16_t port, const std::string& target, const std::string& origin,
                   const std::string& host) {
  fd_ = ConnectLoopback(port);
  if (fd_ < 0) return 0;
  std::string request = "GET " + target + " HTTP/1.1\r\nHost: " +
                        (host.empty() ? "127.0.0.1:" + std::to_string(port) : host) +
                        "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                        "Sec-WebSocket-Version: 13\r\n";
  if (!origin.empty()) request += "Origin: " + origin + "\r\n";
  SendAll(fd_, request + "\r\n");
  std::string head;
  char buffer[4096];
  while (head.find("\r\n\r\n") == std::string::npos) {
    const ssize_t n = ReadSome(fd_, buffer, sizeof buffer);
    if (n <= 0) break;
    head.append(buffer, static_cast<std::size_t>(n));
  }
  const std::size_t end = head.find("\r\n\r\n");
  if (end != std::string::npos) pending_ = head.substr(end + 4);
  return StatusOf(head);
}

void WsClient::SendText(const std::string& text) {
  std::string frame;
  frame += static_cast<char>(0x81);  // FIN, text
  const std::size_t n = text.size();
  if (n < 126) {
    frame += static_cast<char>(0x80 | n);
  } else if (n <= 0xFFFF) {
    frame += static_cast<char>(0x80 | 126);
    frame += static_cast<char>(n >> 8);
    frame += static_cast<char>(n & 0xFF);
  } else {
    frame += static_cast<char>(0x80 | 127);
    for (int shift = 56; shift >= 0; shift -= 8)
      frame += static_cast<char>((n >> shift) & 0xFF);
  }
  const unsigned char mask[4] = {0x12, 0x34, 0x56, 0x78};
  frame.append(reinterpret_cast<const char*>(mask), 4);
  for (std::size_t i = 0; i < n; ++i)
    frame += static_cast<char>(text[i] ^ mask[i % 4]);
  SendAll(fd_, frame);
}

bool WsClient::ReadExact(void* out, std::size_t n) {
  char* p = static_cast<char*>(out);
  while (n > 0) {
    if (!pending_.empty()) {
      const std::size_t take = std::min(n, pending_.size());
      std::memcpy(p, pending_.data(), take);
      pending_.erase(0, take);
      p += take;
      n -= take;
      continue;
    }
    const ssize_t got = ReadSome(fd_, p, n);
    if (got <= 0) return false;
    p += got;
    n -= static_cast<std::size_t>(got);
  }
  return true;
}

std::optional<std::string> WsClient::Receive() {
  std::string message;
  for (;;) {
    unsigned char head[2];
    if (fd_ < 0 || !ReadExact(head, 2)) return std::nullopt;
    std::uint64_t length = head[1] & 0x7F;
    if (length >= 126) {
      unsigned char ext[8];
      const std::size_t bytes = length == 126 ? 2 : 8;
      if (!ReadExact(ext, bytes)) return std::nullopt;
      length = 0;
      for (std::size_t i = 0; i < bytes; ++i)
        length = (length << 8) | ext[i];
    }
    std::string payload(length, '\0');
    if (length > 0 && !ReadExact(payload.data(), length)) return std::nullopt;
    const int opcode = head[0] & 0x0F;
    if (opcode == 0x8) return std::nullopt;  // close
    if (opcode == 0x9 || opcode == 0xA) continue;
    message += payload;
    if (head[0] & 0x80) return message;
  }
}

std::optional<std::string> WsClient::ReceiveContaining(const std::string& fragment) {
  for (;;) {
    auto m = Receive();
    if (!m || m->find(fragment) != std::string::npos) return m;
  }
}

}  // namespace testing_support
