// The simulated board's firmware: its state (profile, EEPROM, pending diagnostic text) and the
// execution of one command packet. It knows nothing about sockets or the driver's framing; the
// Simulator feeds it packets and shapes what it answers.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Clock.h"
#include "sim/Machine.h"
#include "sim/Profiles.h"
#include "wire/WireFormat.h"

namespace sim {

// Refusal reasons, the signed byte behind 0x3F.
inline constexpr std::int8_t kReasonUnknownCommand = -1;  // code unknown to this generation
// The request is not of the command's form: a length it does not take, a byte it fixes that
// holds another value, or a zero fill that is not zero.
inline constexpr std::int8_t kReasonBadRequest = -2;
inline constexpr std::int8_t kReasonBadArgument = -3;  // e.g. an axis that is not fitted
inline constexpr std::int8_t kReasonInjected = -4;     // default of the refuse fault
inline constexpr std::uint8_t kRefusalByte = 0x3F;

// The driver's two ways in: the capture commands come only through the capture code, which the
// firmware serves apart from the rest, and every other command only as a normal command.
enum class Pipe : std::uint8_t { kNormal, kCapture };

// Status byte of the EEPROM block read.
inline constexpr std::uint8_t kEepromOk = 0;
inline constexpr std::uint8_t kEepromOutOfRange = 1;  // address plus length beyond the area
inline constexpr std::uint8_t kEepromTooLong = 2;     // reaches past maxReadWrite from its page
inline constexpr std::uint8_t kEepromBadArea = 3;

// What the board sends back for one packet: its natural reply, or a two-byte refusal.
struct BoardReply {
  std::vector<std::uint8_t> bytes;
  bool refused = false;
};

// A profile's text as ASCII, '?' for anything else: for messages and the control language.
std::string ToNarrow(const std::u16string& text);

class Board {
 public:
  // `diagPeriod` is how often the firmware emits a line of diagnostic text by itself (zero or
  // negative: never); `now` is when the board powers up.
  Board(const Profile& profile, platform::Duration diagPeriod, platform::TimePoint now);

  // Becomes a board of another profile: version record, identity and EEPROM contents are
  // replaced. Pending diagnostic text is dropped, as a new board would not have it.
  void SetProfile(const Profile& profile, platform::TimePoint now);
  const Profile& profile() const { return profile_; }
  // What a person changes at the machine (a platen plugged in, the light channels) shows in the
  // version record as well.
  Profile& mutableProfile() { return profile_; }
  Machine& machine() { return *machine_; }
  // The machine area of the EEPROM, the image at its start.
  const std::vector<std::uint8_t>& machineArea() const { return machineArea_; }

  // The firmware restarts at `now`: the machine forgets what the host gave it (Machine::Restart),
  // pending diagnostic text is gone and the heartbeat counts from here. Profile and EEPROM stay.
  void Restart(platform::TimePoint now);

  // Brings what runs by itself up to `now`: the periodic diagnostic line.
  void Advance(platform::TimePoint now);

  // Executes one command packet (byte 0 is the command code, never empty) that came through
  // `pipe`. A command that came the other way is unknown to the firmware's handler there.
  BoardReply Execute(wire::Bytes request, Pipe pipe = Pipe::kNormal);

  // Diagnostic output: text queued by the firmware or injected, handed out by command 0x22.
  void QueueDiagText(std::string_view text);
  std::string TakeDiagText(std::size_t max);
  std::size_t PendingDiagBytes() const { return diagPending_.size(); }

  // Reads `length` bytes of an EEPROM area (0 machine, 1 user) into `out` and returns the status
  // byte of the block read; `out` is untouched unless the status is kEepromOk.
  std::uint8_t ReadEeprom(std::uint8_t area, std::uint32_t address, std::uint32_t length,
                          std::uint8_t* out) const;

 private:
  void EmitDiagLine(platform::TimePoint at);

  Profile profile_;
  std::unique_ptr<Machine> machine_;
  std::vector<std::uint8_t> machineArea_;
  std::vector<std::uint8_t> userArea_;
  platform::Duration diagPeriod_;
  platform::TimePoint poweredAt_;
  platform::TimePoint nextDiagAt_;
  std::uint32_t diagLines_ = 0;
  std::uint32_t executed_ = 0;
  std::string diagPending_;
};

}  // namespace sim
