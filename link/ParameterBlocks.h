// The text form of the three stored records of the W axis or the platen: one section of a keyed
// file for each record, so that a machine's parameters can be saved, looked at and put back. The
// file side of ReadParameters and WriteParameters; the operations keep no state, take no lock of
// the controller and send nothing, so they run with the link down as well.
//
// A store opens its section with create and writes every key of the record; a load leaves the
// file alone when the section is missing, and a key that is missing leaves its field as the
// caller passed it in (a caller that wants defaults fills the record first). Nothing reports a
// failure: a malformed number reads as 0.
#pragma once

#include "link/ControllerRecords.h"

class Configuration;

// The blocks of one unit. The two units differ only in their section names and in the
// platen's definition block going on with Size, Offset and SlowSpeedTurns.
class ParameterBlocks {
 public:
  constexpr ParameterBlocks(const char* pidSection, const char* defineSection,
                            const char* serialSection, bool platenDefine)
      : pidSection_(pidSection),
        defineSection_(defineSection),
        serialSection_(serialSection),
        platenDefine_(platenDefine) {}

  // Serial, definition, tuning, in this order. `withSerial` only matters to the serial block.
  template <typename Parameters>
  void StoreParameters(Configuration& file, const Parameters& in, bool withSerial) const {
    StoreSerial(file, in.Serial, withSerial);
    StoreDefine(file, in.Define);
    StorePid(file, in.Pid);
  }
  template <typename Parameters>
  void LoadParameters(Configuration& file, Parameters& out, bool withSerial) const {
    LoadSerial(file, out.Serial, withSerial);
    LoadDefine(file, out.Define);
    LoadPid(file, out.Pid);
  }

  void StorePid(Configuration& file, const ChannelPid& in) const;
  void StoreDefine(Configuration& file, const ChannelDefine& in) const;
  // SerialNumber only with `withSerial`; the identity numbers are never written.
  void StoreSerial(Configuration& file, const BoardIdentity& in, bool withSerial) const;
  void LoadPid(Configuration& file, ChannelPid& out) const;
  void LoadDefine(Configuration& file, ChannelDefine& out) const;
  // ModelType always; SerialNumber, the two identity longs and IsEngineeringModel only with
  // `withSerial`.
  void LoadSerial(Configuration& file, BoardIdentity& out, bool withSerial) const;

 private:
  const char* pidSection_;
  const char* defineSection_;
  const char* serialSection_;
  bool platenDefine_;
};

inline constexpr ParameterBlocks kWAxisBlocks("PID:WAXIS", "DEFINE:WAXIS", "DEFINE:WAXIS_SERIAL",
                                              false);
inline constexpr ParameterBlocks kPlatenBlocks("PID:PLATEN", "DEFINE:PLATEN",
                                               "DEFINE:PLATEN_SERIAL", true);
