// A bare loopback HTTP and WebSocket client for the server tests: plain sockets, so that a test
// can send what no browser would (no token, a foreign Origin, oversized frames). Every wait goes
// through the current Clock with no deadline; a server that never answers fails the test by
// the test program's time-out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace testing_support {

// A connected loopback socket, or -1. `receiveBuffer` (bytes, 0: the system's) keeps the kernel
// from taking up much of what a server sends to a client that does not read.
int ConnectLoopback(std::uint16_t port, int receiveBuffer = 0);
// Sends `request` (a whole HTTP request with "Connection: close") and returns everything the
// server sends until it closes.
std::string HttpExchange(std::uint16_t port, const std::string& request);
// The same on a connected socket, which it closes.
std::string HttpExchangeOn(int fd, const std::string& request);
// The status code of a response ("HTTP/1.1 403 ..." gives 403); 0 when there is none.
int StatusOf(const std::string& response);

class WsClient {
 public:
  WsClient() = default;
  ~WsClient();
  WsClient(const WsClient&) = delete;
  WsClient& operator=(const WsClient&) = delete;

  // Connects and asks for the upgrade of `target` with the given Origin (empty: none) and Host
  // (empty: the loopback address). Returns the HTTP status: 101 when it is a WebSocket now.
  int Open(std::uint16_t port, const std::string& target, const std::string& origin,
           const std::string& host = "", int receiveBuffer = 0);
  void SendText(const std::string& text);
  // Reads text messages until one contains `fragment`; nullopt when the connection closed first.
  std::optional<std::string> ReceiveContaining(const std::string& fragment);

 private:
  bool Fill(std::size_t n);  // until `buffer_` holds at least n bytes; false at the end
  int fd_ = -1;
  std::string buffer_;  // read and not yet taken
};

}  // namespace testing_support
