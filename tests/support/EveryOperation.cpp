#include "tests/support/EveryOperation.h"

#include <array>
#include <string>
#include <vector>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"

namespace testing_support {
namespace {

#define TAVRO_RECORD(expression) log.Record(#expression, (expression))

// What both controllers share: status, board data, lights, probes, laser, interrupts, and the
// board's own EEPROM and diagnostic text.
void RunShared(CTavroUsbController& c, OperationLog& log) {
  ServoStatus status;
  TAVRO_RECORD(c.PollStatus(status, 0, 0));
  TAVRO_RECORD(c.PollStatus(status, 1, 1));
  bool valid = false;
  bool captured = false;
  std::uint32_t count = 0;
  for (std::uint16_t axis = 0; axis < kAxisCount; ++axis)
    TAVRO_RECORD(c.GetIndexCapture(axis, valid, captured, count));
  std::uint16_t word = 0;
  TAVRO_RECORD(c.GetFpgaVersion(word));
  std::uint16_t analog[16] = {};
  TAVRO_RECORD(c.GetAnalogInputs(analog));
  std::int32_t raw = 0;
  double scale = 0;
  for (std::uint32_t sensor = 0; sensor < 4; ++sensor)
    TAVRO_RECORD(c.GetTemperature(sensor, raw, scale));

  std::vector<std::uint32_t> lights(c.GetLightChannelCount() + 1u, 0);
  TAVRO_RECORD(c.GetLightMaxValues(lights));
  for (std::uint32_t& light : lights)
    light /= 2;
  TAVRO_RECORD(c.SetLightValues(lights));

  // Servo boards of protocol 0 have no touch-probe commands; later ones lack the laser
  // interrupt below firmware 1.829. Those operations fail by design there.
  const BoardVersionInfo& board = c.VersionInfo();
  const bool servo = !board.isManualVision;
  std::uint32_t a[4] = {};
  std::uint32_t b[4] = {};
  if (!servo || board.protocolVersion > 0) {
    TAVRO_RECORD(c.SetTouchProbeEnable(true));
    TAVRO_RECORD(c.GetTouchProbeCapture(a, b));
    TAVRO_RECORD(c.SetTouchProbeEnable(false));
  }
  const std::uint8_t want[4] = {1, 1, 0, 1};
  const std::uint16_t select[4] = {0, 1, 2, 3};
  ProbeCapture probe;
  TAVRO_RECORD(c.GetProbeCapture(want, select, probe));
  LaserPoints points;
  TAVRO_RECORD(c.GetLaserPoints(6, points));
  TAVRO_RECORD(c.GetLaserPoints(30, points));
  std::uint32_t settings[kLaserSettingsWords] = {};
  TAVRO_RECORD(c.GetLaserSettings(settings));
  TAVRO_RECORD(c.SetLaserSettings(settings));

  TAVRO_RECORD(c.EnableTouchProbeInterrupt());
  TAVRO_RECORD(c.EnableVideoInterrupt());
  if (board.laserType != 0 && (!servo || board.firmwareVersion >= 1.829f)) {
    TAVRO_RECORD(c.EnableLaserInterrupt());
  }
  TAVRO_RECORD(c.DisableInterrupts());

  BoardVersionInfo version;
  TAVRO_RECORD(c.ReadBoardVersion(version));
  EepromInfo eeprom;
  TAVRO_RECORD(c.ReadEepromInfo(eeprom));
  BoardIdentity identity;
  TAVRO_RECORD(c.ReadBoardIdentity(identity));
  std::string text;
  TAVRO_RECORD(c.ReadDiagText(text));
  if (c.VersionInfo().protocolVersion >= 2) {
    std::array<std::uint8_t, 128> bytes{};
    std::uint32_t eepromStatus = 0;
    TAVRO_RECORD(c.CTavroUsb::ReadEeprom(0, bytes.size(), eepromStatus, bytes.data(), false));
  }
}

// The W axis: every reading, every set command with what was read, the EEPROM both ways.
void RunWAxis(CTavroUsbWAxis& w, bool hash, OperationLog& log) {
  std::uint32_t x = 0;
  std::uint32_t y = 0;
  std::uint32_t z = 0;
  std::uint32_t v = 0;
  bool flag = false;
  TAVRO_RECORD(w.ReadA(x));
  TAVRO_RECORD(w.ReadB(x));
  TAVRO_RECORD(w.GetPosition(x, y));
  TAVRO_RECORD(w.ReadLowerC(x, y));
  TAVRO_RECORD(w.ReadD(flag));
  TAVRO_RECORD(w.ReadJ(x));
  TAVRO_RECORD(w.GetIndexCapture(flag, x, y));
  TAVRO_RECORD(w.CommandL(0, 0, 0, 0));
  TAVRO_RECORD(w.CommandM(0));
  TAVRO_RECORD(w.CommandO(false));
  TAVRO_RECORD(w.CommandZ());
  TAVRO_RECORD(w.SyncAxis());
  TAVRO_RECORD(w.ReadU(x, y, z, v));
  float r = 0;
  TAVRO_RECORD(w.ReadQ(r, x, y, z));
  std::int32_t raw = 0;
  double scale = 0;
  TAVRO_RECORD(w.GetTemperature(raw, scale));
  if (hash) TAVRO_RECORD(w.CommandHash());

  WAxisParameters parameters;
  TAVRO_RECORD(w.ReadParameters(parameters));
  TAVRO_RECORD(w.WriteParameters(parameters));

  EepromInfo info;
  TAVRO_RECORD(w.GetEepromInfo(info));
  // Without an EEPROM on the channel a block has no size to fit in: nothing to read or write.
  if (info.maxReadWrite == 0) return;
  std::array<std::uint8_t, 96> bytes{};
  std::uint32_t status = 0;
  TAVRO_RECORD(w.ReadEepromBlock(0, 32, status, bytes.data(), false));
  TAVRO_RECORD(w.ReadEeprom(0, bytes.size(), status, bytes.data(), false));
  if (status == 0) {
    TAVRO_RECORD(w.WriteEepromBlock(0, 32, bytes.data(), false));
    TAVRO_RECORD(w.WriteEeprom(0, bytes.size(), status, bytes.data(), false));
  }
}

void RunPlaten(CTavroUsbPlaten& p, bool hash, OperationLog& log) {
  std::uint32_t x = 0;
  std::uint32_t y = 0;
  std::uint32_t z = 0;
  std::uint32_t v = 0;
  bool flag = false;
  TAVRO_RECORD(p.ReadA(x));
  TAVRO_RECORD(p.ReadB(x));
  TAVRO_RECORD(p.GetPosition(x));
  TAVRO_RECORD(p.ReadLowerC(x));
  TAVRO_RECORD(p.ReadD(flag));
  TAVRO_RECORD(p.ReadJ(x));
  TAVRO_RECORD(p.CommandZ());
  TAVRO_RECORD(p.SyncAxis());
  TAVRO_RECORD(p.ReadU(x, y, z, v));
  float r = 0;
  TAVRO_RECORD(p.ReadQ(r, x, y, z));
  if (hash) TAVRO_RECORD(p.CommandHash());
  EepromInfo info;
  TAVRO_RECORD(p.GetEepromInfo(info));
  PlatenParameters parameters;
  TAVRO_RECORD(p.ReadParameters(parameters));
  TAVRO_RECORD(p.WriteParameters(parameters));
  TAVRO_RECORD(p.MovePlaten(1));
  TAVRO_RECORD(p.MovePlaten(0));
}

}  // namespace

void RunEveryServoOperation(CTavroUsbServo& servo, OperationLog& log) {
  RunShared(servo, log);
  std::uint32_t count = 0;
  for (std::uint16_t axis = 0; axis < kAxisCount; ++axis) {
    TAVRO_RECORD(servo.GetRotaryPosition(axis, count));
    AxisPid pid;
    TAVRO_RECORD(servo.GetAxisPid(axis, pid));
    TAVRO_RECORD(servo.SetAxisPid(axis, pid));
    TAVRO_RECORD(servo.SyncAxis(axis));
    AxisDefine define;
    TAVRO_RECORD(servo.GetAxisDefine(axis, define));
  }
  TAVRO_RECORD(servo.ClearSleep());
  AxisExtents extents;
  TAVRO_RECORD(servo.GetAxisExtents(extents));
  PmdVersion pmd;
  TAVRO_RECORD(servo.GetPmdVersion(pmd, 0));
  TAVRO_RECORD(servo.GetPmdVersion(pmd, 1));
  PendantState pendant;
  TAVRO_RECORD(servo.GetPendant(pendant));
  TAVRO_RECORD(servo.SetStatusLight(1));
  TAVRO_RECORD(servo.SetStatusLight(0));
  TAVRO_RECORD(servo.SetLedWords(0, 0x00FF, 0));
  TAVRO_RECORD(servo.SetLedWords(1, 0, 0));
  std::uint16_t sensitivity = 0;
  TAVRO_RECORD(servo.GetTouchProbeSensitivityMax(sensitivity));
  TAVRO_RECORD(servo.GetTouchProbeSensitivity(sensitivity));
  TAVRO_RECORD(servo.SetTouchProbeSensitivity(sensitivity));
  EepromImage image;
  std::uint32_t status = 0;
  TAVRO_RECORD(servo.GetEepromImage(image, status, true));
  bool valid = false;
  NamedRecord named;
  TAVRO_RECORD(servo.GetNamedRecord(valid, named));
  MachineData machine;
  TAVRO_RECORD(servo.GetMachineData(machine));
  // The channels answer only where the axis is fitted.
  // Servo boards below protocol 2 have no hash command.
  const bool hash = servo.VersionInfo().protocolVersion >= 2;
  if (servo.VersionInfo().hasWAxis) RunWAxis(servo, hash, log);
  if (servo.VersionInfo().platenFitted) RunPlaten(servo, hash, log);
}

void RunEveryManualVisionOperation(CTavroUsbManualVision& manual, OperationLog& log) {
  RunShared(manual, log);
  if (manual.VersionInfo().hasWAxis) RunWAxis(manual, true, log);
}

#undef TAVRO_RECORD

}  // namespace testing_support
