// The status poll (command 0x59): three reply layouts, one table of offsets each.
#include <algorithm>

#include "link/CTavroUsbController.h"

namespace {

constexpr std::uint8_t kPollCode = 0x59;
constexpr int kNone = -1;

// Where each field or array begins in one form of the reply; kNone: the form lacks it. Each form
// names the fields it has, so that a value set against the wrong field cannot go unnoticed.
struct PollLayout {
  std::uint32_t length;
  int touchCaptureReady = kNone, touchProbeTrip = kNone, auxFlag2 = kNone, sleep = kNone;
  int moving, limit, settled, stalled, failed;
  int auxLong = kNone, linearPosition = kNone;
  bool inputsTwoBytes = false;  // the compact form carries Inputs[2..3] and Inputs2[2..3] only
  int inputs = kNone, inputs2 = kNone, footswitch = kNone, auxFlags0 = kNone, auxFlags12 = kNone,
      auxFlag3 = kNone, auxWord = kNone;
  int wChannels = 0;  // entries of the W arrays the form carries
  int wMoving = kNone, wSettled = kNone, wStalled = kNone, wLimit = kNone, wLongA = kNone,
      wLongB = kNone;
  int platenMoving = kNone, platenSettled = kNone, platenStalled = kNone, platenLimit = kNone,
      platenLongA = kNone, platenLongB = kNone;
};

constexpr PollLayout kOldest = {
    .length = 28, .moving = 8, .limit = 12, .settled = 16, .stalled = 20, .failed = 24};
// The compact form has one set of bytes for W and the platen: 34 to 45 fill both.
constexpr PollLayout kCompact = {.length = 62,
                                 .touchCaptureReady = 4,
                                 .touchProbeTrip = 5,
                                 .auxFlag2 = 6,
                                 .moving = 8,
                                 .limit = 12,
                                 .settled = 16,
                                 .stalled = 20,
                                 .failed = 24,
                                 .linearPosition = 46,
                                 .inputsTwoBytes = true,
                                 .inputs = 28,
                                 .inputs2 = 29,
                                 .footswitch = 32,
                                 .auxFlags0 = 33,
                                 .wChannels = 1,
                                 .wMoving = 34,
                                 .wSettled = 35,
                                 .wStalled = 36,
                                 .wLimit = 37,
                                 .wLongA = 38,
                                 .wLongB = 42,
                                 .platenMoving = 34,
                                 .platenSettled = 35,
                                 .platenStalled = 36,
                                 .platenLimit = 37,
                                 .platenLongA = 38,
                                 .platenLongB = 42};
constexpr PollLayout kLong = {.length = 221,
                              .touchCaptureReady = 4,
                              .touchProbeTrip = 5,
                              .auxFlag2 = 6,
                              .sleep = 7,
                              .moving = 23,
                              .limit = 27,
                              .settled = 31,
                              .stalled = 35,
                              .failed = 39,
                              .auxLong = 55,
                              .linearPosition = 59,
                              .inputs = 75,
                              .inputs2 = 91,
                              .footswitch = 107,
                              .auxFlags0 = 108,
                              .auxFlags12 = 109,
                              .auxFlag3 = 111,
                              .auxWord = 112,
                              .wChannels = 3,
                              .wMoving = 127,
                              .wSettled = 130,
                              .wStalled = 133,
                              .wLimit = 136,
                              .wLongA = 139,
                              .wLongB = 151,
                              .platenMoving = 163,
                              .platenSettled = 164,
                              .platenStalled = 165,
                              .platenLimit = 166,
                              .platenLongA = 167,
                              .platenLongB = 171};

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

const PollLayout& ChooseLayout(bool manualVision, const BoardVersionInfo& v, MachineKind kind) {
  if (manualVision) return generation::ManualVisionHasLongForms(v) ? kLong : kCompact;
  switch (generation::ServoPollForm(v, kind)) {
    case generation::PollForm::Oldest:
      return kOldest;
    case generation::PollForm::Compact:
      return kCompact;
    case generation::PollForm::Long:
      break;
  }
  return kLong;
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
  const PollLayout& form = ChooseLayout(ManualVision(), versionInfo, machineKind);
  Packet request(kPollCode, 16);
  request.Byte(1, wantCapture);
  // The oldest boards read byte 2 as something else: it stays 0 for them.
  if (&form != &kOldest) request.Byte(2, flag);
  ReplyBuffer reply(form.length);
  if (!Send(request, reply)) return false;
  out = ServoStatus{};
  const bool readFailed = ManualVision() || generation::ReportsAxisFailure(versionInfo);
  Decode(form, PollReader(reply.Bytes()), readFailed, out);
  // The oldest form knows nothing of W: it shows the axis settled and at rest.
  if (&form == &kOldest) out.WSettled = true;
  return true;
}
