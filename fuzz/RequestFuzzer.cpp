// Feeds arbitrary command packets to the simulated board, of every profile, with time passing
// between them: whatever a host sends, the board answers or refuses and never reads or writes
// outside its buffers. The first byte picks the profile; then each packet is a length byte, the
// packet's bytes and a byte of elapsed machine time (tens of milliseconds), whose top bit sends
// the next packet as a capture command.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "sim/Board.h"
#include "sim/Profiles.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const auto& profiles = sim::Profiles();
  const sim::Profile& profile = profiles[data[0] % profiles.size()];
  platform::TimePoint now{};
  sim::Board board(profile, std::chrono::seconds(5), now);
  std::size_t at = 1;
  sim::Pipe pipe = sim::Pipe::kNormal;
  while (at < size) {
    const std::size_t length = data[at++];
    if (length == 0 || at + length > size) break;
    const std::vector<std::uint8_t> packet(data + at, data + at + length);
    at += length;
    const sim::BoardReply reply = board.Execute(packet, pipe);
    if (reply.bytes.size() > 1022) __builtin_trap();
    if (at < size) {
      pipe = data[at] & 0x80 ? sim::Pipe::kCapture : sim::Pipe::kNormal;
      now += std::chrono::milliseconds(10 * (data[at++] & 0x7F));
    }
    board.Advance(now);
  }
  return 0;
}
