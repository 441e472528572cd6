#include "tests/support/EveryOperation.h"

#include <array>

namespace testing_support {
namespace {

template <typename Fn>
Operation Any(const char* name, Fn fn) {
  return {name, [fn](Controllers& c) -> std::optional<bool> { return fn(c.any); }};
}
template <typename Fn>
Operation Servo(const char* name, Fn fn) {
  return {name, [fn](Controllers& c) -> std::optional<bool> {
            if (!c.servo) return std::nullopt;
            return fn(*c.servo);
          }};
}
template <typename Fn>
Operation W(const char* name, Fn fn) {
  return {name, [fn](Controllers& c) -> std::optional<bool> {
            if (!c.w) return std::nullopt;
            return fn(*c.w);
          }};
}
template <typename Fn>
Operation Platen(const char* name, Fn fn) {
  return {name, [fn](Controllers& c) -> std::optional<bool> {
            if (!c.platen) return std::nullopt;
            return fn(*c.platen);
          }};
}

// An out-parameter whose value the test does not look at: a fresh one for each call.
template <typename T>
struct Out {
  using Ref = T&;
  T value{};
  operator Ref() && { return value; }
};
using U16 = Out<std::uint16_t>;
using U32 = Out<std::uint32_t>;
using Flag = Out<bool>;
using Raw = Out<std::int32_t>;
using Scale = Out<double>;

// The inputs of the operations that take more than a number, and the buffers of those that read
// into a span or a pointer. A tuning record with gains holds the axis where it is rather than
// drive it.
const AxisPid kHolding{
    .Kp = 120, .Kd = 600, .Ki = 4, .Il = 2000, .Fe = 4000, .Dt = 1, .Kout = 65535};
const std::uint8_t kWant[4] = {1, 1, 0, 0};
const std::uint16_t kSelect[4] = {0, 1, 2, 3};
const std::uint32_t kLaserSettings[kLaserSettingsWords] = {0, 3};
template <std::size_t N, typename Fn>
auto Filled(Fn value) {
  std::array<decltype(value(0)), N> out{};
  for (std::size_t i = 0; i < N; ++i)
    out[i] = value(i);
  return out;
}
const auto kLights = Filled<256>([](std::size_t i) { return std::uint32_t(100 + 7 * i); });
const auto kEepromBytes = Filled<40>([](std::size_t i) { return std::uint8_t(i * 3); });
const WAxisParameters kWParameters = [] {
  WAxisParameters p;
  p.Serial.serialNumber = "W-0042";
  p.Define.Speed = 5000;
  p.Define.Gear = 2.5;
  p.Pid.Kp = 50;
  return p;
}();
const PlatenParameters kPlatenParameters = [] {
  PlatenParameters p;
  p.Define.Size[0] = 80;
  p.Define.SlowSpeedTurns = 3;
  p.Pid.Kp = 70;
  return p;
}();
std::array<std::uint32_t, 256> lightMaxima;
std::array<std::uint8_t, 300> eepromBytes;

}  // namespace

const std::vector<Operation>& EveryOperation() {
  static const std::vector<Operation> operations{
      Any("PollStatus", [](auto& c) { return c.PollStatus(Out<ServoStatus>{}, 1, 1); }),
      Any("GetIndexCapture", [](auto& c) { return c.GetIndexCapture(2, Flag{}, Flag{}, U32{}); }),
      Any("GetFpgaVersion", [](auto& c) { return c.GetFpgaVersion(U16{}); }),
      Any("GetAnalogInputs", [](auto& c) { return c.GetAnalogInputs(Out<std::uint16_t[16]>{}); }),
      Any("GetTemperature", [](auto& c) { return c.GetTemperature(1, Raw{}, Scale{}); }),
      Any("GetLightMaxValues", [](auto& c) { return c.GetLightMaxValues(lightMaxima); }),
      Any("SetLightValues", [](auto& c) { return c.SetLightValues(kLights); }),
      Any("SetTouchProbeEnable", [](auto& c) { return c.SetTouchProbeEnable(true); }),
      Any("GetTouchProbeCapture",
          [](auto& c) {
            return c.GetTouchProbeCapture(Out<std::uint32_t[4]>{}, Out<std::uint32_t[4]>{});
          }),
      Any("GetProbeCapture",
          [](auto& c) { return c.GetProbeCapture(kWant, kSelect, Out<ProbeCapture>{}); }),
      Any("GetLaserPoints(6)", [](auto& c) { return c.GetLaserPoints(6, Out<LaserPoints>{}); }),
      Any("GetLaserPoints(30)", [](auto& c) { return c.GetLaserPoints(30, Out<LaserPoints>{}); }),
      Any("GetLaserSettings",
          [](auto& c) { return c.GetLaserSettings(Out<std::uint32_t[kLaserSettingsWords]>{}); }),
      Any("SetLaserSettings", [](auto& c) { return c.SetLaserSettings(kLaserSettings); }),
      Any("EnableTouchProbeInterrupt", [](auto& c) { return c.EnableTouchProbeInterrupt(); }),
      Any("EnableVideoInterrupt", [](auto& c) { return c.EnableVideoInterrupt(); }),
      Any("EnableLaserInterrupt", [](auto& c) { return c.EnableLaserInterrupt(); }),
      Any("DisableInterrupts", [](auto& c) { return c.DisableInterrupts(); }),
      Any("ReadBoardVersion", [](auto& c) { return c.ReadBoardVersion(Out<BoardVersionInfo>{}); }),
      Any("ReadEepromInfo", [](auto& c) { return c.ReadEepromInfo(Out<EepromInfo>{}); }),
      Any("ReadBoardIdentity", [](auto& c) { return c.ReadBoardIdentity(Out<BoardIdentity>{}); }),
      Any("ReadDiagText", [](auto& c) { return c.ReadDiagText(Out<std::string>{}); }),
      Any("ReadEeprom",
          [](auto& c) {
            return c.CTavroUsb::ReadEeprom(40, eepromBytes.size(), U32{}, eepromBytes.data(),
                                           false);
          }),

      Servo("GetRotaryPosition", [](auto& s) { return s.GetRotaryPosition(1, U32{}); }),
      Servo("GetAxisPid", [](auto& s) { return s.GetAxisPid(3, Out<AxisPid>{}); }),
      Servo("SetAxisPid", [](auto& s) { return s.SetAxisPid(3, kHolding); }),
      Servo("SyncAxis", [](auto& s) { return s.SyncAxis(3); }),
      Servo("GetAxisDefine", [](auto& s) { return s.GetAxisDefine(0, Out<AxisDefine>{}); }),
      Servo("ClearSleep", [](auto& s) { return s.ClearSleep(); }),
      Servo("GetAxisExtents", [](auto& s) { return s.GetAxisExtents(Out<AxisExtents>{}); }),
      Servo("GetPmdVersion(0)", [](auto& s) { return s.GetPmdVersion(Out<PmdVersion>{}, 0); }),
      Servo("GetPmdVersion(1)", [](auto& s) { return s.GetPmdVersion(Out<PmdVersion>{}, 1); }),
      Servo("GetPendant", [](auto& s) { return s.GetPendant(Out<PendantState>{}); }),
      Servo("SetStatusLight", [](auto& s) { return s.SetStatusLight(2); }),
      Servo("SetLedWords", [](auto& s) { return s.SetLedWords(1, 0x1234, 0x5678); }),
      Servo("SetTouchProbeSensitivity", [](auto& s) { return s.SetTouchProbeSensitivity(300); }),
      Servo("GetTouchProbeSensitivity", [](auto& s) { return s.GetTouchProbeSensitivity(U16{}); }),
      Servo("GetTouchProbeSensitivityMax",
            [](auto& s) { return s.GetTouchProbeSensitivityMax(U16{}); }),
      Servo("GetEepromImage",
            [](auto& s) { return s.GetEepromImage(Out<EepromImage>{}, U32{}, true); }),
      Servo("GetNamedRecord", [](auto& s) { return s.GetNamedRecord(Flag{}, Out<NamedRecord>{}); }),
      Servo("GetMachineData", [](auto& s) { return s.GetMachineData(Out<MachineData>{}); }),

      W("W ReadA", [](auto& w) { return w.ReadA(U32{}); }),
      W("W ReadB", [](auto& w) { return w.ReadB(U32{}); }),
      W("W GetPosition", [](auto& w) { return w.GetPosition(U32{}, U32{}); }),
      W("W ReadLowerC", [](auto& w) { return w.ReadLowerC(U32{}, U32{}); }),
      W("W ReadD", [](auto& w) { return w.ReadD(Flag{}); }),
      W("W ReadJ", [](auto& w) { return w.ReadJ(U32{}); }),
      W("W GetIndexCapture", [](auto& w) { return w.GetIndexCapture(Flag{}, U32{}, U32{}); }),
      W("W CommandL", [](auto& w) { return w.CommandL(1, 2, 3, 4); }),
      W("W CommandM", [](auto& w) { return w.CommandM(12500); }),
      W("W CommandZ", [](auto& w) { return w.CommandZ(); }),
      W("W CommandO", [](auto& w) { return w.CommandO(true); }),
      W("W SyncAxis", [](auto& w) { return w.SyncAxis(); }),
      W("W ReadU", [](auto& w) { return w.ReadU(U32{}, U32{}, U32{}, U32{}); }),
      W("W ReadQ", [](auto& w) { return w.ReadQ(Out<float>{}, U32{}, U32{}, U32{}); }),
      W("W GetTemperature", [](auto& w) { return w.GetTemperature(Raw{}, Scale{}); }),
      W("W CommandHash", [](auto& w) { return w.CommandHash(); }),
      W("W GetEepromInfo", [](auto& w) { return w.GetEepromInfo(Out<EepromInfo>{}); }),
      W("W ReadParameters", [](auto& w) { return w.ReadParameters(Out<WAxisParameters>{}); }),
      W("W ReadEepromBlock",
        [](auto& w) { return w.ReadEepromBlock(8, 32, U32{}, eepromBytes.data(), false); }),
      W("W WriteEepromBlock",
        [](auto& w) { return w.WriteEepromBlock(64, 32, kEepromBytes.data(), false); }),
      W("W WriteParameters", [](auto& w) { return w.WriteParameters(kWParameters); }),
      W("W ReadEeprom",
        [](auto& w) { return w.ReadEeprom(8, 100, U32{}, eepromBytes.data(), false); }),
      W("W WriteEeprom",
        [](auto& w) {
          return w.WriteEeprom(64, kEepromBytes.size(), U32{}, kEepromBytes.data(), false);
        }),

      Platen("platen ReadA", [](auto& p) { return p.ReadA(U32{}); }),
      Platen("platen ReadB", [](auto& p) { return p.ReadB(U32{}); }),
      Platen("platen ReadD", [](auto& p) { return p.ReadD(Flag{}); }),
      Platen("platen ReadJ", [](auto& p) { return p.ReadJ(U32{}); }),
      Platen("platen ReadU", [](auto& p) { return p.ReadU(U32{}, U32{}, U32{}, U32{}); }),
      Platen("platen ReadQ", [](auto& p) { return p.ReadQ(Out<float>{}, U32{}, U32{}, U32{}); }),
      Platen("platen CommandHash", [](auto& p) { return p.CommandHash(); }),
      Platen("platen GetEepromInfo", [](auto& p) { return p.GetEepromInfo(Out<EepromInfo>{}); }),
      Platen("platen GetPosition", [](auto& p) { return p.GetPosition(U32{}); }),
      Platen("platen ReadLowerC", [](auto& p) { return p.ReadLowerC(U32{}); }),
      Platen("platen MovePlaten", [](auto& p) { return p.MovePlaten(1); }),
      Platen("platen CommandZ", [](auto& p) { return p.CommandZ(); }),
      Platen("platen SyncAxis", [](auto& p) { return p.SyncAxis(); }),
      Platen("platen ReadParameters",
             [](auto& p) { return p.ReadParameters(Out<PlatenParameters>{}); }),
      Platen("platen WriteParameters",
             [](auto& p) { return p.WriteParameters(kPlatenParameters); }),
  };
  return operations;
}

Controllers ControllersOf(CTavroUsbServo& servo) {
  const BoardVersionInfo& v = servo.VersionInfo();
  return {.any = servo,
          .servo = &servo,
          .w = v.hasWAxis ? &servo : nullptr,
          .platen = v.platenFitted ? &servo : nullptr};
}

Controllers ControllersOf(CTavroUsbManualVision& manual) {
  return {.any = manual, .w = manual.VersionInfo().hasWAxis ? &manual : nullptr};
}

namespace {

void RunAll(Controllers c, OperationLog& log) {
  for (const Operation& op : EveryOperation()) {
    const std::optional<bool> ok = op.run(c);
    if (!ok) continue;
    ++log.run;
    if (!*ok) log.failed.emplace_back(op.name);
  }
}

}  // namespace

void RunEveryServoOperation(CTavroUsbServo& servo, OperationLog& log) {
  RunAll(ControllersOf(servo), log);
}

void RunEveryManualVisionOperation(CTavroUsbManualVision& manual, OperationLog& log) {
  RunAll(ControllersOf(manual), log);
}

}  // namespace testing_support
