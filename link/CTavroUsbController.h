// What the servo and the manual-vision controllers have in common: the packet helpers, the
// choice of a command's form, and the operations that exist on both classes. The two speak one
// command language; they differ in which forms exist and which gates apply, and each difference
// is one test of `dialect` inside the form chooser of the command concerned, and each generation
// rule a predicate of link/Generations.h.
//
// No operation throws and none holds a lock of its own: transfers are serialised per slot by the
// channel, so any thread may call any operation. A failed transfer (a refusal included) returns
// false and leaves the output as it was, except where an operation zeroes it first. A gate is a
// condition under which nothing is sent; it never fails: it gives zeros and true unless told.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "link/CTavroUsb.h"
#include "link/ControllerRecords.h"
#include "link/Generations.h"
#include "wire/WireFormat.h"

// A request packet of a fixed length, zero-filled behind its fields.
class Packet {
 public:
  Packet(std::uint8_t code, std::uint32_t length);

  Packet& Byte(std::size_t at, std::uint8_t v) { return Put(wire::PutByte, at, v); }
  Packet& Flag(std::size_t at, bool v) { return Put(wire::PutFlag, at, v); }
  Packet& Word(std::size_t at, std::uint16_t v) { return Put(wire::PutWord, at, v); }
  Packet& Long(std::size_t at, std::uint32_t v) { return Put(wire::PutLong, at, v); }
  Packet& Real(std::size_t at, float v) { return Put(wire::PutReal, at, v); }
  Packet& Fixed(std::size_t at, double v) { return Put(wire::PutFixed, at, v); }
  Packet& Text(std::size_t at, const std::string& utf8);
  wire::MutableBytes Bytes() { return {data_.data(), length_}; }

  const std::uint8_t* data() const { return data_.data(); }
  std::uint32_t size() const { return length_; }

 private:
  template <typename Fn, typename V>
  Packet& Put(Fn fn, std::size_t at, V v) {
    fn(Bytes(), at, v);
    return *this;
  }

  std::array<std::uint8_t, usb::kNormalCommandLimit> data_{};
  std::uint32_t length_;
};

// A reply of the length a form expects; fields past it read as zero.
class ReplyBuffer {
 public:
  explicit ReplyBuffer(std::uint32_t length) : length_(length) {}
  std::uint8_t* data() { return data_.data(); }
  std::uint32_t size() const { return length_; }
  wire::Bytes Bytes() const { return {data_.data(), length_}; }

 private:
  std::array<std::uint8_t, usb::kCapturePositionLimit> data_{};
  std::uint32_t length_;
};

class CTavroUsbController : public CTavroUsb {
 public:
  // The two command dialects; the manual-vision one lacks the oldest forms and most firmware
  // gates, waits for two bytes after every set command of its W interface, and tells its two
  // forms of a command apart by protocolVersion (generation::ManualVisionHasLongForms).
  enum class Dialect { Servo, ManualVision };

  CTavroUsbController(const CTavroUsbController&) = delete;
  CTavroUsbController& operator=(const CTavroUsbController&) = delete;

  // The number of light channels: lightChannelCount when hasLightChannels is set, else 0. It is
  // the number of entries GetLightMaxValues and SetLightValues read and write.
  std::uint16_t GetLightChannelCount() const;

  // The status poll. `out` is zeroed after a good reply and filled from the form's offsets.
  bool PollStatus(ServoStatus& out, std::uint8_t wantCapture, std::uint8_t flag);
  // Axis 4 or more returns false without sending.
  bool GetIndexCapture(std::uint16_t axis, bool& valid, bool& captured, std::uint32_t& count);
  bool GetFpgaVersion(std::uint16_t& out);
  bool GetAnalogInputs(std::uint16_t out[16]);
  // The reading is raw times scale.
  bool GetTemperature(std::uint32_t sensor, std::int32_t& raw, double& scale);

  // One entry per channel, for the channels below GetLightChannelCount() that `out` and `in`
  // have room for: no entry past their size is read or written. A reply of the one-word form
  // (generation::HasOneWordLightForm) gives one maximum for all channels, and its write carries at
  // most
  // 42. The other forms send a packet from channel 0 and, only for channels left over, one more:
  // at most 42 channels behind an old driver and 84 behind a newer one, whatever count the board
  // reports. The first failure ends the operation with the channels fetched so far in `out`.
  bool GetLightMaxValues(std::span<std::uint32_t> out);
  bool SetLightValues(std::span<const std::uint32_t> in);

  bool SetTouchProbeEnable(bool on);
  bool GetTouchProbeCapture(std::uint32_t a[4], std::uint32_t b[4]);
  bool GetProbeCapture(const std::uint8_t want[4], const std::uint16_t select[4],
                       ProbeCapture& out);
  // `out` is zeroed first. `wanted` is limited to what the board's form can carry (6 or 30), and
  // no more entries are filled than were asked for, whatever Count the board reports.
  bool GetLaserPoints(std::uint16_t wanted, LaserPoints& out);
  bool GetLaserSettings(std::uint32_t out[kLaserSettingsWords]);
  bool SetLaserSettings(const std::uint32_t in[kLaserSettingsWords]);

  bool DisableInterrupts();
  bool EnableTouchProbeInterrupt();
  bool EnableVideoInterrupt();
  // False without sending on boards whose firmware has no laser interrupt.
  bool EnableLaserInterrupt();

  // The W axis's EEPROM description from the last open.
  const EepromInfo& WEepromInformation() const { return WEepromInfo; }
  Dialect CommandDialect() const { return dialect; }

 protected:
  // Shares the channel of `link` and copies its records. When the link is open the firmware is
  // checked again (showing the message) and the channel closed if it is refused.
  CTavroUsbController(const CTavroUsb& link, Dialect dialect);

  // The packet helpers. `reply` is filled up to its length; a length of 0 expects no reply.
  bool Send(const Packet& request, ReplyBuffer& reply);
  bool SendCapture(const Packet& request, ReplyBuffer& reply);
  // A command that only sets something: 2 reply bytes where the board answers set commands, none
  // before, or 2 at every level where `twoAlways` says so. The reply is waited for and not read.
  bool SendSet(const Packet& request, bool twoAlways = false);

  bool ManualVision() const { return dialect == Dialect::ManualVision; }

 private:
  bool SendInterrupt(std::uint8_t oneByteCode, std::size_t flagByte);

 protected:
  const Dialect dialect;
  // Set by the servo controller only.
  MachineKind machineKind = MachineKind::Unknown;
  EepromInfo WEepromInfo;

  friend class ChannelCommands;
};
