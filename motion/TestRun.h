// The layer every motion test runs on: the family rules, the voltage limit, the start dialogs,
// the take-over of an axis, the voltage ramp and the hand-back. The thread bodies
// (motion/Tests.h) are written in terms of these.
#pragma once

#include <cstdint>
#include <string>

#include "link/ControllerRecords.h"
#include "motion/StageTest.h"
#include "ui/Dialogs.h"

namespace motion {

// How long one voltage step is held, in passes of 100 ms: at first, and once the unit moves.
struct RampHolds {
  int start;
  int moving;
};

// The speed band of the limit test's seek, on one pass of 100 ms, as fractions of K (counts per
// millimetre), and how many passes outside it are counted before a step.
struct SeekBand {
  int slowNumerator;  // too slow: the change of a pass below K * slowNumerator / slowDenominator
  int slowDenominator;
  int fastNumerator;  // too fast: above K * fastNumerator / fastDenominator
  int fastDenominator;
  int slowPasses;          // too-slow passes counted before a step up
  int fastPassesNegative;  // too-fast passes counted before a step down, by direction
  int fastPassesPositive;
};

// What differs between the two page families that run tests.
struct FamilyRules {
  RampHolds axisHolds;
  RampHolds limitHolds;
  RampHolds zoomHolds;
  bool limitStartDialog;  // the limit test asks for its voltage limit first
  bool zoomTest;          // the page has the zoom button
  SeekBand seek;
};

inline constexpr FamilyRules kCurrentRules{
    .axisHolds = {.start = 2, .moving = 5},
    .limitHolds = {.start = 2, .moving = 5},
    .zoomHolds = {.start = 2, .moving = 5},
    .limitStartDialog = true,
    .zoomTest = false,
    .seek = {.slowNumerator = 3,
             .slowDenominator = 2,
             .fastNumerator = 3,
             .fastDenominator = 1,
             .slowPasses = 2,
             .fastPassesNegative = 3,
             .fastPassesPositive = 3},
};

inline constexpr FamilyRules kFirstGenerationRules{
    .axisHolds = {.start = 3, .moving = 10},
    .limitHolds = {.start = 2, .moving = 5},
    .zoomHolds = {.start = 2, .moving = 5},
    .limitStartDialog = false,
    .zoomTest = true,
    .seek = {.slowNumerator = 2,
             .slowDenominator = 1,
             .fastNumerator = 3,
             .fastDenominator = 1,
             .slowPasses = 2,
             .fastPassesNegative = 4,
             .fastPassesPositive = 3},
};

const FamilyRules& RulesOf(const StagePage& page);

inline constexpr std::int32_t kRampStep = 250;

// The largest bias the ramp may command: MotorMaximum less one step, then a quarter (Standard),
// a half (High) or all of it (any other choice). Truncates toward zero, so a MotorMaximum of 0
// gives a negative limit and a ramp that never runs. Capped at the largest 16-bit bias, so that
// a ramp ends at the cap even for a motor maximum above it.
std::int32_t VoltageLimit(std::uint16_t motorMaximum, std::uint32_t choice);

// Counts per millimetre for the distances a run judges. The machine image may give 0 (an image
// that could not be read) or a nonsense negative value. The run then takes 1000 counts per mm,
// a 1 um scale: on the finer scales the ramp stops sooner than 10 mm, and the test still moves
// no further than its promise on any scale of 1 um or finer.
inline constexpr std::int32_t kFallbackCountsPerMm = 1000;
std::int64_t DistanceScale(std::int32_t countsPerMm);

// "X", "Y", "Z"; "0" for any other axis.
std::string AxisLetter(unsigned axis);

// The start dialogs of the tests.
enum class StartDialog { kAxis, kLimit, kZoom };
ui::ChoiceDialog MakeStartDialog(StartDialog which);
// Shows the dialog: MessageResult takes 1 (OK) or 2 (anything else), VoltageChoice the choice
// after OK and 0 otherwise.
void AskStart(StagePage& page, StartDialog which);

void SleepMs(std::int64_t ms);

// A Yes / No box's answer as the result fields keep it: 6 for Yes, 7 for anything else.
int YesNoAnswer(int answer);

// One run of a test on an axis: it takes the axis over, drives it and hands it back. The run
// keeps its axis, its saved tuning record and its voltage choice itself; after the start it never
// takes them from the page again. So a reconnection under a running test (the page's ResetPage
// sets TestAxis to none, clears Sampling, TestPosition and VoltageChoice, and reloads AxisPids)
// changes neither which axis is driven nor what is put back: the run sets TestAxis and Sampling
// again, writes its own record before each store, and restores the record it saved.
class AxisRun {
 public:
  AxisRun(StagePage& page, unsigned axis, std::uint32_t voltageChoice);

  // Takes the axis over; false when the page asked its thread to quit (the run does nothing).
  bool TakeOver();
  // The unit's position as the page's tick delivers it. A pass that finds the page no longer
  // sampling this axis puts it back and answers with the last position seen.
  std::int32_t Position();
  // Writes the bias (saturated to 16 bits) into the working record and stores it.
  void WriteBias(std::int32_t bias);
  // "MB: %d" on the axis's running text.
  void ShowMb(std::int32_t mb);
  // Bias -mb (direction 0) or mb (direction 1), then the text.
  void Drive(int direction, std::int32_t mb);

  struct Ramp {
    std::int64_t target;  // counts from the reference at which the ramp has arrived
    std::int64_t moving;  // counts beyond which each step is held longer
    RampHolds holds;
  };
  // The shared voltage ramp from `mb` up: true when it arrived (travel or a stop request), false
  // when it ran into the limit or a quit. `mb` is left at the last value.
  bool RunRamp(const Ramp& ramp, std::int32_t reference, int direction, std::int32_t& mb);

  // An e-stop becomes a stop request; returns whether a stop is pending.
  bool StopPending();
  bool QuitRequested() const;

  // Hand-back in its steps: the saved record back in force and the text; the settling sleep and
  // the axis sync; then the page no longer samples for the run.
  void Restore(std::int32_t mb);
  void Settle();
  void Release();

  unsigned Axis() const { return axis_; }
  std::int32_t Limit() const { return limit_; }
  const AxisPid& Saved() const { return saved_; }
  StagePage& Page() { return page_; }

 private:
  bool Sampled() const;
  void Resample();

  StagePage& page_;
  unsigned axis_;
  std::uint32_t voltageChoice_;
  AxisPid saved_{};
  AxisPid work_{};
  std::int32_t limit_ = 0;
  std::int32_t lastPosition_ = 0;
};

}  // namespace motion
