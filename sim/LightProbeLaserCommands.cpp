// The lights, probes, laser and interrupts family: the light channels in their one-word and packet
// forms, the touch probe (enable, sensitivity, capture), the probe capture of the capture code,
// the laser's points and settings, and the interrupt sources.
#include <algorithm>
#include <cmath>

#include "sim/MachineForms.h"

namespace sim::forms {

namespace {

// The one-word form's single maximum is channel 0's, as much of it as a word holds.
std::uint32_t OneWordMaximum(const Machine& m) {
  return std::min<std::uint32_t>(m.LightMaximum(0), 0xFFFF);
}

std::int8_t FillLightMaxOneWord(Board& board, wire::Bytes, wire::MutableBytes r) {
  PutWord(r, 2, static_cast<std::uint16_t>(OneWordMaximum(M(board))));
  return 0;
}

// Behind the first driver a packet carries 21 channels; behind the newer one 42. Byte 2 of the
// request names the packet size the host expects (0: 21, 1: 42).
std::size_t ChannelsPerPacket(const Profile& p) {
  return OldDriver(p) ? 21 : 42;
}

bool PacketSizeAgrees(const Profile& p, wire::Bytes q) {
  return GetByte(q, 2) == (OldDriver(p) ? 0 : 1);
}

std::int8_t FillLightMax(Board& board, wire::Bytes q, wire::MutableBytes r) {
  const Profile& p = board.profile();
  if (!PacketSizeAgrees(p, q)) return kReasonBadArgument;
  const std::size_t first = GetByte(q, 1);
  const std::size_t n = M(board).lights.size();
  if (first > n) return kReasonBadArgument;
  for (std::size_t i = 0; i < ChannelsPerPacket(p) && first + i < n; ++i)
    PutLong(r, 2 + 4 * i, M(board).LightMaximum(first + i));
  return 0;
}

// A channel whose byte is set takes the word; the board's one maximum bounds it.
std::int8_t FillSetLightsOneWord(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  auto& lights = m.lights;
  for (std::size_t i = 0; i < lights.size() && i < 42; ++i) {
    if (GetByte(q, 1 + i) != 0)
      lights[i] = std::min<std::uint32_t>(GetWord(q, 43 + 2 * i), OneWordMaximum(m));
  }
  return 0;
}

std::int8_t FillSetLights(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  auto& lights = m.lights;
  const std::size_t first = GetByte(q, 1);
  if (first > lights.size()) return kReasonBadArgument;
  for (std::size_t i = 0; i < ChannelsPerPacket(board.profile()) && first + i < lights.size(); ++i)
    lights[first + i] = std::min(GetLong(q, 2 + 4 * i), m.LightMaximum(first + i));
  return 0;
}

std::int8_t FillTouchEnable(Board& board, wire::Bytes q, wire::MutableBytes) {
  M(board).probeEnabled = wire::GetFlag(q, 1);
  return 0;
}

// Where the probe tripped (the capture) and where it last let go; fetching it ends the capture.
std::int8_t FillTouchCapture(Board& board, wire::Bytes, wire::MutableBytes r) {
  Machine& m = M(board);
  PutFlag(r, 1, m.touchCapture.pending);
  for (std::size_t i = 0; i < 4; ++i) {
    PutLong(r, 4 + 4 * i, m.touchCapture.position[i]);
    PutLong(r, 20 + 4 * i, m.probeRelease[i]);
  }
  m.touchCapture.pending = false;
  return 0;
}

// Four capture sources, fields from byte 0: 0 the camera's frame trigger, 1 the touch probe; the
// laser (2) and the spare input (3) capture nothing here. A source that is asked for and has a
// capture hands it out once.
std::int8_t FillProbeCapture(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Machine& m = M(board);
  Capture* sources[4] = {&m.videoCapture, &m.touchCapture, nullptr, nullptr};
  for (std::size_t i = 0; i < 4; ++i) {
    Capture* c = sources[i];
    const bool available = GetByte(q, 1 + i) != 0 && c && c->pending;
    PutFlag(r, i, available);
    PutFlag(r, 4 + i, available);
    PutByte(r, 8 + i, GetByte(q, 5 + i));
    if (!available) continue;
    for (std::size_t j = 0; j < 4; ++j)
      PutLong(r, 12 + 16 * i + 4 * j, c->position[j]);
    if (r.size() == 92) PutLong(r, 76 + 4 * i, c->time);
    c->pending = false;
  }
  return 0;
}

std::int8_t FillLaserPoints(Board& board, wire::Bytes q, wire::MutableBytes r) {
  Machine& m = M(board);
  const Profile& p = board.profile();
  if (!m.laserReady || p.version.laserNotReady) return kReasonBadArgument;
  const LaserForm& f = LaserFormOf(p);
  const std::uint16_t asked = std::min<std::uint16_t>(GetByte(q, 1), f.limit);
  const std::uint16_t count = std::min(asked, m.laserPointsReady);
  PutByte(r, 0, static_cast<std::uint8_t>(count));
  const auto pending = static_cast<std::uint16_t>(m.laserPointsReady - count);
  if (f.pendingWord) {
    PutWord(r, 1, pending);
  } else {
    PutByte(r, 1, static_cast<std::uint8_t>(std::min<std::uint16_t>(pending, 255)));
  }
  // The oldest point first, one sample period apart, ending now; the laser reads the stage's
  // position with a few counts of its own scatter.
  const double period =
      std::ldexp(1.0, static_cast<int>(m.laserSettings[kLaserRateWord] % 16)) / 2.5;
  for (std::uint16_t i = 0; i < count; ++i) {
    const auto time = static_cast<std::uint32_t>(
        std::max(0.0, m.Millis() - period * (m.laserPointsReady - 1 - i)));
    std::uint32_t position[3];
    for (std::size_t j = 0; j < 3; ++j)
      position[j] = static_cast<std::uint32_t>(m.axes[j].LinearCounts() +
                                               static_cast<std::int32_t>(std::lround(m.Noise(3))));
    if (f.stride == 0) {
      PutLong(r, f.time + 4 * i, time);
      for (std::size_t j = 0; j < 3; ++j)
        PutLong(r, f.position + 16 * i + 4 * j, position[j]);
      continue;
    }
    const std::size_t at = f.head + f.stride * i;
    // A point taken while the laser interrupt is armed is marked as the interrupt's; one read
    // without it is a polled sample.
    if (f.valid >= 0) PutFlag(r, at + f.valid, m.laserInterrupt);
    PutLong(r, at + f.time, time);
    for (std::size_t j = 0; j < 3; ++j)
      PutLong(r, at + f.position + 4 * j, position[j]);
    if (f.extra >= 0) PutLong(r, at + f.extra, 200 + i);  // the return's intensity
  }
  m.laserPointsReady = pending;
  return 0;
}

// Byte 1 tells the two forms apart: 0 asks for the settings, 1 sets them.
std::int8_t FillGetLaserSettings(Board& board, wire::Bytes, wire::MutableBytes r) {
  Machine& m = M(board);
  if (!m.laserReady) return kReasonBadArgument;
  for (std::size_t i = 0; i < kLaserSettings; ++i)
    PutLong(r, 2 + 4 * i, m.laserSettings[i]);
  return 0;
}

std::int8_t FillSetLaserSettings(Board& board, wire::Bytes q, wire::MutableBytes) {
  Machine& m = M(board);
  if (!m.laserReady) return kReasonBadArgument;
  for (std::size_t i = 0; i < kLaserSettings; ++i)
    m.laserSettings[i] = GetLong(q, 2 + 4 * i);
  return 0;
}

// Each of the older commands makes its source the one armed: 0x6A none, 0x69 video, 0x64 touch.
std::int8_t FillInterruptByte(Board& board, wire::Bytes q, wire::MutableBytes) {
  const std::uint8_t code = GetByte(q, 0);
  M(board).ArmInterrupts(code == 0x69, code == 0x64, false);
  return 0;
}

// A flag byte per source says whether it is armed; byte 1 disarms them all.
std::int8_t FillInterruptPacket(Board& board, wire::Bytes q, wire::MutableBytes) {
  const bool off = GetByte(q, 1) != 0;
  M(board).ArmInterrupts(!off && GetByte(q, 3), !off && GetByte(q, 4), !off && GetByte(q, 5));
  return 0;
}

std::int8_t FillSetSensitivity(Board& board, wire::Bytes q, wire::MutableBytes) {
  // Like the slider that sets it, the probe takes anything and stops at its maximum.
  Machine& m = M(board);
  m.probeSensitivity = std::min(GetWord(q, 1), m.sensitivityMaximum);
  return 0;
}

std::int8_t FillGetSensitivity(Board& board, wire::Bytes, wire::MutableBytes r) {
  PutWord(r, 1, M(board).probeSensitivity);
  return 0;
}

std::int8_t FillSensitivityMax(Board& board, wire::Bytes, wire::MutableBytes r) {
  PutWord(r, 1, M(board).sensitivityMaximum);
  return 0;
}

// clang-format off
constexpr CommandForm kForms[] = {
  {.code = 0x77, .name = "set sensitivity", .gate = Servo, .request = {3}, .reply = kSetReply, .fill = FillSetSensitivity},
  {.code = 0x78, .name = "get sensitivity", .gate = Servo, .request = {1}, .reply = 3, .fill = FillGetSensitivity},
  {.code = 0x79, .name = "sensitivity maximum", .gate = Servo, .request = {1}, .reply = 3, .fill = FillSensitivityMax},
  {.code = 0x70, .name = "light maxima", .gate = OneWordLights, .request = {2}, .reply = 4, .fill = FillLightMaxOneWord, .fixed = {{{.at = 1, .value = 0}}}},
  {.code = 0x70, .name = "light maxima", .gate = PacketLightsOldDriver, .request = {16}, .reply = 86, .fill = FillLightMax, .fixed = {{{.at = 2, .value = 0}}}, .zeroFrom = 3},
  {.code = 0x70, .name = "light maxima", .gate = PacketLightsNewDriver, .request = {16}, .reply = 254, .fill = FillLightMax, .fixed = {{{.at = 2, .value = 1}}}, .zeroFrom = 3},
  {.code = 0x6E, .name = "set lights", .gate = OneWordLights, .request = {127}, .reply = kSetReply, .fill = FillSetLightsOneWord},
  {.code = 0x6E, .name = "set lights", .gate = PacketLightsOldDriver, .request = {86}, .reply = kTwoReply, .fill = FillSetLights},
  {.code = 0x6E, .name = "set lights", .gate = PacketLightsNewDriver, .request = {254}, .reply = kTwoReply, .fill = FillSetLights},
  {.code = 0x32, .name = "touch probe enable", .gate = TouchProbe, .request = {16}, .reply = kSetReply, .fill = FillTouchEnable, .zeroFrom = 2},
  {.code = 0x36, .name = "touch probe capture", .gate = TouchProbe, .request = {1}, .reply = 62, .fill = FillTouchCapture},
  {.code = 0x6B, .name = "probe capture", .gate = AnyController, .request = {9}, .fill = FillProbeCapture, .length = ProbeCaptureLength, .pipe = Pipe::kCapture},
  {.code = 0x5F, .name = "laser points", .gate = LaserPoints, .request = {16}, .fill = FillLaserPoints, .length = LaserPointsLength, .pipe = Pipe::kCapture, .zeroFrom = 2},
  {.code = 0x2A, .name = "get laser settings", .gate = LaserSettings, .request = {2}, .reply = 126, .fill = FillGetLaserSettings, .fixed = {{{.at = 1, .value = 0}}}},
  {.code = 0x2A, .name = "set laser settings", .gate = LaserSettings, .request = {126}, .reply = kSetReply, .fill = FillSetLaserSettings, .fixed = {{{.at = 1, .value = 1}}}},
  {.code = 0x6A, .name = "disable interrupts", .gate = OneByteInterrupts, .request = {1}, .reply = kSetReply, .fill = FillInterruptByte},
  {.code = 0x64, .name = "touch interrupt", .gate = OneByteInterrupts, .request = {1}, .reply = kSetReply, .fill = FillInterruptByte},
  {.code = 0x69, .name = "video interrupt", .gate = OneByteInterrupts, .request = {1}, .reply = kSetReply, .fill = FillInterruptByte},
  {.code = 0x69, .name = "interrupts", .gate = InterruptPacket, .request = {16}, .reply = kTwoReply, .fill = FillInterruptPacket, .zeroFrom = 6},
};
// clang-format on

}  // namespace

}  // namespace sim::forms

namespace sim {

std::span<const CommandForm> LightProbeLaserCommandTable() {
  return forms::kForms;
}

}  // namespace sim
