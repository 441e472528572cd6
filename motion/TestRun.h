// The layer every motion test runs on: the family rules, the voltage limit, the start dialogs,
// the take-over of an axis, the voltage ramp and the hand-back. The thread bodies
// (motion/Tests.h) are written in terms of these.
#pragma once

#include <cstdint>
#include <mutex>
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

// How a ramp ended.
enum class RampEnd {
  kArrived,   // the unit travelled beyond the target
  kStopped,   // a stop request (the operator, an e-stop, no browser alive)
  kLimit,     // the bias reached the voltage limit
  kQuit,      // the page asked its thread to quit
  kLinkLost,  // the link went down, or came back in a new session, since the take-over
};

// One run of a test on an axis: it takes the axis over, drives it and hands it back. The run
// keeps its axis, its saved tuning record and its voltage choice itself; after the start it never
// takes them from the page again. So a reconnection under a running test (the page's ResetPage
// sets TestAxis to none, clears Sampling, TestPosition and VoltageChoice, and reloads AxisPids)
// changes neither which axis is driven nor what is put back: the run sets TestAxis and Sampling
// again, writes its own record before each store, and restores the record it saved.
//
// What ends a run, and how the axis gets its own record back:
//   stop, e-stop, no browser   the drive ends at once (a waiting pass is woken), then the
//                              hand-back: the saved record, the settling, the sync.
//   quit (close, SIGTERM)      as a stop; a run that has not begun is skipped whole.
//   link lost                  no write after the loss drives harder than the last one before
//                              it: the drive ends at the next look and the run's transfers are
//                              held to the link session it began in, so a link that comes back
//                              never carries another drive of this run. The saved record stays
//                              owed (StagePage::Owed, and its journal) until a write of it
//                              succeeds: the page's reset writes it first thing when the link
//                              is back, before any record is read.
//   program or computer dies   the journal still names the record; the next start writes it
//                              before anything else touches the axis, and tells the operator.
class AxisRun {
 public:
  AxisRun(StagePage& page, unsigned axis, std::uint32_t voltageChoice);
  ~AxisRun();
  AxisRun(const AxisRun&) = delete;
  AxisRun& operator=(const AxisRun&) = delete;

  // Takes the axis over. False when the run must not happen, and then nothing was driven: the
  // page asked its thread to quit, or the link is down (the board did not take the take-over).
  bool TakeOver();
  // The unit's position as the page's tick delivers it. A pass that finds the page no longer
  // sampling this axis puts it back and answers with the last position seen.
  std::int32_t Position();
  // Writes the bias (saturated to 16 bits) into the working record and stores it. False when
  // the board did not take it; the run then counts the link as lost.
  bool WriteBias(std::int32_t bias);
  // "MB: %d" on the axis's running text.
  void ShowMb(std::int32_t mb);
  // Bias -mb (negative) or mb (positive), then the text. Nothing is written once the link was
  // lost: false then.
  bool Drive(Direction direction, std::int32_t mb);

  struct Ramp {
    std::int64_t target;  // counts from the reference at which the ramp has arrived
    std::int64_t moving;  // counts beyond which each step is held longer
    RampHolds holds;
  };
  // The shared voltage ramp from `mb` up. `mb` is left at the last value.
  RampEnd RunRamp(const Ramp& ramp, std::int32_t reference, Direction direction, std::int32_t& mb);

  // Waits out one pass of `ms`, or less when the drive must end (a stop request, an e-stop, no
  // browser alive, a quit, a lost link), so that the hand-back can follow at once.
  void Pass(std::int64_t ms);
  // An e-stop, or no browser alive, becomes a stop request; returns whether a stop is pending.
  bool StopPending();
  bool QuitRequested() const;
  // Whether the link went down (or came back in a new session) since the take-over; once true
  // it stays so for the run.
  bool LinkLost();

  // Hand-back in its steps: the saved record back in force and the text; the settling sleep and
  // the axis sync; then the page no longer samples for the run.
  void Restore(std::int32_t mb);
  void Settle();
  void Release();

  unsigned Axis() const { return axis_; }
  std::int32_t Limit() const { return limit_; }
  // The record the axis had when the run took it over.
  const AxisPid& Saved() const { return saved_; }
  StagePage& Page() { return page_; }

 private:
  bool Sampled() const;
  void Resample();
  bool DriveMustEnd();

  StagePage& page_;
  unsigned axis_;
  std::uint32_t voltageChoice_;
  AxisPid saved_{};
  AxisPid restore_{};  // what the hand-back writes (the saved record, see TakeOver)
  AxisPid work_{};
  std::int32_t limit_ = 0;
  std::int32_t lastPosition_ = 0;
  std::uint32_t session_ = 0;  // the link session of the take-over
  std::string board_;          // the serial number of the board taken over
  bool linkLost_ = false;
  bool held_ = false;    // the run took the axis and has not released it
  std::mutex passLock_;  // for the clock's wait only
};

// A run is over when its ramp ended by one of these: the report keeps the ramp's last bias.
inline bool EndedWithBias(RampEnd end) {
  return end == RampEnd::kArrived || end == RampEnd::kStopped || end == RampEnd::kLinkLost;
}

}  // namespace motion
