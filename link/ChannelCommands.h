// The packets of the W axis (channel 16) and the platen (channel 17). One ChannelCommands object
// speaks for one channel of one controller; the two interface bridges below give a controller
// class the interfaces CTavroUsbWAxis and CTavroUsbPlaten, whose operations share names and
// signatures and so cannot both be overridden in one class.
#pragma once

#include <cstdint>

#include "link/CTavroUsbController.h"
#include "link/CTavroUsbWAxis.h"
#include "link/ParameterBlocks.h"

class ChannelCommands {
 public:
  ChannelCommands(CTavroUsbController& owner, std::uint8_t channel)
      : owner_(owner), channel_(channel) {}

  CTavroUsb* GetUsb() { return &owner_; }
  bool ReadA(std::uint32_t& out);
  bool ReadB(std::uint32_t& out);
  bool GetPosition(std::uint32_t& count, std::uint32_t& second);
  bool ReadLowerC(std::uint32_t& first, std::uint32_t& second);
  bool ReadD(bool& out);
  bool ReadJ(std::uint32_t& out);
  bool GetIndexCapture(bool& valid, std::uint32_t& state, std::uint32_t& count);
  bool CommandL(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d);
  bool MovePlaten(std::uint8_t open);
  bool CommandM(std::uint32_t value);
  bool CommandZ();
  bool CommandO(bool on);
  bool SyncAxis();
  bool GetPid(ChannelPid& out);
  bool SetPid(const ChannelPid& in);
  bool GetDefine(ChannelDefine& out);
  bool SetDefine(const ChannelDefine& in);
  bool GetSerial(BoardIdentity& out);
  bool SetSerial(const BoardIdentity& in);
  bool ReadU(std::uint32_t& a, std::uint32_t& b, std::uint32_t& c, std::uint32_t& d);
  bool ReadQ(float& r, std::uint32_t& a, std::uint32_t& b, std::uint32_t& c);
  bool GetTemperature(std::int32_t& raw, double& scale);
  bool CommandHash();
  bool GetEepromInfo(EepromInfo& out);
  bool ReadEepromBlock(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                       std::uint8_t* out, bool area);
  bool ReadEeprom(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                  std::uint8_t* out, bool area);
  bool WriteEepromBlock(std::uint32_t address, std::uint32_t length, const std::uint8_t* in,
                        bool area);
  bool WriteEeprom(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                   const std::uint8_t* in, bool area);
  template <typename Parameters>
  bool ReadParameters(Parameters& out) {
    return GetSerial(out.Serial) && GetDefine(out.Define) && GetPid(out.Pid);
  }
  template <typename Parameters>
  bool WriteParameters(const Parameters& in) {
    return SetSerial(in.Serial) && SetDefine(in.Define) && SetPid(in.Pid);
  }

 private:
  bool Platen() const { return channel_ == kPlatenChannel; }
  bool ManualVision() const { return owner_.ManualVision(); }
  // Set commands of the manual-vision W interface always wait for two bytes.
  bool SendSet(const Packet& request) { return owner_.SendSet(request, ManualVision()); }
  // Reads one long-valued reply of a two-byte request (code, channel).
  bool ReadLongs(std::uint8_t code, std::uint32_t replyLength, std::uint32_t* const* out,
                 std::size_t count);
  // The channel's EEPROM is there to be used: a W axis is fitted (and, on a servo board, the
  // firmware knows the commands).
  bool EepromAvailable() const;

  CTavroUsbController& owner_;
  const std::uint8_t channel_;
};

// The block operations both interfaces share, each on its channel's sections.
template <class Interface, const ParameterBlocks& kBlocks>
class BlockBridge : public Interface {
 public:
  void StorePid(Configuration& file, const ChannelPid& in, bool) override {
    kBlocks.StorePid(file, in);
  }
  void StoreDefine(Configuration& file, const ChannelDefine& in, bool) override {
    kBlocks.StoreDefine(file, in);
  }
  void StoreSerial(Configuration& file, const BoardIdentity& in, bool withSerial) override {
    kBlocks.StoreSerial(file, in, withSerial);
  }
  void LoadPid(Configuration& file, ChannelPid& out, bool) override { kBlocks.LoadPid(file, out); }
  void LoadDefine(Configuration& file, ChannelDefine& out, bool) override {
    kBlocks.LoadDefine(file, out);
  }
  void LoadSerial(Configuration& file, BoardIdentity& out, bool withSerial) override {
    kBlocks.LoadSerial(file, out, withSerial);
  }
};

class WAxisBridge : public BlockBridge<CTavroUsbWAxis, kWAxisBlocks> {
 public:
  explicit WAxisBridge(CTavroUsbController& owner) : w_(owner, kWChannel) {}
  WAxisBridge(const WAxisBridge&) = delete;
  WAxisBridge& operator=(const WAxisBridge&) = delete;

