// What the pages record with every page on, by rate and kind: the sizing of the recorder's
// budget. A machine has one family of pages, so this is the most one run records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "recorder/Recorder.h"

namespace recorder {

struct PlannedChannels {
  const char* what;
  unsigned count;
  std::uint32_t rateMs;
  ValueKind kind;
};

// Stage: linear (X Y Z Zoom), rotary and index (six slots) every 20 ms; the limit bytes every
// 50 ms; moving, settled, stalled (six slots), failed (four), e-stop, sleep, platen open and
// closed every 200 ms.
// Readings: eight temperatures, the W sensor and sixteen voltages once a second. Pendant: eight
// buttons, e-stop, joystick readings and deflections, accelerometer every 200 ms. Probes: trip,
// laser on and interrupt, touch, laser and video captures and the laser's value every 200 ms, the
// laser's rate once a second. Lights: 42 channel values every 20 ms (the cycle's tick).
inline constexpr PlannedChannels kPagePlan[] = {
    {.what = "stage positions", .count = 16, .rateMs = 20, .kind = ValueKind::kInt32},
    {.what = "stage limits", .count = 5, .rateMs = 50, .kind = ValueKind::kFlag},
    {.what = "stage flags", .count = 26, .rateMs = 200, .kind = ValueKind::kFlag},
    {.what = "readings", .count = 25, .rateMs = 1000, .kind = ValueKind::kFloat},
    {.what = "pendant buttons", .count = 9, .rateMs = 200, .kind = ValueKind::kFlag},
    {.what = "pendant joystick", .count = 6, .rateMs = 200, .kind = ValueKind::kInt32},
    {.what = "pendant accelerometer", .count = 3, .rateMs = 200, .kind = ValueKind::kInt16},
    {.what = "probe flags", .count = 3, .rateMs = 200, .kind = ValueKind::kFlag},
    {.what = "probe captures", .count = 10, .rateMs = 200, .kind = ValueKind::kInt32},
    {.what = "laser rate", .count = 1, .rateMs = 1000, .kind = ValueKind::kFloat},
    {.what = "light values", .count = 42, .rateMs = 20, .kind = ValueKind::kUInt16},
};

// The bytes the plan takes under `limits`: channels, the time ring of each rate, the events.
std::size_t PlanBytes(const RecorderLimits& limits, std::span<const PlannedChannels> plan);

}  // namespace recorder
