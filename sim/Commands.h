// The board's command set as a table of forms. A command may have several forms, one per board
// generation; the first form of a code whose gate holds for the board's profile is the one the
// board speaks. A code with no such form is unknown to the board and refused. Adding a command is
// adding rows here and a fill routine in Commands.cpp.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "wire/WireFormat.h"
#include "sim/Board.h"
#include "sim/Profiles.h"

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

struct CommandForm {
  std::uint8_t code;
  const char* name;
  GateFn gate;                                  // the board speaks this form
  std::array<std::uint16_t, 2> requestLengths;  // lengths accepted; 0 marks an unused slot
  std::uint16_t replyLength;                    // bytes, or kSetReply
  FillFn fill;
  LengthFn length = nullptr;  // when set, replaces replyLength
};

// The base commands, and the machine's (MachineCommands.cpp).
std::span<const CommandForm> CommandTable();
std::span<const CommandForm> MachineCommandTable();

// The form the board speaks for `code`, or null when the code is unknown to it.
const CommandForm* FindForm(std::uint8_t code, const Profile& profile);

// The reply length of `form` on a board of `profile` for `request` (resolves kSetReply).
std::uint16_t ReplyLength(const CommandForm& form, const Profile& profile, wire::Bytes request);

bool AcceptsRequestLength(const CommandForm& form, std::size_t length);

}  // namespace sim
