// The controller of a servo machine: the current auto-vision boards (MachineKind::AutoVision) and
// the first generation (MachineKind::Servo). Built by copy from the CTavroUsb that proved the link,
// so it shares the channel and starts with copies of both records. It is also the W axis
// (CTavroUsbWAxis) and the platen (CTavroUsbPlaten); use those through their interfaces.
//
// The axes X, Y, Z and Zoom have no move command: an axis is moved by writing its tuning record
// with the gains at zero, whose Mb is then an open-loop motor output.
#pragma once

#include <cstdint>

#include "link/CTavroUsbController.h"
#include "link/ChannelCommands.h"
#include "link/MachineImage.h"

// The axis operations and the W interface share some names with different signatures on purpose;
// g++ takes the using-declarations below for hiding and warns, though every overload stays
// reachable.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
class CTavroUsbServo : public CTavroUsbController, public WAxisBridge, public PlatenBridge {
 public:
  // Checks the firmware again (closing the channel if it is refused), learns the kind of machine
  // and reads the W axis's EEPROM description; a closed object results when the link was or
  // became closed.
  explicit CTavroUsbServo(const CTavroUsb& link);

  // The base open; on 0 the machine's kind and the W EEPROM description are learnt again.
  int Open(bool showErrors, bool skipVersion) override;

  MachineKind GetMachineKind() const { return machineKind; }

  // Names shared by an axis operation and the W or platen interface: both overloads stay
  // callable. ReadEeprom and ReadEepromBlock exist with one signature for the board and for the
  // W axis, so name the class (CTavroUsb or CTavroUsbWAxis) when calling them.
  using CTavroUsbController::GetIndexCapture;
  using CTavroUsbController::GetTemperature;
  using PlatenBridge::SyncAxis;
  using WAxisBridge::GetIndexCapture;
  using WAxisBridge::GetTemperature;
  using WAxisBridge::SyncAxis;

  // Axis operations: `axis` 0 to 3 (X, Y, Z, Zoom); 4 or more returns false and sends nothing.
  bool GetRotaryPosition(std::uint16_t axis, std::uint32_t& count);
  bool GetAxisPid(std::uint16_t axis, AxisPid& out);
  bool SetAxisPid(std::uint16_t axis, const AxisPid& in);
  // Succeeds without sending on boards whose firmware does not know it.
  bool SyncAxis(std::uint16_t axis);
  bool GetAxisDefine(std::uint16_t axis, AxisDefine& out);

  // Machine status and board data. Each gate gives zeros and true without sending.
  bool ClearSleep();
  bool GetAxisExtents(AxisExtents& out);
  bool GetPmdVersion(PmdVersion& out, std::uint32_t chip);
  bool GetPendant(PendantState& out);

  // 0 off, 1 green, 2 amber, 3 red.
  bool SetStatusLight(std::uint8_t colour);
  // `which` 0 or 1; anything else succeeds without sending.
  bool SetLedWords(std::uint32_t which, std::uint16_t a, std::uint16_t b);

  bool SetTouchProbeSensitivity(std::uint16_t value);
  bool GetTouchProbeSensitivity(std::uint16_t& out);
  bool GetTouchProbeSensitivityMax(std::uint16_t& out);

  // The machine image. `status` is the result of the EEPROM read (0 good); a good transfer with
  // a nonzero status still returns true, so the caller must test it. `upgrade` brings every
  // section to the current layout.
  bool GetEepromImage(EepromImage& out, std::uint32_t& status, bool upgrade);
  // Without hasCommand72: `valid` false, `out` zeroed, true. An erased name clears `valid`.
  bool GetNamedRecord(bool& valid, NamedRecord& out);
  bool GetMachineData(MachineData& out);

 private:
  // Sets machineKind from the firmware name; another name leaves it as it was, so a reconnection
  // to a board with an unknown name keeps the kind learnt before.
  void LearnMachineKind();
  bool AssembleOlderImage(EepromImage& out);
};
#pragma GCC diagnostic pop
