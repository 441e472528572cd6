// The status poll (command 0x59): three reply layouts, one table of offsets each.
#include <algorithm>

#include "link/CTavroUsbController.h"

namespace {

constexpr std::uint8_t kPollCode = 0x59;
constexpr int kNone = -1;

// Where each field or array begins in one form of the reply; kNone: the form lacks it.
struct PollLayout {
  std::uint32_t length;
  int touchCaptureReady, touchProbeTrip, auxFlag2, sleep;
  int moving, limit, settled, stalled, failed;
  int auxLong, linearPosition;
  bool inputsTwoBytes;  // the compact form carries Inputs[2..3] and Inputs2[2..3] only
  int inputs, inputs2, footswitch, auxFlags0, auxFlags12, auxFlag3, auxWord;
  int wChannels;  // entries of the W arrays the form carries
  int wMoving, wSettled, wStalled, wLimit, wLongA, wLongB;
  int platenMoving, platenSettled, platenStalled, platenLimit, platenLongA, platenLongB;
};

// clang-format off
constexpr PollLayout kOldest = {
    28,  kNone, kNone, kNone, kNone,  8, 12, 16, 20, 24,  kNone, kNone,
    false, kNone, kNone, kNone, kNone, kNone, kNone, kNone,
    0, kNone, kNone, kNone, kNone, kNone, kNone,
    kNone, kNone, kNone, kNone, kNone, kNone};
// The compact form has one set of bytes for W and the platen: 34 to 45 fill both.
constexpr PollLayout kCompact = {
    62,  4, 5, 6, kNone,  8, 12, 16, 20, 24,  kNone, 46,
    true, 28, 29, 32, 33, kNone, kNone, kNone,
    1, 34, 35, 36, 37, 38, 42,
    34, 35, 36, 37, 38, 42};
constexpr PollLayout kLong = {
    221,  4, 5, 6, 7,  23, 27, 31, 35, 39,  55, 59,
    false, 75, 91, 107, 108, 109, 111, 112,
    3, 127, 130, 133, 136, 139, 151,
    163, 164, 165, 166, 167, 171};
// clang-format on

static_assert(kLong.platenLongB + 4 <= static_cast<int>(kLong.length));
static_assert(kCompact.linearPosition + 16 == static_cast<int>(kCompact.length));

class PollReader {
 public:
  explicit PollReader(wire::Bytes r) : r_(r) {}

  void Flag(int at, bool& out) const {
    if (at != kNone) out = wire::GetFlag(r_, static_cast<std::size_t>(at));
  }
  void Raw(int at, std::int8_t& out) const {
    if (at != kNone) out = wire::GetSignedByte(r_, static_cast<std::size_t>(at));
  }
  void Raw(int at, std::uint8_t& out) const {
    if (at != kNone) out = wire::GetByte(r_, static_cast<std::size_t>(at));
  }
  template <typename T>
  void Long(int at, T& out) const {
    if (at != kNone) out = static_cast<T>(wire::GetLong(r_, static_cast<std::size_t>(at)));
  }
  void Word(int at, std::uint16_t& out) const {
    if (at != kNone) out = wire::GetWord(r_, static_cast<std::size_t>(at));
  }
  // `count` entries of one byte (flags or raw) or of four bytes (longs) from `at`.
  template <typename T>
  void Flags(int at, T* out, int count) const {
    for (int i = 0; at != kNone && i < count; ++i)
      Flag(at + i, out[i]);
  }
  template <typename T>
  void Raws(int at, T* out, int count) const {
    for (int i = 0; at != kNone && i < count; ++i)
      Raw(at + i, out[i]);
  }
  template <typename T>
  void Longs(int at, T* out, int count) const {
    for (int i = 0; at != kNone && i < count; ++i)
      Long(at + 4 * i, out[i]);
  }