  CTavroUsb* GetUsb() override { return w_.GetUsb(); }
  bool ReadA(std::uint32_t& out) override { return w_.ReadA(out); }
  bool ReadB(std::uint32_t& out) override { return w_.ReadB(out); }
  bool GetPosition(std::uint32_t& count, std::uint32_t& second) override {
    return w_.GetPosition(count, second);
  }
  bool ReadLowerC(std::uint32_t& first, std::uint32_t& second) override {
    return w_.ReadLowerC(first, second);
  }
  bool ReadD(bool& out) override { return w_.ReadD(out); }
  bool ReadJ(std::uint32_t& out) override { return w_.ReadJ(out); }
  bool GetIndexCapture(bool& valid, std::uint32_t& state, std::uint32_t& count) override {
    return w_.GetIndexCapture(valid, state, count);
  }
  bool CommandL(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) override {
    return w_.CommandL(a, b, c, d);
  }
  bool CommandM(std::uint32_t value) override { return w_.CommandM(value); }
  bool CommandZ() override { return w_.CommandZ(); }
  bool CommandO(bool on) override { return w_.CommandO(on); }
  bool SyncAxis() override { return w_.SyncAxis(); }
  bool GetPid(ChannelPid& out) override { return w_.GetPid(out); }
  bool SetPid(const ChannelPid& in) override { return w_.SetPid(in); }
  bool GetDefine(ChannelDefine& out) override { return w_.GetDefine(out); }
  bool SetDefine(const ChannelDefine& in) override { return w_.SetDefine(in); }
  bool GetSerial(BoardIdentity& out) override { return w_.GetSerial(out); }
  bool SetSerial(const BoardIdentity& in) override { return w_.SetSerial(in); }
  bool ReadU(std::uint32_t& a, std::uint32_t& b, std::uint32_t& c, std::uint32_t& d) override {
    return w_.ReadU(a, b, c, d);
  }
  bool ReadQ(float& r, std::uint32_t& a, std::uint32_t& b, std::uint32_t& c) override {
    return w_.ReadQ(r, a, b, c);
  }
  bool GetTemperature(std::int32_t& raw, double& scale) override {
    return w_.GetTemperature(raw, scale);
  }
  bool CommandHash() override { return w_.CommandHash(); }
  bool GetEepromInfo(EepromInfo& out) override { return w_.GetEepromInfo(out); }
  bool ReadEepromBlock(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                       std::uint8_t* out, bool area) override {
    return w_.ReadEepromBlock(address, length, status, out, area);
  }
  bool ReadEeprom(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                  std::uint8_t* out, bool area) override {
    return w_.ReadEeprom(address, length, status, out, area);
  }
  bool WriteEepromBlock(std::uint32_t address, std::uint32_t length, const std::uint8_t* in,
                        bool area) override {
    return w_.WriteEepromBlock(address, length, in, area);
  }
  bool WriteEeprom(std::uint32_t address, std::uint32_t length, std::uint32_t& status,
                   const std::uint8_t* in, bool area) override {
    return w_.WriteEeprom(address, length, status, in, area);
  }
  bool ReadParameters(WAxisParameters& out) override { return w_.ReadParameters(out); }
  bool WriteParameters(const WAxisParameters& in) override { return w_.WriteParameters(in); }
  void StoreParameters(Configuration& file, const WAxisParameters& in, bool withSerial) override {
    kWAxisBlocks.StoreParameters(file, in, withSerial);
  }

 private:
  ChannelCommands w_;
};

class PlatenBridge : public BlockBridge<CTavroUsbPlaten, kPlatenBlocks> {
 public:
  explicit PlatenBridge(CTavroUsbController& owner) : p_(owner, kPlatenChannel) {}
  PlatenBridge(const PlatenBridge&) = delete;
  PlatenBridge& operator=(const PlatenBridge&) = delete;

  CTavroUsb* GetUsb() override { return p_.GetUsb(); }
  bool ReadA(std::uint32_t& out) override { return p_.ReadA(out); }
  bool ReadB(std::uint32_t& out) override { return p_.ReadB(out); }
  bool GetPosition(std::uint32_t& count) override {
    std::uint32_t second = 0;
    return p_.GetPosition(count, second);
  }
  bool ReadLowerC(std::uint32_t& first) override {
    std::uint32_t second = 0;
    return p_.ReadLowerC(first, second);
  }
  bool ReadD(bool& out) override { return p_.ReadD(out); }
  bool ReadJ(std::uint32_t& out) override { return p_.ReadJ(out); }
  bool MovePlaten(std::uint8_t open) override { return p_.MovePlaten(open); }
  bool CommandZ() override { return p_.CommandZ(); }
  bool SyncAxis() override { return p_.SyncAxis(); }
  bool GetPid(ChannelPid& out) override { return p_.GetPid(out); }
  bool SetPid(const ChannelPid& in) override { return p_.SetPid(in); }
  bool GetDefine(ChannelDefine& out) override { return p_.GetDefine(out); }
  bool SetDefine(const ChannelDefine& in) override { return p_.SetDefine(in); }
  bool GetSerial(BoardIdentity& out) override { return p_.GetSerial(out); }
  bool SetSerial(const BoardIdentity& in) override { return p_.SetSerial(in); }
  bool ReadU(std::uint32_t& a, std::uint32_t& b, std::uint32_t& c, std::uint32_t& d) override {
    return p_.ReadU(a, b, c, d);
  }
  bool ReadQ(float& r, std::uint32_t& a, std::uint32_t& b, std::uint32_t& c) override {
    return p_.ReadQ(r, a, b, c);
  }
  bool CommandHash() override { return p_.CommandHash(); }
  bool GetEepromInfo(EepromInfo& out) override { return p_.GetEepromInfo(out); }
  bool ReadParameters(PlatenParameters& out) override { return p_.ReadParameters(out); }
  bool WriteParameters(const PlatenParameters& in) override { return p_.WriteParameters(in); }
  void StoreParameters(Configuration& file, const PlatenParameters& in, bool withSerial) override {
    kPlatenBlocks.StoreParameters(file, in, withSerial);
  }
  void LoadParameters(Configuration& file, PlatenParameters& out, bool withSerial) override {
    kPlatenBlocks.LoadParameters(file, out, withSerial);
  }

 private:
  ChannelCommands p_;
};
