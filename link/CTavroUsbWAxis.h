// The W axis and the platen: two further motor units behind the main board, each with a
// controller of its own, reached through the same command codes as the axes with the channel
// number (16 or 17) in byte 1 of the request. Both are pure interfaces of the controller object;
// callers hold the controller and use it through them.
//
// Every operation returns false when the transfer failed (the output keeps what it held, except
// where told that it is zeroed first). A gate is a condition under which nothing is sent and the
// outputs are zeroed; the result is then true unless told otherwise.
#pragma once

#include <cstdint>

#include "link/ControllerRecords.h"

class CTavroUsb;
class Configuration;

class CTavroUsbWAxis {
 public:
  virtual ~CTavroUsbWAxis() = default;

  virtual CTavroUsb* GetUsb() = 0;
  virtual bool ReadA(std::uint32_t& out) = 0;
  virtual bool ReadB(std::uint32_t& out) = 0;
  virtual bool GetPosition(std::uint32_t& count, std::uint32_t& second) = 0;
  virtual bool ReadLowerC(std::uint32_t& first, std::uint32_t& second) = 0;
  virtual bool ReadD(bool& out) = 0;
  virtual bool ReadJ(std::uint32_t& out) = 0;
  // `state` is 1 or 2 as the board says, anything else reads as 0.
  virtual bool GetIndexCapture(bool& valid, std::uint32_t& state, std::uint32_t& count) = 0;
  virtual bool CommandL(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) = 0;
  virtual bool CommandM(std::uint32_t value) = 0;
  virtual bool CommandZ() = 0;
  virtual bool CommandO(bool on) = 0;
  virtual bool SyncAxis() = 0;
  virtual bool GetPid(ChannelPid& out) = 0;
  virtual bool SetPid(const ChannelPid& in) = 0;
  virtual bool GetDefine(ChannelDefine& out) = 0;
  virtual bool SetDefine(const ChannelDefine& in) = 0;
  virtual bool GetSerial(BoardIdentity& out) = 0;
  virtual bool SetSerial(const BoardIdentity& in) = 0;
  virtual bool ReadU(std::uint32_t& a, std::uint32_t& b, std::uint32_t& c, std::uint32_t& d) = 0;
  virtual bool ReadQ(float& r, std::uint32_t& a, std::uint32_t& b, std::uint32_t& c) = 0;
  // The reading is raw times scale.
  virtual bool GetTemperature(std::int32_t& raw, double& scale) = 0;
  virtual bool CommandHash() = 0;
  // Into another record than the controller's own WEepromInfo, the sizes are copied there too.
  virtual bool GetEepromInfo(EepromInfo& out) = 0;
  // `status`: 0 good, 1 out of range (and the result false), 6 no EEPROM on the channel (the data
  // read as 0xFF, the result true); other values are the board's.
  virtual bool ReadEepromBlock(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                               std::uint8_t* out, bool area) = 0;
  // Splits a read into pieces of maxReadWrite. True with `status` 1 when the range passes the
  // user area and true at once on the first nonzero status: callers must test `status`.
  virtual bool ReadEeprom(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                          std::uint8_t* out, bool area) = 0;
  virtual bool WriteEepromBlock(std::uint32_t address, std::uint32_t length, const std::uint8_t* in,
                                bool area) = 0;
  // Writes piece by piece and waits, without limit, for each piece's end: call it from a thread
  // that may block. `status` is as for ReadEeprom, or the board's result of a piece.
  virtual bool WriteEeprom(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                           const std::uint8_t* in, bool area) = 0;
  // Serial, definition, tuning, in this order; stops at the first failure.
  virtual bool ReadParameters(WAxisParameters& out) = 0;
  virtual bool WriteParameters(const WAxisParameters& in) = 0;

