// The board's end of the driver protocol: one datagram in, at most one datagram out.
//
//   request: u32 LE tag, u32 LE io code, u32 LE replyLength, then the command packet
//   reply:   u32 LE tag (echoed), u32 LE status (0 or a system error code), u32 LE bytesReturned,
//            then exactly bytesReturned bytes; for the link-opened code bytesReturned is the
//            driver word and no bytes follow.
//
// The board answers with its own form's length, and the driver passes that on as a real one
// does: a buffer (replyLength) larger than the reply gets the reply's length; a smaller buffer is
// filled and the transfer completes with status 234 (more data); a command the board answers with
// nothing, asked for bytes, gets no reply at all. So a host that picks the wrong form of a command
// fails its transfer, and never reads a reply cut to the size it expected. Fault rules act here,
// between the host and the board's firmware.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "platform/Clock.h"
#include "sim/Board.h"
#include "sim/Faults.h"
#include "wire/WireFormat.h"

namespace sim {

inline constexpr std::uint32_t kNormalCommandCode = 0x80002000;
inline constexpr std::uint32_t kCapturePositionCode = 0x80002008;
inline constexpr std::uint32_t kLinkOpenedCode = 0x80002010;
// Asks who answers: "simulated <profile>" here; a driver that does not know it fails it with
// invalid function. No request bytes; the text is at most kDescribeLimit bytes.
inline constexpr std::uint32_t kDescribeCode = 0x80002018;
inline constexpr std::size_t kDescribeLimit = 128;
inline constexpr std::size_t kNormalCommandLimit = 300;
inline constexpr std::size_t kCapturePositionLimit = 1022;
inline constexpr std::size_t kHeaderBytes = 12;
// The largest datagram either way: a header and a capture-sized packet.
inline constexpr std::size_t kMaxDatagramBytes = kHeaderBytes + kCapturePositionLimit;

// Status codes the driver completes a transfer with when the request itself is wrong.
inline constexpr std::uint32_t kErrorInvalidFunction = 1;    // unknown io code
inline constexpr std::uint32_t kErrorInvalidParameter = 87;  // empty or oversized packet
// The buffer was smaller than the board's reply: it is filled, and the rest is lost.
inline constexpr std::uint32_t kErrorMoreData = 234;

// What to do with one datagram.
struct Outcome {
  bool send = false;            // false: nothing goes back (malformed, or swallowed by a fault)
  platform::Duration delay{0};  // wait this long (on the clock) before sending
  std::vector<std::uint8_t> datagram;
};

// One transfer as the driver saw it, for a look at what a host sent.
struct Transfer {
  static constexpr std::size_t kKeptBytes = 32;
  std::uint32_t sequence = 0;  // the datagram's number: Traffic::total when it came
  std::uint32_t code = 0;      // the io code
  std::uint32_t requestLength = 0;
  std::array<std::uint8_t, kKeptBytes> request{};  // the packet's first bytes, zero behind it
  std::uint32_t replyLength = 0;
  bool answered = false;  // false: nothing went back (dropped, or no reply to wait for)
  std::uint32_t status = 0;
  std::uint32_t bytesReturned = 0;
  platform::TimePoint at{};  // when the request came, on the board's clock
};

// Requests seen, by kind; counted before any fault acts.
struct Traffic {
  static constexpr std::size_t kRecentTransfers = 64;
  std::array<std::uint32_t, 256> commands{};  // by command byte
  std::uint32_t linkOpened = 0;
  std::uint32_t describe = 0;
  std::uint32_t malformed = 0;  // shorter than a header, dropped
  std::uint32_t total = 0;      // every datagram
  // The last kRecentTransfers commands and link-opened calls, oldest first.
  std::deque<Transfer> recent;
};

// What the driver in front of the board is like.
struct DriverSettings {
  // False: a driver older than the describe request, which fails it as an unknown io code.
  bool describes = true;
};

// Answers one request datagram on behalf of `board`, applying the first matching rule of
// `faults`. Malformed datagrams (shorter than the header) get no answer. `at` is when the request
// came, kept with the transfer. The describe request is the driver's own: fault rules do not act
// on it.
Outcome AnswerDatagram(Board& board, FaultTable& faults, Traffic& traffic, wire::Bytes datagram,
                       platform::TimePoint at = {}, const DriverSettings& driver = {});

}  // namespace sim