 private:
  wire::Bytes r_;
};

const PollLayout& ChooseLayout(bool manualVision, std::uint16_t protocol,
                               std::uint32_t machineKind) {
  if (manualVision) return protocol >= 5 ? kLong : kCompact;
  if (protocol == 0) return kOldest;
  return machineKind >= 2 ? kLong : kCompact;
}

void Decode(const PollLayout& f, const PollReader& in, bool readFailed, ServoStatus& out) {
  in.Flag(1, out.EStop);
  in.Flag(2, out.AuxFlag1);
  in.Flag(3, out.CaptureReady);
  in.Raw(f.touchCaptureReady, out.TouchCaptureReady);
  in.Flag(f.touchProbeTrip, out.TouchProbeTrip);
  in.Flag(f.auxFlag2, out.AuxFlag2);
  in.Flag(f.sleep, out.Sleep);
  in.Flags(f.moving, out.Moving, 4);
  in.Raws(f.limit, out.Limit, 4);
  in.Flags(f.settled, out.Settled, 4);
  in.Flags(f.stalled, out.Stalled, 4);
  if (readFailed) in.Flags(f.failed, out.Failed, 4);
  in.Long(f.auxLong, out.AuxLong);
  in.Longs(f.linearPosition, out.LinearPosition, 4);
  if (f.inputsTwoBytes) {
    in.Flag(f.inputs, out.Inputs[2]);
    in.Flag(f.inputs + 2, out.Inputs[3]);
    in.Flag(f.inputs2, out.Inputs2[2]);
    in.Flag(f.inputs2 + 2, out.Inputs2[3]);
  } else {
    in.Flags(f.inputs, out.Inputs, 16);
    in.Flags(f.inputs2, out.Inputs2, 16);
  }
  in.Flag(f.footswitch, out.Footswitch);
  in.Flag(f.auxFlags0, out.AuxFlags[0]);
  in.Flags(f.auxFlags12, out.AuxFlags + 1, 2);
  in.Flag(f.auxFlag3, out.AuxFlag3);
  in.Word(f.auxWord, out.AuxWord);
  // The W arrays: W itself first, then the two further channels where the form has them.
  in.Flag(f.wMoving, out.WMoving);
  in.Flags(f.wMoving + 1, out.AuxMoving, f.wChannels - 1);
  in.Flag(f.wSettled, out.WSettled);
  in.Flags(f.wSettled + 1, out.AuxSettled, f.wChannels - 1);
  in.Flag(f.wStalled, out.WStalled);
  in.Flags(f.wStalled + 1, out.AuxStalled, f.wChannels - 1);
  in.Raws(f.wLimit, out.WLimit, f.wChannels);
  in.Longs(f.wLongA, out.WLongA, f.wChannels);
  in.Longs(f.wLongB, out.WLongB, f.wChannels);
  in.Flag(f.platenMoving, out.PlatenMoving);
  in.Flag(f.platenSettled, out.PlatenSettled);
  in.Flag(f.platenStalled, out.PlatenStalled);
  in.Raw(f.platenLimit, out.PlatenLimit);
  in.Long(f.platenLongA, out.PlatenLongA);
  in.Long(f.platenLongB, out.PlatenLongB);
}

}  // namespace

bool CTavroUsbController::PollStatus(ServoStatus& out, std::uint8_t wantCapture,
                                     std::uint8_t flag) {
  const PollLayout& form = ChooseLayout(ManualVision(), Protocol(), machineKind);
  Packet request(kPollCode, 16);
  request.Byte(1, wantCapture);
  // The oldest boards read byte 2 as something else: it stays 0 for them.
  if (ManualVision() || Protocol() > 0) request.Byte(2, flag);
  ReplyBuffer reply(form.length);
  if (!Send(request, reply)) return false;
  out = ServoStatus{};
  // Boards before firmware 1.119 do not report a failed axis.
  const bool readFailed = ManualVision() || Firmware() >= 1.119;
  Decode(form, PollReader(reply.Bytes()), readFailed, out);
  // The oldest form knows nothing of W: it shows the axis settled and at rest.
  if (&form == &kOldest) out.WSettled = true;
  return true;
}
