#include "sim/Board.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "sim/Commands.h"
#include "sim/MachineImage.h"

namespace sim {

namespace {

// Pending diagnostic text is bounded like the firmware's buffer: the oldest text goes first.
constexpr std::size_t kDiagBufferBytes = 4096;
// After a long silence (hours of virtual time) the firmware does not replay every missed line.
constexpr std::uint32_t kMaxCatchUpLines = 8;

}  // namespace

std::string ToNarrow(const std::u16string& text) {
  std::string out;
  for (char16_t c : text)
    out.push_back(c < 0x80 ? static_cast<char>(c) : '?');
  return out;
}

Board::Board(const Profile& profile, platform::Duration diagPeriod, platform::TimePoint now)
    : diagPeriod_(diagPeriod) {
  SetProfile(profile, now);
}

void Board::SetProfile(const Profile& profile, platform::TimePoint now) {
  profile_ = profile;
  // The machine area holds the image at address 0 and is erased (0xFF) behind it; the user area
  // is erased throughout.
  machineArea_.assign(profile.eeprom.machineSize, 0xFF);
  const std::vector<std::uint8_t> image = BuildMachineImage(profile);
  std::copy_n(image.begin(), std::min(image.size(), machineArea_.size()), machineArea_.begin());
  userArea_.assign(profile.eeprom.userSize, 0xFF);
  machine_ = std::make_unique<Machine>(profile, now);
  poweredAt_ = now;
  nextDiagAt_ = now + diagPeriod_;
  diagLines_ = 0;
  executed_ = 0;
  diagPending_.clear();
}

void Board::Restart(platform::TimePoint now) {
  machine_->Restart(now);
  poweredAt_ = now;
  nextDiagAt_ = now + diagPeriod_;
  diagLines_ = 0;
  executed_ = 0;
  diagPending_.clear();
}

void Board::Advance(platform::TimePoint now) {
  machine_->Advance(now);
  if (diagPeriod_ <= platform::Duration::zero()) return;
  std::uint32_t emitted = 0;
  while (nextDiagAt_ <= now) {
    if (emitted++ == kMaxCatchUpLines) {
      // Skip the rest of the silence: the next line comes one period from now.
      nextDiagAt_ = now + diagPeriod_;
      break;
    }
    EmitDiagLine(nextDiagAt_);
    nextDiagAt_ += diagPeriod_;
  }
}

// One heartbeat line, as the firmware prints it on its debug output.
void Board::EmitDiagLine(platform::TimePoint at) {
  if (profile_.version.protocolVersion < 2) return;  // such boards have no diagnostic output
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(at - poweredAt_).count();
  char line[128];
  std::snprintf(line, sizeof line, "[%7lld.%03lld] %s %.2f: heartbeat %u, %u commands\r\n",
                static_cast<long long>(ms / 1000), static_cast<long long>(ms % 1000),
                ToNarrow(profile_.version.firmwareName).c_str(),
                static_cast<double>(profile_.version.firmwareVersion), ++diagLines_, executed_);
  QueueDiagText(line);
}

void Board::QueueDiagText(std::string_view text) {
  // A zero byte would end the text early on the host, which reads up to the first zero.
  for (char c : text) {
    if (c != '\0') diagPending_.push_back(c);
  }
  if (diagPending_.size() > kDiagBufferBytes) {
    diagPending_.erase(0, diagPending_.size() - kDiagBufferBytes);
  }
}

std::string Board::TakeDiagText(std::size_t max) {
  std::string piece = diagPending_.substr(0, max);
  diagPending_.erase(0, piece.size());
  return piece;
}

std::uint8_t Board::ReadEeprom(std::uint8_t area, std::uint32_t address, std::uint32_t length,
                               std::uint8_t* out) const {
  if (area > 1) return kEepromBadArea;
  const EepromGeometry& e = profile_.eeprom;
  const std::uint64_t inPage = e.pageSize ? address % e.pageSize : 0;
  if (inPage + length > e.maxReadWrite) return kEepromTooLong;
  const std::vector<std::uint8_t>& data = area == 0 ? machineArea_ : userArea_;
  if (std::uint64_t{address} + length > data.size()) return kEepromOutOfRange;
  if (length > 0) std::memcpy(out, data.data() + address, length);
  return kEepromOk;
}

BoardReply Board::Execute(wire::Bytes request, Pipe pipe) {
  BoardReply reply;
  const std::uint8_t code = request[0];
  const CommandForm* form = FindForm(code, profile_, request.size());
  std::int8_t reason = kReasonUnknownCommand;
  if (form && form->pipe == pipe) {
    reason = AcceptsRequestLength(*form, request.size()) && FixedBytesHold(*form, request)
                 ? 0
                 : kReasonBadRequest;
  }
  if (reason == 0) {
    reply.bytes.assign(ReplyLength(*form, profile_, request), 0);
    if (!reply.bytes.empty()) reply.bytes[0] = code;
    reason = form->fill(*this, request, reply.bytes);
  }
  ++executed_;
  if (reason != 0) {
    reply.refused = true;
    reply.bytes = {kRefusalByte, static_cast<std::uint8_t>(reason)};
  }
  return reply;
}

}  // namespace sim
