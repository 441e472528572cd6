// The axes family: the stage axes' records (rotary count, tuning, definition, index capture,
// extents), the motion chips, the named record and the machine data. The tuning and definition
// commands also serve the W axis's and the platen's channels, which keep theirs as the bytes the
// host wrote.
#include <algorithm>
#include <cmath>

#include "sim/MachineForms.h"

namespace sim::forms {

namespace {

// The 47-byte axis definition is a view of the machine image's sections 2 and 3: each field of
// the reply is the axis's element of one image array. Reading it from the image keeps the older
// boards' per-axis answers and the image of the newer ones the same machine.
struct DefineField {
  std::uint8_t at;        // reply offset
  std::uint16_t imageAt;  // the array's offset in the image
  std::uint8_t width;     // bytes per element
};
constexpr std::uint16_t kSection2 = 232;
constexpr std::uint16_t kSection3 = 484;
constexpr DefineField kDefineFields[] = {
    {.at = 2, .imageAt = kSection2 + 2, .width = 4},
    {.at = 6, .imageAt = kSection2 + 18, .width = 2},
    {.at = 8, .imageAt = kSection2 + 26, .width = 2},
    {.at = 10, .imageAt = kSection2 + 34, .width = 2},
    {.at = 12, .imageAt = kSection2 + 42, .width = 2},
    {.at = 14, .imageAt = kSection2 + 50, .width = 2},
    {.at = 16, .imageAt = kSection2 + 58, .width = 4},
    {.at = 20, .imageAt = kSection2 + 74, .width = 2},
    {.at = 22, .imageAt = kSection2 + 82, .width = 2},
    {.at = 24, .imageAt = kSection2 + 90, .width = 2},
    {.at = 26, .imageAt = kSection2 + 98, .width = 1},
    {.at = 27, .imageAt = kSection2 + 102, .width = 1},
    {.at = 28, .imageAt = kSection2 + 106, .width = 1},
    {.at = 29, .imageAt = kSection2 + 110, .width = 1},
    {.at = 30, .imageAt = kSection2 + 114, .width = 1},
    {.at = 31, .imageAt = kSection3 + 2, .width = 4},
    {.at = 35, .imageAt = kSection3 + 18, .width = 1},
    {.at = 36, .imageAt = kSection3 + 22, .width = 1},
    {.at = 37, .imageAt = kSection2 + 118, .width = 1},
    {.at = 38, .imageAt = kSection3 + 30, .width = 1},
    {.at = 39, .imageAt = kSection3 + 34, .width = 1},
    {.at = 40, .imageAt = kSection2 + 122, .width = 4},
    {.at = 44, .imageAt = kSection2 + 138, .width = 1},
    {.at = 45, .imageAt = kSection2 + 142, .width = 2},
};
constexpr std::uint8_t kDefineRealAt = 2;
constexpr std::uint8_t kDefineKeepRealAt = 28;  // AxisFlag3: the real is kept as it is
constexpr std::uint8_t kDefineLastWordAt = 45;  // only from firmware 1.139

void PutAxisDefine(Board& board, std::size_t axis, wire::MutableBytes r) {
  const std::vector<std::uint8_t>& image = board.machineArea();
  const Profile& p = board.profile();
  for (const DefineField& f : kDefineFields) {
    if (f.at == kDefineLastWordAt && Fw(p) < 1.139) continue;
    std::copy_n(image.begin() + f.imageAt + f.width * axis, f.width, r.begin() + f.at);
  }
  // The older boards keep the axis real as its reciprocal in inches, which the host's upgrade
  // of the image turns back (1 / real x 25.4), except on axes that keep it as it is.
  if (Pv(p) < 2 && GetByte(r, kDefineKeepRealAt) == 0) {
    const float real = wire::GetReal(r, kDefineRealAt);
    if (real != 0.0f) wire::PutReal(r, kDefineRealAt, 25.4f / real);
  }
}

// The latched count stays; `captured` says a mark went by since the last look.
std::int8_t FillIndexCapture(Board& board, wire::Bytes q, wire::MutableBytes r) {
  bool* captured = nullptr;
  bool seen = false;
  std::uint32_t count = 0;
  if (StageAxis(q)) {
    Axis& a = M(board).axes[GetByte(q, 1)];
    captured = &a.indexCaptured;
    seen = a.indexSeen;
    count = a.indexCount;
  } else if (Channel* c = ChannelOf(board, q)) {
    captured = &c->indexCaptured;
    seen = c->indexSeen;
    count = c->indexCount;
  } else {
    return kReasonBadArgument;
  }
  // The first servo boards (protocol 0) have no valid flag and leave the byte at 0; a host takes
  // their count as valid regardless.
  const bool hasValidFlag = Mv(board.profile()) || Pv(board.profile()) >= 1;
  PutFlag(r, 1, hasValidFlag && seen);
  PutByte(r, 2, *captured ? 1 : 0);
  PutLong(r, 3, count);
  *captured = false;
  return 0;
}

std::int8_t FillRotaryOrLowerC(Board& board, wire::Bytes q, wire::MutableBytes r) {
  if (NoMotorRecords(board, q)) return kReasonBadArgument;
  if (StageAxis(q)) {
    PutLong(r, 2, M(board).axes[GetByte(q, 1)].RotaryCounts());
    return 0;
  }
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  PutLong(r, 2, c->Counts());
  PutLong(r, 6, static_cast<std::uint32_t>(c->target * c->countsPerMm));
  return 0;
}

std::int8_t FillGetPid(Board& board, wire::Bytes q, wire::MutableBytes r) {
  if (NoMotorRecords(board, q)) return kReasonBadArgument;
  if (StageAxis(q)) {
    const AxisTuning& t = M(board).axes[GetByte(q, 1)].tuning;
    PutWord(r, 2, t.kp);
    PutWord(r, 4, t.ki);
    PutWord(r, 6, t.kd);
    PutWord(r, 8, t.dt);
    PutWord(r, 10, t.kaff);
    PutWord(r, 12, t.kvff);
    PutWord(r, 14, t.kout);
    PutWord(r, 16, static_cast<std::uint16_t>(t.mb));
    PutLong(r, 18, t.il);
    PutLong(r, 22, t.fe);
    return 0;
  }
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  std::copy(c->pid.begin() + 2, c->pid.end(), r.begin() + 2);
  PutByte(r, 1, GetByte(q, 1));
  return 0;
}

std::int8_t FillSetPid(Board& board, wire::Bytes q, wire::MutableBytes) {
  if (NoMotorRecords(board, q)) return kReasonBadArgument;
  // The stage axes take the 26-byte record, the channels the 42-byte one.
  if ((q.size() == 26) != StageAxis(q))
    return IsChannel(GetByte(q, 1)) || StageAxis(q) ? kReasonBadRequest : kReasonBadArgument;
  if (StageAxis(q)) {
    Axis& a = M(board).axes[GetByte(q, 1)];
    a.SetTuning({.kp = GetWord(q, 2),
                 .ki = GetWord(q, 4),
                 .kd = GetWord(q, 6),
                 .dt = GetWord(q, 8),
                 .kaff = GetWord(q, 10),
                 .kvff = GetWord(q, 12),
                 .kout = GetWord(q, 14),
                 .mb = wire::GetSignedWord(q, 16),
                 .il = GetLong(q, 18),
                 .fe = GetLong(q, 22)});
    // A new record resets the amplifier of an axis that had failed.
    a.failed = false;
    a.stalledFor = 0;
    return 0;
  }
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  std::copy(q.begin(), q.end(), c->pid.begin());
  return 0;
}

std::int8_t FillAxisDefine(Board& board, wire::Bytes q, wire::MutableBytes r) {
  if (NoMotorRecords(board, q)) return kReasonBadArgument;
  if (StageAxis(q)) {
    PutAxisDefine(board, GetByte(q, 1), r);
    return 0;
  }
  Channel* c = ChannelOf(board, q);
  if (!c) return kReasonBadArgument;
  std::copy(c->define.begin() + 2, c->define.end(), r.begin() + 2);
  PutByte(r, 1, GetByte(q, 1));
  return 0;
}

// Extents 1 and 2 are the end switches; 3 and 4, where the limit test expects them, sit a
// millimetre inside. The short form has room for one pair only: the expected places.
std::int8_t FillExtents(Board& board, wire::Bytes, wire::MutableBytes r) {
  const Machine& m = M(board);
  const bool longForm = r.size() == 120;
  for (std::size_t i = 0; i < kStageAxes; ++i) {
    const Axis& a = m.axes[i];
    const auto end = static_cast<std::uint32_t>(std::lround(a.travel * a.countsPerMm));
    const auto inside = static_cast<std::uint32_t>(std::lround(a.countsPerMm));
    PutFlag(r, 1 + i, true);
    PutLong(r, 5 + 4 * i, longForm ? 0 : inside);
    PutLong(r, 21 + 4 * i, longForm ? end : end - inside);
    if (longForm) {
      PutLong(r, 37 + 4 * i, inside);
      PutLong(r, 53 + 4 * i, end - inside);
    }
  }
  return 0;
}

std::int8_t FillPmd(Board& board, wire::Bytes q, wire::MutableBytes r) {
  const std::uint8_t chip = GetByte(q, 2);
  if (chip > (CurrentServo(board.profile()) ? 1 : 0)) return kReasonBadArgument;
  const auto words = board.profile().chips[chip].Words();
  for (std::size_t i = 0; i < words.size(); ++i)
    PutWord(r, 2 * i, words[i]);
  return 0;
}

std::int8_t FillNamedRecord(Board& board, wire::Bytes, wire::MutableBytes r) {
  const NamedRecord& n = board.profile().namedRecord;
  PutFlag(r, 1, true);
  wire::PutWideText(r, 2, n.name);
  for (std::size_t i = 0; i < 3; ++i)
    wire::PutReal(r, 34 + 4 * i, n.values[i]);
  PutByte(r, 46, n.byte1);
  PutByte(r, 47, n.byte2);
  return 0;
}

// The same values the machine image's section 4 holds.
std::int8_t FillMachineData(Board&, wire::Bytes, wire::MutableBytes r) {
  PutFlag(r, 1, true);
  wire::PutReal(r, 6, 0.25f);
  PutFlag(r, 10, false);
  PutLong(r, 11, 0x00012345);
  PutLong(r, 15, 0x00067890);
  return 0;
}

// clang-format off
constexpr CommandForm kForms[] = {
  {.code = 0x4E, .name = "index capture", .gate = AnyController, .request = {2}, .reply = 7, .fill = FillIndexCapture},
  {.code = 0x63, .name = "rotary / channel C", .gate = AnyController, .request = {2}, .fill = FillRotaryOrLowerC, .length = RotaryOrLowerC},
  {.code = 0x74, .name = "get tuning", .gate = AnyController, .request = {2}, .fill = FillGetPid, .length = PidLength},
  {.code = 0x73, .name = "set tuning", .gate = AnyController, .request = {26, 42}, .reply = kSetReply, .fill = FillSetPid},
  {.code = 0x62, .name = "get definition", .gate = AnyController, .request = {2}, .fill = FillAxisDefine, .length = DefineLength},
  {.code = 0x5E, .name = "axis extents", .gate = Servo, .request = {1}, .fill = FillExtents, .length = ExtentsLength},
  {.code = 0x2C, .name = "motion chip version", .gate = PmdVersion, .request = {16}, .reply = 32, .fill = FillPmd, .fixed = {{{.at = 1, .value = 1}}}, .zeroFrom = 3},
  {.code = 0x72, .name = "named record", .gate = NamedRecordGate, .request = {1}, .reply = 65, .fill = FillNamedRecord},
  {.code = 0x31, .name = "machine data", .gate = MachineDataGate, .request = {1}, .reply = 32, .fill = FillMachineData},
};
// clang-format on

}  // namespace

}  // namespace sim::forms

namespace sim {

std::span<const CommandForm> AxisCommandTable() {
  return forms::kForms;
}

}  // namespace sim