  // Parameter blocks: the three records as sections PID:WAXIS, DEFINE:WAXIS and
  // DEFINE:WAXIS_SERIAL of a keyed file (link/ParameterBlocks.h). No lock and no transfer; a
  // store creates its section, a load of a missing section or key leaves the record alone.
  // `withSerial` matters only to the serial block. The file is written when `file` ends.
  virtual void StoreParameters(Configuration& file, const WAxisParameters& in, bool withSerial) = 0;
  virtual void StorePid(Configuration& file, const ChannelPid& in, bool withSerial) = 0;
  virtual void StoreDefine(Configuration& file, const ChannelDefine& in, bool withSerial) = 0;
  virtual void StoreSerial(Configuration& file, const BoardIdentity& in, bool withSerial) = 0;
  virtual void LoadPid(Configuration& file, ChannelPid& out, bool withSerial) = 0;
  virtual void LoadDefine(Configuration& file, ChannelDefine& out, bool withSerial) = 0;
  virtual void LoadSerial(Configuration& file, BoardIdentity& out, bool withSerial) = 0;

 protected:
  CTavroUsbWAxis() = default;
  CTavroUsbWAxis(const CTavroUsbWAxis&) = default;
  CTavroUsbWAxis& operator=(const CTavroUsbWAxis&) = default;
};

class CTavroUsbPlaten {
 public:
  virtual ~CTavroUsbPlaten() = default;

  virtual CTavroUsb* GetUsb() = 0;
  virtual bool ReadA(std::uint32_t& out) = 0;
  virtual bool ReadB(std::uint32_t& out) = 0;
  virtual bool GetPosition(std::uint32_t& count) = 0;
  virtual bool ReadLowerC(std::uint32_t& first) = 0;
  virtual bool ReadD(bool& out) = 0;
  virtual bool ReadJ(std::uint32_t& out) = 0;
  // 1 opens, 0 closes.
  virtual bool MovePlaten(std::uint8_t open) = 0;
  virtual bool CommandZ() = 0;
  virtual bool SyncAxis() = 0;
  virtual bool GetPid(ChannelPid& out) = 0;
  virtual bool SetPid(const ChannelPid& in) = 0;
  // With the platen's extra record (Size, Offset, SlowSpeedTurns) where its firmware has one;
  // elsewhere those fields are zeroed.
  virtual bool GetDefine(ChannelDefine& out) = 0;
  virtual bool SetDefine(const ChannelDefine& in) = 0;
  virtual bool GetSerial(BoardIdentity& out) = 0;
  virtual bool SetSerial(const BoardIdentity& in) = 0;
  virtual bool ReadU(std::uint32_t& a, std::uint32_t& b, std::uint32_t& c, std::uint32_t& d) = 0;
  virtual bool ReadQ(float& r, std::uint32_t& a, std::uint32_t& b, std::uint32_t& c) = 0;
  virtual bool CommandHash() = 0;
  // The platen has only the description of an EEPROM; nothing is copied to WEepromInfo.
  virtual bool GetEepromInfo(EepromInfo& out) = 0;
  virtual bool ReadParameters(PlatenParameters& out) = 0;
  virtual bool WriteParameters(const PlatenParameters& in) = 0;

  // Parameter blocks as for the W axis, in the sections PID:PLATEN, DEFINE:PLATEN (with Size,
  // Offset and SlowSpeedTurns as well) and DEFINE:PLATEN_SERIAL.
  virtual void StoreParameters(Configuration& file, const PlatenParameters& in,
                               bool withSerial) = 0;
  virtual void StorePid(Configuration& file, const ChannelPid& in, bool withSerial) = 0;
  virtual void StoreDefine(Configuration& file, const ChannelDefine& in, bool withSerial) = 0;
  virtual void StoreSerial(Configuration& file, const BoardIdentity& in, bool withSerial) = 0;
  // Serial, definition, tuning, in this order.
  virtual void LoadParameters(Configuration& file, PlatenParameters& out, bool withSerial) = 0;
  virtual void LoadPid(Configuration& file, ChannelPid& out, bool withSerial) = 0;
  virtual void LoadDefine(Configuration& file, ChannelDefine& out, bool withSerial) = 0;
  virtual void LoadSerial(Configuration& file, BoardIdentity& out, bool withSerial) = 0;

 protected:
  CTavroUsbPlaten() = default;
  CTavroUsbPlaten(const CTavroUsbPlaten&) = default;
  CTavroUsbPlaten& operator=(const CTavroUsbPlaten&) = default;
};
