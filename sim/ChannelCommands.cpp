// The W axis and platen family: the channels' own commands (counts, moves, records, serial
// record, hash), the platen's extra record, and the W axis's EEPROM. A channel that is not fitted
// is refused (-3).
#include <algorithm>
#include <chrono>

#include "sim/MachineForms.h"

namespace sim::forms {

namespace {

std::int8_t FillSetDefine(Board& board, wire::Bytes q, wire::MutableBytes) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  std::copy(q.begin(), q.end(), c->define.begin());
  return 0;
}

std::int8_t FillGetExtra(Board& board, wire::Bytes, wire::MutableBytes r) {
  Machine& m = M(board);
  if (!m.platen.fitted) return kReasonBadArgument;
  std::copy(m.platen.extra.begin() + 1, m.platen.extra.end(), r.begin() + 1);
  return 0;
}

std::int8_t FillSetExtra(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  if (!m.platen.fitted) return kReasonBadArgument;
  std::copy(q.begin(), q.end(), m.platen.extra.begin());
  return 0;
}

std::int8_t FillChannelLong(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  PutByte(r, 1, GetByte(q, 1));
  PutLong(r, 2, c->Counts());
  if (r.size() >= 10) PutLong(r, 6, static_cast<std::uint32_t>(c->target * c->countsPerMm));
  return 0;
}

std::int8_t FillChannelFlag(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  PutFlag(r, 2, c->Moving());
  return 0;
}

std::int8_t FillChannelSet(Board& board, wire::Bytes q, wire::MutableBytes) {
  return ChannelOf(board, q) ? 0 : kReasonBadArgument;
}

// 0x4C of 32 bytes moves the platen (byte 2: 1 open, 0 closed); of 31 it is the channel's
// command L, which carries four longs that change nothing here.
std::int8_t FillMovePlaten(Board& board, wire::Bytes q, wire::MutableBytes) {
  Channel* c = ChannelOf(board, q);
  if (!c || c != &M(board).platen) return kReasonBadArgument;
  c->target = GetByte(q, 2) != 0 ? c->travel : 0;
  return 0;
}

// Boards before protocol 2 send no channel with the serial record; they answer for the W axis.
std::int8_t FillGetSerial(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Channel* c = q.size() == 1 ? &M(board).w : ChannelOf(board, q);
  if (!c || !c->fitted) return kReasonBadArgument;
  std::copy_n(c->serial.begin() + 1, r.size() - 1, r.begin() + 1);
  return 0;
}

std::int8_t FillSetSerial(Board& board, wire::Bytes q, wire::MutableBytes) {
  constexpr std::size_t kChannelAt = 108;
  Channel* c = q.size() == 97 ? &M(board).w : ChannelOf(board, q, kChannelAt);
  if (!c || !c->fitted) return kReasonBadArgument;
  // The record keeps the identity's fields only; the short form leaves the later ones zero.
  std::fill(c->serial.begin(), c->serial.end(), 0);
  std::copy_n(q.begin() + 1, std::min(q.size(), kChannelAt) - 1, c->serial.begin() + 1);
  return 0;
}

std::int8_t FillReadU(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  PutLong(r, 2, c->Counts());
  PutLong(r, 6, 0);
  PutLong(r, 10, 100);
  PutLong(r, 14, 3);
  return 0;
}

std::int8_t FillReadQ(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  wire::PutReal(r, 2, static_cast<float>(c->position));
  PutLong(r, 6, c->Counts());
  PutLong(r, 10, 1);
  PutLong(r, 18, 2);
  return 0;
}

std::int8_t FillHash(Board& board, wire::Bytes q, wire::MutableBytes) {
  return ChannelOf(board, q, 2) ? 0 : kReasonBadArgument;
}

// The W EEPROM's description: `present` while a write goes on, `kind` its result.
std::int8_t FillWEepromInfo(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Machine& m = M(board);
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  if (c == &m.platen) {
    PutWord(r, 2, 0);
    return 0;
  }
  PutFlag(r, 1, m.Now() < m.wEeprom.busyUntil);
  PutWord(r, 2, static_cast<std::uint16_t>(m.wEeprom.user.size()));
  PutByte(r, 4, m.wEeprom.kind);
  PutWord(r, 5, static_cast<std::uint16_t>(m.wEeprom.machine.size()));
  PutFlag(r, 7, false);
  return 0;
}

std::vector<std::uint8_t>& WArea(Machine& m, bool machineArea) {
  return machineArea ? m.wEeprom.machine : m.wEeprom.user;
}

// Byte 1 of the current forms is 2 (the W axis's EEPROM) rather than a channel number.
std::int8_t FillWRead(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Machine& m = M(board);
  const bool old = q.size() == 5;
  if (!m.w.fitted) return kReasonBadArgument;
  if (!old && GetByte(q, 1) != 2) return kReasonBadArgument;
  const std::uint32_t address = old ? GetWord(q, 1) : GetWord(q, 3);
  const std::uint32_t length = old ? GetWord(q, 3) : GetWord(q, 5);
  const std::size_t dataAt = old ? 4 : 32;
  auto& area = WArea(m, !old && GetByte(q, 2) != 0);
  std::uint8_t status = kEepromOk;
  if (length > r.size() - dataAt) {
    status = kEepromTooLong;
  } else if (std::uint64_t{address} + length > area.size()) {
    status = kEepromOutOfRange;
  } else {
    std::copy_n(area.begin() + address, length, r.begin() + dataAt);
  }
  PutByte(r, old ? 1 : 2, status);
  return 0;
}

// A page of 32 bytes takes 5 ms to write; `present` of the channel's EEPROM info stays set until
// then, and `kind` holds the result (0 written, 1 out of range or too long).
std::int8_t FillWWrite(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  const bool old = q.size() == 69;
  if (!m.w.fitted) return kReasonBadArgument;
  if (!old && GetByte(q, 1) != 2) return kReasonBadArgument;
  const std::uint32_t address = old ? GetWord(q, 1) : GetWord(q, 3);
  const std::uint32_t length = old ? GetWord(q, 3) : GetWord(q, 5);
  const std::size_t dataAt = old ? 5 : 32;
  auto& area = WArea(m, !old && GetByte(q, 2) != 0);
  // A write that comes while one is under way waits behind it, as the channel's queue does.
  const platform::TimePoint start = std::max(m.Now(), m.wEeprom.busyUntil);
  if (length > q.size() - dataAt || std::uint64_t{address} + length > area.size()) {
    m.wEeprom.kind = 1;
    m.wEeprom.busyUntil = start + std::chrono::milliseconds(1);
    return 0;
  }
  std::copy_n(q.begin() + dataAt, length, area.begin() + address);
  const auto pages = static_cast<int>((address % 32 + length + 31) / 32);
  m.wEeprom.busyUntil = start + std::chrono::milliseconds(5 * std::max(1, pages));
  m.wEeprom.kind = 0;
  return 0;
}

// 0x4D: the channel runs to the position given in counts (the W axis has no other move).
std::int8_t FillCommandM(Board& board, wire::Bytes q, wire::MutableBytes) {
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  const double mm = static_cast<std::int32_t>(GetLong(q, 2)) / c->countsPerMm;
  c->target = c->travel > 0 ? std::clamp(mm, 0.0, c->travel) : mm;
  return 0;
}

// clang-format off
constexpr CommandForm kForms[] = {
  {.code = 0x61, .name = "set definition", .gate = AnyController, .request = {60}, .reply = kSetReply, .fill = FillSetDefine},
  {.code = 0x68, .name = "get platen extra", .gate = PlatenExtra, .request = {2}, .reply = 32, .fill = FillGetExtra, .fixed = {{{.at = 1, .value = 0}}}},
  {.code = 0x48, .name = "set platen extra", .gate = PlatenExtra, .request = {32}, .reply = kTwoReply, .fill = FillSetExtra, .zeroFrom = 15},
  {.code = 0x41, .name = "channel A", .gate = AnyController, .request = {2}, .reply = 6, .fill = FillChannelLong},
  {.code = 0x42, .name = "channel B", .gate = AnyController, .request = {2}, .reply = 6, .fill = FillChannelLong},
  {.code = 0x43, .name = "channel position", .gate = AnyController, .request = {2}, .reply = 10, .fill = FillChannelLong},
  {.code = 0x44, .name = "channel D", .gate = AnyController, .request = {2}, .reply = 3, .fill = FillChannelFlag},
  {.code = 0x4A, .name = "channel J", .gate = AnyController, .request = {2}, .reply = 16, .fill = FillChannelLong},
  {.code = 0x4C, .name = "channel L", .gate = AnyController, .request = {31}, .reply = kSetReply, .fill = FillChannelSet},
  {.code = 0x4C, .name = "move platen", .gate = AnyController, .request = {32}, .reply = kSetReply, .fill = FillMovePlaten, .zeroFrom = 3},
  {.code = 0x4D, .name = "channel M", .gate = AnyController, .request = {6}, .reply = kSetReply, .fill = FillCommandM},
  {.code = 0x7A, .name = "channel Z", .gate = AnyController, .request = {2}, .reply = kSetReply, .fill = FillChannelSet},
  {.code = 0x4F, .name = "channel O", .gate = AnyController, .request = {3}, .reply = kSetReply, .fill = FillChannelSet},
  {.code = 0x7D, .name = "channel serial", .gate = SerialShort, .request = {1}, .reply = 97, .fill = FillGetSerial},
  {.code = 0x7D, .name = "channel serial", .gate = SerialLong, .request = {16}, .reply = 126, .fill = FillGetSerial, .zeroFrom = 2},
  {.code = 0x7B, .name = "set channel serial", .gate = SerialShort, .request = {97}, .reply = kSetReply, .fill = FillSetSerial},
  {.code = 0x7B, .name = "set channel serial", .gate = SerialLong, .request = {126}, .reply = kSetReply, .fill = FillSetSerial},
  {.code = 0x75, .name = "channel U", .gate = AnyController, .request = {2}, .reply = 18, .fill = FillReadU},
  {.code = 0x71, .name = "channel Q", .gate = ReadQGate, .request = {2}, .reply = 32, .fill = FillReadQ},
  {.code = 0x23, .name = "channel hash", .gate = HashGate, .request = {16}, .reply = kTwoReply, .fill = FillHash, .fixed = {{{.at = 1, .value = 0}}}, .zeroFrom = 3},
  {.code = 0x65, .name = "W EEPROM info", .gate = WEepromGate, .request = {32}, .reply = 18, .fill = FillWEepromInfo, .zeroFrom = 2},
  {.code = 0x66, .name = "W EEPROM read", .gate = WEepromOld, .request = {5}, .reply = 68, .fill = FillWRead},
  {.code = 0x66, .name = "W EEPROM read", .gate = WEepromNew, .request = {32}, .reply = 96, .fill = FillWRead, .fixed = {{{.at = 1, .value = 2}}}, .zeroFrom = 7},
  {.code = 0x67, .name = "W EEPROM write", .gate = WEepromOld, .request = {69}, .reply = kSetReply, .fill = FillWWrite},
  {.code = 0x67, .name = "W EEPROM write", .gate = WEepromNew, .request = {96}, .reply = kTwoReply, .fill = FillWWrite, .fixed = {{{.at = 1, .value = 2}}}},
};
// clang-format on

}  // namespace

}  // namespace sim::forms

namespace sim {

std::span<const CommandForm> ChannelCommandTable() {
  return forms::kForms;
}

}  // namespace sim
