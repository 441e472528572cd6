// The board's end of the driver protocol: one datagram in, at most one datagram out.
//
//   request: u32 LE tag, u32 LE io code, u32 LE replyLength, then the command packet
//   reply:   u32 LE tag (echoed), u32 LE status (0 or a system error code), u32 LE bytesReturned,
//            then exactly bytesReturned bytes; for the link-opened code bytesReturned is the
//            driver word and no bytes follow.
//
// The board answers what the command implies, and like a real driver hands back at most the
// buffer the host offered: bytesReturned is the smaller of the two, and a replyLength of 0 gets
// no bytes. Fault rules act here, between the host and the board's firmware.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "wire/WireFormat.h"
#include "platform/Clock.h"
#include "sim/Board.h"
#include "sim/Faults.h"

namespace sim {

inline constexpr std::uint32_t kNormalCommandCode = 0x80002000;
inline constexpr std::uint32_t kCapturePositionCode = 0x80002008;
inline constexpr std::uint32_t kLinkOpenedCode = 0x80002010;
inline constexpr std::size_t kNormalCommandLimit = 300;
inline constexpr std::size_t kCapturePositionLimit = 1022;
inline constexpr std::size_t kHeaderBytes = 12;
// The largest datagram either way: a header and a capture-sized packet.
inline constexpr std::size_t kMaxDatagramBytes = kHeaderBytes + kCapturePositionLimit;

// Status codes the driver completes a transfer with when the request itself is wrong.
inline constexpr std::uint32_t kErrorInvalidFunction = 1;    // unknown io code
inline constexpr std::uint32_t kErrorInvalidParameter = 87;  // empty or oversized packet

// What to do with one datagram.
struct Outcome {
  bool send = false;            // false: nothing goes back (malformed, or swallowed by a fault)
  platform::Duration delay{0};  // wait this long (on the clock) before sending
  std::vector<std::uint8_t> datagram;
};

// Requests seen, by kind; counted before any fault acts.
struct Traffic {
  std::array<std::uint32_t, 256> commands{};  // by command byte
  std::uint32_t linkOpened = 0;
  std::uint32_t malformed = 0;  // shorter than a header, dropped
  std::uint32_t total = 0;      // every datagram
};

// Answers one request datagram on behalf of `board`, applying the first matching rule of
// `faults`. Malformed datagrams (shorter than the header) get no answer.
Outcome AnswerDatagram(Board& board, FaultTable& faults, Traffic& traffic, wire::Bytes datagram);

}  // namespace sim
