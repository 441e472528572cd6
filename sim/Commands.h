// The board's command set as a table of forms. A command may have several forms, one per board
// generation; the first form of a code whose gate holds for the board's profile is the one the
// board speaks. A code with no such form is unknown to the board and refused. Adding a command is
// adding a row and a fill routine to the table of its family.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "sim/Board.h"
#include "sim/Profiles.h"
#include "wire/WireFormat.h"

namespace sim {

// Reply length of a command that only sets something: 2 bytes from protocolVersion 1, none at 0.
inline constexpr std::uint16_t kSetReply = 0xFFFF;

// Fixed packet sizes of the base commands.
inline constexpr std::uint16_t kVersionReply = 69;
inline constexpr std::uint16_t kEepromInfoLongBytes = 32;
inline constexpr std::uint16_t kEepromInfoShortReply = 18;
inline constexpr std::uint16_t kIdentityReply = 97;
inline constexpr std::uint16_t kIdentityLongReply = 126;
inline constexpr std::uint16_t kDiagTextReply = 100;
inline constexpr std::uint16_t kBlockDataAt = 32;
inline constexpr std::uint16_t kBlockShortReply = 96;
inline constexpr std::uint16_t kBlockLongReply = 288;

// The last field of the version record is the flag at 66; three texts of 32 bytes follow byte 0
// of the identity; the identity's long form ends with the flag at 107.
static_assert(kVersionReply > 66);
static_assert(kIdentityReply == 1 + 3 * 32);
static_assert(kIdentityLongReply > 107);
static_assert(kEepromInfoLongBytes > 23 && kEepromInfoShortReply > 7);
// The data of a block read starts at byte 32; the short form carries at most 64 bytes of it.
static_assert(kBlockShortReply == kBlockDataAt + 64);
static_assert(kBlockLongReply == kBlockDataAt + 256);

// Fills `reply` (already zeroed, byte 0 set to the command code) from `request`; returns 0, or a
// refusal reason when the board refuses the request after all.
using FillFn = std::int8_t (*)(Board& board, wire::Bytes request, wire::MutableBytes reply);
using GateFn = bool (*)(const Profile& profile);
// The reply length of a form whose length depends on the request (an axis or a channel, a count).
using LengthFn = std::uint16_t (*)(const Profile& profile, wire::Bytes request);

// A byte of the request that the form fixes: a selector with one valid value, a reserved zero.
struct FixedByte {
  std::uint8_t at = 0;  // 0: no byte is fixed (byte 0 is the code itself)
  std::uint8_t value = 0;
};

struct CommandForm {
  std::uint8_t code;
  const char* name;
  GateFn gate;                           // the board speaks this form
  std::array<std::uint16_t, 2> request;  // lengths accepted; 0 marks an unused slot
  std::uint16_t reply = 0;               // bytes, or kSetReply
  FillFn fill;
  LengthFn length = nullptr;  // when set, replaces `reply`
  Pipe pipe = Pipe::kNormal;
  std::array<FixedByte, 2> fixed{};
  // A request of 16 or 32 bytes is zero behind its fields: from this byte to its end. 0: the
  // form has no such fill.
  std::uint16_t zeroFrom = 0;
};

// The base commands (Commands.cpp), and the machine's families: the status poll and board data
// (StatusCommands.cpp), the axes (AxisCommands.cpp), lights, probes, laser and interrupts
// (LightProbeLaserCommands.cpp), the W axis and platen (ChannelCommands.cpp). Every form of one
// code is in one family's table, in the order the board tries them.
std::span<const CommandForm> CommandTable();
std::span<const CommandForm> StatusCommandTable();
std::span<const CommandForm> AxisCommandTable();
std::span<const CommandForm> LightProbeLaserCommandTable();
std::span<const CommandForm> ChannelCommandTable();

// The form the board speaks for `code` and a request of `length` bytes: among the forms whose gate
// holds, the first that takes that length, else the first (which refuses the length). Null when
// the code is unknown to the board.
const CommandForm* FindForm(std::uint8_t code, const Profile& profile, std::size_t length);

// The reply length of `form` on a board of `profile` for `request` (resolves kSetReply).
std::uint16_t ReplyLength(const CommandForm& form, const Profile& profile, wire::Bytes request);

bool AcceptsRequestLength(const CommandForm& form, std::size_t length);

// True when every byte the form fixes holds its value and the zero fill behind the fields is zero.
bool FixedBytesHold(const CommandForm& form, wire::Bytes request);

}  // namespace sim
