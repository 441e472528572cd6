// What the Stage pages of every family share: the element ids of their slots, the texts of the
// switches and motion flags, and the reads of positions and index captures that fill them. For
// the pages' own files only.
#pragma once

#include <cstdint>
#include <string>

#include "link/CTavroUsbWAxis.h"
#include "pages/DataExchange.h"
#include "pages/Stage.h"

namespace stage_parts {

// Element id suffixes of the slots.
inline constexpr const char* kSlotNames[kStageSlots] = {"X", "Y", "Z", "Zoom", "W", "Platen"};

inline std::string Id(const char* stem, unsigned slot) {
  return std::string(stem) + kSlotNames[slot];
}

inline std::string LimitWord(std::int8_t limit) {
  if (limit < 0) return "Neg";
  if (limit > 0) return "Pos";
  return {};
}

// A motion flag's text, rebuilt only when its byte changed. Never sets the page's dirty flag:
// the text reaches the document with the next push that something else causes.
inline void FollowFlag(bool previous, bool now, std::string& text, const char* word) {
  if (previous != now) text = now ? word : "";
}

// The index capture of a slot as the board reports it; a reply without `valid` keeps what the
// page showed. Returns whether the shown value changed.
inline bool TakeIndex(bool valid, bool captured, std::uint32_t count, std::uint8_t& shown,
                      std::int32_t& value) {
  if (!valid) return false;
  const auto c = static_cast<std::int32_t>(count);
  if (static_cast<std::uint8_t>(captured) == shown && c == value) return false;
  shown = captured ? 1 : 0;
  value = c;
  return true;
}

inline bool TakeValue(std::int32_t now, std::int32_t& shown) {
  if (now == shown) return false;
  shown = now;
  return true;
}

// The W axis's position and index capture, the reads both servo and manual-vision pages make.
// False on a failed read.
inline bool ReadW(CTavroUsbWAxis& w, std::int32_t& position, std::uint8_t& indexValid,
                  std::int32_t& index, bool& dirty) {
  std::uint32_t count = 0;
  std::uint32_t second = 0;
  if (!w.GetPosition(count, second)) return false;
  dirty |= TakeValue(static_cast<std::int32_t>(count), position);
  bool valid = false;
  std::uint32_t state = 0;
  std::uint32_t captures = 0;
  if (!w.GetIndexCapture(valid, state, captures)) return false;
  dirty |= TakeIndex(valid, state > 0, captures, indexValid, index);
  return true;
}

inline void IndexText(DataExchange& dx, const std::string& id, std::uint8_t valid,
                      std::int32_t value) {
  if (valid) {
    dx.Text(id, value);
  } else {
    dx.Text(id, std::string());
  }
}

// The motion flags of the W axis, followed as FollowFlag does.
inline void FollowWFlags(const ServoStatus& previous, const ServoStatus& now, std::string& moving,
                         std::string& settled, std::string& stalled) {
  FollowFlag(previous.WMoving, now.WMoving, moving, "Moving");
  FollowFlag(previous.WSettled, now.WSettled, settled, "Settled");
  FollowFlag(previous.WStalled, now.WStalled, stalled, "Stall");
}

// The index capture of stage axis `axis` into the slot's shown values; false on a failed read.
template <class Controller>
bool ReadIndex(Controller& controller, std::uint16_t axis, std::uint8_t& shown, std::int32_t& value,
               bool& dirty) {
  bool valid = false;
  bool captured = false;
  std::uint32_t count = 0;
  if (!controller.CTavroUsbController::GetIndexCapture(axis, valid, captured, count)) return false;
  dirty |= TakeIndex(valid, captured, count, shown, value);
  return true;
}

}  // namespace stage_parts
