// Records the controller operations fill, in host order. Flags hold 0 or 1; fields called raw keep
// the board's value. Fields marked "carried" belong to the reply format and are filled, but no
// operation of the program reads them.
#pragma once

#include <cstdint>

#include "link/BoardRecords.h"

// Axes X, Y, Z and Zoom are numbered 0 to 3 in byte 1 of a request; the W axis and the platen are
// reached through the channel numbers 16 and 17.
inline constexpr std::uint16_t kAxisCount = 4;
inline constexpr std::uint8_t kWChannel = 16;
inline constexpr std::uint8_t kPlatenChannel = 17;

// The status poll (command 0x59).
struct ServoStatus {
  bool EStop = false;
  bool AuxFlag1 = false;  // carried
  bool CaptureReady = false;
  std::uint8_t TouchCaptureReady = 0;  // raw
  bool TouchProbeTrip = false;
  bool AuxFlag2 = false;  // carried
  bool Sleep = false;     // only the long form carries it
  bool Moving[4] = {};
  std::int8_t Limit[4] = {};  // raw: below 0 negative limit, above 0 positive
  bool Settled[4] = {};
  bool Stalled[4] = {};
  bool Failed[4] = {};
  std::uint32_t AuxLong = 0;  // carried
  std::int32_t LinearPosition[4] = {};
  bool Inputs[16] = {};
  bool Inputs2[16] = {};  // carried
  bool Footswitch = false;
  bool AuxFlags[3] = {};      // carried
  bool AuxFlag3 = false;      // carried
  std::uint16_t AuxWord = 0;  // carried
  bool WMoving = false;
  bool AuxMoving[2] = {};  // carried
  bool WSettled = false;
  bool AuxSettled[2] = {};  // carried
  bool WStalled = false;
  bool AuxStalled[2] = {};       // carried
  std::int8_t WLimit[3] = {};    // raw
  std::uint32_t WLongA[3] = {};  // carried
  std::uint32_t WLongB[3] = {};  // carried
  bool PlatenMoving = false;
  bool PlatenSettled = false;
  bool PlatenStalled = false;
  std::int8_t PlatenLimit = 0;    // raw: below 0 closed, above 0 open
  std::uint32_t PlatenLongA = 0;  // carried
  std::uint32_t PlatenLongB = 0;  // carried
};

// The tuning record of one of the axes X, Y, Z, Zoom (commands 0x74, 0x73). `Mb` is a constant
// output the board adds: with the gains at zero it drives the motor open-loop.
struct AxisPid {
  std::uint16_t Kp = 0;
  std::uint16_t Kd = 0;
  std::uint16_t Ki = 0;
  std::uint32_t Il = 0;
  std::uint32_t Fe = 0;
  std::uint16_t Kvff = 0;
  std::uint16_t Kaff = 0;
  std::uint16_t Dt = 0;
  std::uint16_t Kout = 0;
  std::int16_t Mb = 0;

  bool operator==(const AxisPid&) const = default;
};

struct PmdVersion {
  std::uint16_t family = 0;
  std::uint16_t motor = 0;
  std::uint16_t axes = 0;
  std::uint16_t attributes = 0;
  std::uint16_t customer = 0;
  std::uint16_t major = 0;
  std::uint16_t minor = 0;

  bool operator==(const PmdVersion&) const = default;
};

struct PendantState {
  std::int32_t PendantRead[4] = {};
  std::int32_t PendantPos[4] = {};  // signed deflection
  std::uint16_t Accelerometer[4] = {};
};

// Indexed by axis; an axis without its Valid flag keeps its entries.
struct AxisExtents {
  bool Valid[4] = {};
  std::uint32_t Extent1[4] = {};
  std::uint32_t Extent2[4] = {};
  std::uint32_t Extent3[4] = {};
  std::uint32_t Extent4[4] = {};
};

// The first index is the capture source; the second index of Position is the coordinate.
struct ProbeCapture {
  bool Available[4] = {};
  bool Valid[4] = {};
  std::uint16_t Kind[4] = {};
  std::uint32_t Position[4][4] = {};
  std::uint32_t Extra[4] = {};
};

struct LaserPoint {
  std::uint32_t Time = 0;
  std::uint32_t Position[3] = {};
  bool Valid = false;
  std::uint32_t Extra = 0;
};

inline constexpr std::size_t kLaserPointSlots = 30;

struct LaserPoints {
  std::uint8_t Count = 0;
  std::uint16_t Pending = 0;
  LaserPoint Points[kLaserPointSlots] = {};
};

inline constexpr std::size_t kLaserSettingsWords = 21;

// The tuning record of the W axis or the platen: the fields of AxisPid at full width.
struct ChannelPid {
  std::uint32_t Kp = 0;
  std::uint32_t Kd = 0;
  std::uint32_t Ki = 0;
  std::uint32_t Il = 0;
  std::uint32_t Fe = 0;
  std::uint32_t Kvff = 0;
  std::uint32_t Kaff = 0;
  std::uint32_t Dt = 0;
  std::uint32_t Kout = 0;
  std::int32_t Mb = 0;

  bool operator==(const ChannelPid&) const = default;
};

// IndexType values.
inline constexpr std::uint8_t kIndexMark = 0;
inline constexpr std::uint8_t kIndexMarkInverted = 1;
inline constexpr std::uint8_t kNoIndexMark = 2;

// The definition record of a channel. The W axis has the fields up to IndexType; the platen has
// the three last ones as well, in an extra record of later firmware
// (generation::HasPlatenExtraRecord).
struct ChannelDefine {
  std::uint32_t Speed = 0;
  std::uint32_t SlowSpeed = 0;
  std::uint32_t Accel = 0;
  std::uint32_t Jerk = 0;
  std::uint32_t RotaryEncoderRes = 0;
  double Gear = 0;  // a ratio, 16.16 fixed point on the wire
  std::uint32_t Current = 0;
  std::uint32_t SettleWindow = 0;
  std::uint32_t SettleTime = 0;
  std::uint32_t MotorPoles = 0;
  std::uint32_t MotorSaturationCounter = 0;
  bool EncoderSwap = false;
  bool MotorSwap = false;
  std::uint8_t IndexType = 0;
  std::uint16_t Size[3] = {};
  std::int16_t Offset[3] = {};
  std::uint16_t SlowSpeedTurns = 0;

  bool operator==(const ChannelDefine&) const = default;
};

// The three stored records of a channel in one piece.
struct WAxisParameters {
  BoardIdentity Serial;
  ChannelDefine Define;
  ChannelPid Pid;

  bool operator==(const WAxisParameters&) const = default;
};

struct PlatenParameters {
  BoardIdentity Serial;
  ChannelDefine Define;
  ChannelPid Pid;

  bool operator==(const PlatenParameters&) const = default;
};
