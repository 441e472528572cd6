#include "sim/Driver.h"

#include <algorithm>
#include <optional>
#include <string>

namespace sim {

namespace {

// The header is little-endian, unlike the big-endian command packets behind it.
std::uint32_t GetLe32(wire::Bytes b, std::size_t at) {
  return std::uint32_t{b[at]} | (std::uint32_t{b[at + 1]} << 8) | (std::uint32_t{b[at + 2]} << 16) |
         (std::uint32_t{b[at + 3]} << 24);
}

void PutLe32(std::vector<std::uint8_t>& out, std::uint32_t v) {
  for (int shift = 0; shift < 32; shift += 8)
    out.push_back(static_cast<std::uint8_t>(v >> shift));
}

Outcome Reply(std::uint32_t tag, std::uint32_t status, std::uint32_t count,
              const std::vector<std::uint8_t>& bytes = {}) {
  Outcome out;
  out.send = true;
  out.datagram.reserve(kHeaderBytes + bytes.size());
  PutLe32(out.datagram, tag);
  PutLe32(out.datagram, status);
  PutLe32(out.datagram, count);
  out.datagram.insert(out.datagram.end(), bytes.begin(), bytes.end());
  return out;
}

// Faults that do not touch the bytes: a status, a swallowed request, a delay. Returns the
// outcome that replaces the normal answer, if any; a late rule only sets the delay.
std::optional<Outcome> TransferFault(const std::optional<FaultRule>& fault, std::uint32_t tag,
                                     platform::Duration& delay) {
  if (!fault) return std::nullopt;
  switch (fault->kind) {
    case FaultKind::kDrop:
      return Outcome{};
    case FaultKind::kStatus:
      return Reply(tag, fault->status, 0);
    case FaultKind::kLate:
      delay = platform::Milliseconds(fault->delayMs);
      return std::nullopt;
    default:
      return std::nullopt;
  }
}

Outcome AnswerLinkOpened(Board& board, const std::optional<FaultRule>& fault, std::uint32_t tag) {
  platform::Duration delay{0};
  if (auto faulted = TransferFault(fault, tag, delay)) return *faulted;
  Outcome out = Reply(tag, 0, board.profile().driverWord);
  out.delay = delay;
  return out;
}

// What the driver makes of the board's reply for a buffer of `replyLength` bytes (see Driver.h),
// then a short or long rule bends what it hands back.
Outcome ShapeReply(std::uint32_t tag, std::vector<std::uint8_t> bytes, std::uint32_t replyLength,
                   const std::optional<FaultRule>& fault) {
  if (bytes.empty() && replyLength > 0) return Outcome{};
  std::uint32_t status = 0;
  if (bytes.size() > replyLength) {
    bytes.resize(replyLength);
    status = kErrorMoreData;
  }
  if (fault && fault->kind == FaultKind::kShort && !bytes.empty()) bytes.pop_back();
  if (fault && fault->kind == FaultKind::kLong) bytes.push_back(0);
  return Reply(tag, status, static_cast<std::uint32_t>(bytes.size()), bytes);
}

Outcome AnswerCommand(Board& board, const std::optional<FaultRule>& fault, std::uint32_t tag,
                      std::uint32_t code, std::uint32_t replyLength, wire::Bytes packet) {
  platform::Duration delay{0};
  if (auto faulted = TransferFault(fault, tag, delay)) return *faulted;
  // A refused command is not executed: it must not, say, use up pending diagnostic text.
  const Pipe pipe = code == kCapturePositionCode ? Pipe::kCapture : Pipe::kNormal;
  std::vector<std::uint8_t> bytes =
      fault && fault->kind == FaultKind::kRefuse
          ? std::vector<std::uint8_t>{kRefusalByte, static_cast<std::uint8_t>(fault->reason)}
          : board.Execute(packet, pipe).bytes;
  Outcome out = ShapeReply(tag, std::move(bytes), replyLength, fault);
  out.delay = delay;
  return out;
}

Outcome AnswerDescribe(const Board& board, const DriverSettings& driver, std::uint32_t tag,
                       std::uint32_t replyLength, wire::Bytes packet) {
  if (!packet.empty() || replyLength > kDescribeLimit) return Reply(tag, kErrorInvalidParameter, 0);
  if (!driver.describes) return Reply(tag, kErrorInvalidFunction, 0);
  const std::string text = "simulated " + board.profile().name;
  return ShapeReply(tag, std::vector<std::uint8_t>(text.begin(), text.end()), replyLength, {});
}

// Keeps the transfer in the traffic's bounded list of recent ones.
void Remember(Traffic& traffic, std::uint32_t code, std::uint32_t replyLength, wire::Bytes packet,
              const Outcome& out, platform::TimePoint at) {
  Transfer t;
  t.sequence = traffic.total;
  t.at = at;
  t.code = code;
  t.requestLength = static_cast<std::uint32_t>(packet.size());
  std::copy_n(packet.begin(), std::min(packet.size(), Transfer::kKeptBytes), t.request.begin());
  t.replyLength = replyLength;
  t.answered = out.send;
  if (out.send) {
    t.status = GetLe32(out.datagram, 4);
    t.bytesReturned = GetLe32(out.datagram, 8);
  }
  if (traffic.recent.size() == Traffic::kRecentTransfers) traffic.recent.pop_front();
  traffic.recent.push_back(t);
}

}  // namespace

Outcome AnswerDatagram(Board& board, FaultTable& faults, Traffic& traffic, wire::Bytes datagram,
                       platform::TimePoint at, const DriverSettings& driver) {
  ++traffic.total;
  if (datagram.size() < kHeaderBytes) {
    ++traffic.malformed;
    return Outcome{};
  }
  const std::uint32_t tag = GetLe32(datagram, 0);
  const std::uint32_t code = GetLe32(datagram, 4);
  const std::uint32_t replyLength = GetLe32(datagram, 8);
  const wire::Bytes packet = datagram.subspan(kHeaderBytes);

  if (code == kLinkOpenedCode) {
    ++traffic.linkOpened;
    Outcome out = AnswerLinkOpened(board, faults.Take({.linkOpened = true}), tag);
    Remember(traffic, code, replyLength, packet, out, at);
    return out;
  }
  if (code == kDescribeCode) {
    ++traffic.describe;
    Outcome out = AnswerDescribe(board, driver, tag, replyLength, packet);
    Remember(traffic, code, replyLength, packet, out, at);
    return out;
  }
  if (code != kNormalCommandCode && code != kCapturePositionCode) {
    return Reply(tag, kErrorInvalidFunction, 0);
  }
  const std::size_t limit =
      code == kNormalCommandCode ? kNormalCommandLimit : kCapturePositionLimit;
  if (packet.empty() || packet.size() > limit || replyLength > limit) {
    return Reply(tag, kErrorInvalidParameter, 0);
  }
  ++traffic.commands[packet[0]];
  Outcome out =
      AnswerCommand(board, faults.Take({.command = packet[0]}), tag, code, replyLength, packet);
  Remember(traffic, code, replyLength, packet, out, at);
  return out;
}

}  // namespace sim
