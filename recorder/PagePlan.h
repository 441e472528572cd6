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

// Stage, on the servo machines (the poll every 50 ms): linear positions (X Y Z Zoom), limits (the
// four axes and the platen), the motion flags (moving, settled, stalled of six slots, failed of
// four), e-stop and sleep from each poll; rotary positions (six slots) and index captures (five)
// as the page reads them every 200 ms; the bias a motion test wrote, every 20 ms of its run.
// Readings: eight temperatures, the W sensor and sixteen voltages once a second. Pendant: eight
// buttons and its e-stop, joystick readings and deflections, accelerometer every 200 ms. Probes:
// the touch probe's trip, its captures, the laser's value and captures, the video captures every
// 200 ms, the laser's rate once a second. Lights: 42 channel values as last sent, every 20 ms.
// The manual-vision pages record fewer (their poll is every 200 ms).
inline constexpr PlannedChannels kPagePlan[] = {
    {.what = "stage positions", .count = 4, .rateMs = 50, .kind = ValueKind::kInt32},
    {.what = "stage limits", .count = 5, .rateMs = 50, .kind = ValueKind::kInt16},
    {.what = "stage flags", .count = 24, .rateMs = 50, .kind = ValueKind::kFlag},
    {.what = "stage rotary and index", .count = 11, .rateMs = 200, .kind = ValueKind::kInt32},
    {.what = "motion bias", .count = 1, .rateMs = 20, .kind = ValueKind::kInt16},
    {.what = "readings", .count = 25, .rateMs = 1000, .kind = ValueKind::kFloat},
    {.what = "pendant buttons", .count = 9, .rateMs = 200, .kind = ValueKind::kFlag},
    {.what = "pendant joystick", .count = 6, .rateMs = 200, .kind = ValueKind::kInt32},
    {.what = "pendant accelerometer", .count = 3, .rateMs = 200, .kind = ValueKind::kInt16},
    {.what = "probe trip", .count = 1, .rateMs = 200, .kind = ValueKind::kFlag},
    {.what = "probe captures", .count = 9, .rateMs = 200, .kind = ValueKind::kInt32},
    {.what = "laser value", .count = 1, .rateMs = 200, .kind = ValueKind::kUInt32},
    {.what = "laser rate", .count = 1, .rateMs = 1000, .kind = ValueKind::kInt32},
    {.what = "light values", .count = 42, .rateMs = 20, .kind = ValueKind::kUInt32},
};

// The bytes the plan takes under `limits`: channels, the time ring of each rate, the events.
std::size_t PlanBytes(const RecorderLimits& limits, std::span<const PlannedChannels> plan);

}  // namespace recorder
