// The main dialog's four timers. A page gets each tick as its id (the timerId of UpdatePage, 1 to
// 4), and the recorder keeps a value at the period of the tick that reads it.
#pragma once

#include <cstdint>

enum class Tick : std::uint32_t {
  k20ms = 1,   // motion tests' samples and traces, light values
  k50ms = 2,   // the status poll of a servo machine
  k200ms = 3,  // the pages' own reads and refresh (a manual-vision machine's poll)
  k1s = 4,     // reconnection, the slow readings
};

struct TickPeriod {
  Tick tick;
  std::uint32_t ms;
};

inline constexpr TickPeriod kTickPeriods[] = {
    {.tick = Tick::k20ms, .ms = 20},
    {.tick = Tick::k50ms, .ms = 50},
    {.tick = Tick::k200ms, .ms = 200},
    {.tick = Tick::k1s, .ms = 1000},
};

// The id UpdatePage gets for `tick`.
constexpr std::uint32_t TickId(Tick tick) {
  return static_cast<std::uint32_t>(tick);
}

// The period of the timer with id `id` in ms; 0 for an id that is none of the four.
constexpr std::uint32_t PeriodMs(std::uint32_t id) {
  for (const TickPeriod& t : kTickPeriods) {
    if (TickId(t.tick) == id) return t.ms;
  }
  return 0;
}

constexpr std::uint32_t PeriodMs(Tick tick) {
  return PeriodMs(TickId(tick));
}
