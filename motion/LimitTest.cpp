// The limit test: negative seek, positive seek, centering, report. Between the limits it keeps
// the axis in a speed band by stepping the voltage up and down.
#include <cstdlib>

#include "motion/Reports.h"
#include "motion/TestRun.h"
#include "motion/TestTexts.h"
#include "motion/Tests.h"
#include "reports/ReportLayout.h"
#include "ui/MessageBox.h"
#include "util/Text.h"

namespace motion {

namespace {

// One seek in a direction, from the end of its ramp to the limit.
class Seek {
 public:
  Seek(AxisRun& run, LimitTestResult& r, Direction dir, const FamilyRules& rules)
      : run_(run), r_(r), dir_(dir), band_(rules.seek) {
    const std::int64_t k = DistanceScale(run.Page().CountsPerMm(run.Axis()));
    slowBelow_ = k * band_.slowNumerator / band_.slowDenominator;
    fastAbove_ = k * band_.fastNumerator / band_.fastDenominator;
    fastPasses_ = dir == kNegative ? band_.fastPassesNegative : band_.fastPassesPositive;
  }

  // Seeks the limit; false when the link was lost on the way (the seek found nothing).
  bool Run(std::int32_t& mb) {
    StagePage& page = run_.Page();
    StageTestState& state = page.TestState();
    mb_ = mb;
    page.PreviousTestPosition = run_.Position();
    run_.Pass(100);
    const auto& limitFlag = dir_ == kNegative ? state.NegLimit : state.PosLimit;
    bool found = true;
    while (!limitFlag && !done_) {
      const std::int32_t previous = run_.Position();
      page.PreviousTestPosition = previous;
      run_.Pass(100);
      if (run_.LinkLost()) {
        found = false;
        break;
      }
      // A pass cut short by a stop says nothing about the speed: no step is taken on it.
      if (!run_.StopPending()) Judge(previous);
      if (run_.StopPending()) {
        r_.ManuallyStopped[dir_] = 1;
        break;
      }
      // The page that feeds the position is going away: the axis must not be driven blind.
      if (run_.QuitRequested()) break;
    }
    mb = mb_;
    return found;
  }

 private:
  // One pass's speed against the band: a step up, a step down, or the counters.
  void Judge(std::int32_t previous) {
    position_ = run_.Position();
    const std::int64_t d = std::llabs(static_cast<std::int64_t>(position_) - previous);
    if (d < slowBelow_) {
      if (TooSlow()) done_ = true;  // the voltage limit: the seek ends at once
    } else if (d > fastAbove_) {
      TooFast();
    } else {
      slow_ = fast_ = steps_ = 0;
    }
  }

  // Returns true when the seek must end at once (the voltage limit).
  bool TooSlow() {
    if (steps_ >= 4) {
      const bool beyond =
          dir_ == kNegative ? position_ < r_.ExpectedNegative : position_ > r_.ExpectedPositive;
      if (beyond) {
        done_ = true;  // a stall beyond the expected limit counts as the limit
        return false;
      }
      // Short of the expected limit (or at it) with no switch: the voltage stays, and the slow
      // passes go on being counted in the same rhythm as the steps up. At the seventh the seek
      // ends, and a stall short of the expected limit is reported as a switch that never came.
      if (slow_ < band_.slowPasses) {
        ++slow_;
        fast_ = 0;
      } else if (++steps_ > 6) {
        done_ = true;
        r_.LimitNotRegistered[dir_] =
            dir_ == kNegative ? position_ > r_.ExpectedNegative : position_ < r_.ExpectedPositive;
      } else {
        slow_ = 0;
      }
      return false;
    }
    if (slow_ < band_.slowPasses) {
      ++slow_;
      fast_ = 0;
      return false;
    }
    mb_ += kRampStep;
    run_.Drive(dir_, mb_);
    if (mb_ > r_.MaxVoltage[dir_]) r_.MaxVoltage[dir_] = mb_;
    ++steps_;
    slow_ = 0;
    if (mb_ >= run_.Limit()) {
      r_.VoltageLimitReached[dir_] = 1;
      return true;
    }
    return false;
  }

  void TooFast() {
    if (fast_ < fastPasses_) {
      ++fast_;
      slow_ = 0;
      return;
    }
    // No floor: an axis that keeps running too fast can take the bias through 0.
    mb_ -= kRampStep;
    run_.Drive(dir_, mb_);
    if (mb_ < r_.MinVoltage[dir_]) r_.MinVoltage[dir_] = mb_;
    fast_ = 0;
  }

  AxisRun& run_;
  LimitTestResult& r_;
  Direction dir_;
  SeekBand band_;
  std::int64_t slowBelow_ = 0;
  std::int64_t fastAbove_ = 0;
  int fastPasses_ = 0;
  std::int32_t mb_ = 0;
  std::int32_t position_ = 0;
  int slow_ = 0;
  int fast_ = 0;
  int steps_ = 0;
  bool done_ = false;
};

// How a phase of the test ended. Only a test whose phases all ran files a report: a phase that
// never began (a quit, or no link at its start) or that a lost link cut found no limit.
enum class Phase { kRan, kSkipped, kCut };

// The common start of every run: the axis taken, the expected limits read, the first bias.
bool StartRun(AxisRun& run, LimitTestResult& r, Direction dir, std::int32_t& mb) {
  if (!run.TakeOver()) return false;
  const AxisExtents& extents = run.Page().Extents();
  r.ExpectedNegative = static_cast<std::int32_t>(extents.Extent3[run.Axis()]);
  r.ExpectedPositive = static_cast<std::int32_t>(extents.Extent4[run.Axis()]);
  mb = run.Axis() == 2 && dir == kPositive ? run.Saved().Mb : 0;
  r.StartPosition[dir] = run.Position();
  return true;
}

void HandBack(AxisRun& run, std::int32_t mb) {
  run.Restore(mb);
  run.Settle();
  run.Release();
}

Phase RunSeek(const TestParams& p, std::uint32_t choice, LimitTestResult& r, Direction dir) {
  StagePage& page = *p.page;
  AxisRun run(page, p.axis, choice);
  std::int32_t mb = 0;
  if (!StartRun(run, r, dir, mb)) return Phase::kSkipped;
  const std::int64_t target = 10 * DistanceScale(page.CountsPerMm(p.axis));
  const RampEnd end =
      run.RunRamp({.target = target, .moving = target / 50, .holds = RulesOf(page).limitHolds},
                  r.StartPosition[dir], dir, mb);
  if (mb >= run.Limit()) r.VoltageLimitReached[dir] = 1;
  r.MaxVoltage[dir] = r.MinVoltage[dir] = mb;
  const bool found =
      end != RampEnd::kLinkLost && run.Drive(dir, mb) && Seek(run, r, dir, RulesOf(page)).Run(mb);
  r.LinearLimit[dir] = run.Position();  // with the bias still on
  page.GetRotaryPosition(p.axis, r.RotaryLimit[dir]);
  r.ManuallyStopped[dir] = page.StopRequested != 0;
  HandBack(run, mb);
  return found ? Phase::kRan : Phase::kCut;
}

Phase RunCentering(const TestParams& p, std::uint32_t choice, LimitTestResult& r) {
  StagePage& page = *p.page;
  AxisRun run(page, p.axis, choice);
  std::int32_t mb = 0;
  if (!StartRun(run, r, kNegative, mb)) return Phase::kSkipped;
  const std::int64_t k = DistanceScale(page.CountsPerMm(p.axis));
  // An eighth of the lowest moving voltage, so that the axis leaves the limit gently.
  mb = r.MinVoltage[0] / 8;
  bool cut = !run.Drive(kNegative, mb);
  r.CenterLinear = r.LinearLimit[0] / 2 + r.LinearLimit[1] / 2;
  r.CenterRotary = r.RotaryLimit[0] / 2 + r.RotaryLimit[1] / 2;
  // A failed read keeps the last rotary count known, where the positive seek ended.
  std::int32_t rotary = r.RotaryLimit[1];
  page.GetRotaryPosition(p.axis, rotary);
  std::int32_t position = run.Position();
  while (!cut && position > r.CenterLinear && rotary > r.CenterRotary) {
    page.PreviousTestPosition = position;
    run.Pass(50);
    if (run.LinkLost()) {
      cut = true;
      break;
    }
    page.GetRotaryPosition(p.axis, rotary);
    const std::int32_t previous = position;
    position = run.Position();
    const std::int64_t d = std::llabs(static_cast<std::int64_t>(position) - previous);
    // A pass cut short by a stop says nothing about the speed: no step is taken on it.
    const bool stop = run.StopPending();
    if (!stop && (mb < r.MinVoltage[0] || d < k * 3 / 4)) {
      mb += kRampStep;
      run.Drive(kNegative, mb);
      if (mb >= run.Limit()) {
        r.VoltageLimitReached[0] = 1;
        break;
      }
    } else if (!stop && d > k * 5 / 2) {
      mb -= kRampStep;
      run.Drive(kNegative, mb);
    }
    // A quit ends the centering as a stop does: the report says it did not finish.
    if (run.StopPending() || run.QuitRequested()) {
      r.CenteringStopped = 1;
      break;
    }
  }
  HandBack(run, mb);
  return cut ? Phase::kCut : Phase::kRan;
}

void ShowVoltageWarning(StagePage& page) {
  page.Ask(texts::Get(texts::kVoltageLimitReached) + texts::Get(texts::kHigherLimitAdvice),
           ui::kMbOk);
}

// The phases after the start; a voltage limit in a seek ends them with the warning and no
// report, and so, without a word, does a phase that did not run whole (its reason is the
// window's: a closed program, a lost board).
void RunPhases(const TestParams& p, std::uint32_t choice) {
  StagePage& page = *p.page;
  LimitTestResult r;
  for (const Direction dir : kDirections) {
    const Phase phase = RunSeek(p, choice, r, dir);
    p.guard->ClearThread();
    if (phase != Phase::kRan) return;
    if (r.VoltageLimitReached[dir]) {
      ShowVoltageWarning(page);
      return;
    }
  }
  const Phase centering = RunCentering(p, choice, r);
  p.guard->ClearThread();
  if (centering != Phase::kRan) return;
  FileReport(page, reports::ReportPrefix(reports::ReportKind::kLimit, AxisLetter(p.axis)),
             LimitReportBody(r, p.axis));
  page.Ask(LimitResultText(r, p.axis), ui::kMbOk);
}

// "          Negative: 12": the value after its label, right-aligned with the others.
std::string Field(const char* label, const std::string& value) {
  return text::Format("%*s: %s", reports::kLimitReport.valueWidth, label, value.c_str());
}

std::string ValueLine(const char* label, const std::string& value) {
  return Field(label, value) + "\r\n";
}

std::string LimitLines(const std::string& heading, std::int32_t negative, std::int32_t positive) {
  const reports::LimitReportLayout& L = reports::kLimitReport;
  return heading + "\r\n" + ValueLine(L.side[0], std::to_string(negative)) +
         ValueLine(L.side[1], std::to_string(positive));
}

}  // namespace

std::string LimitResultText(const LimitTestResult& r, unsigned axis) {
  std::string t = AxisLetter(axis) + texts::Get(texts::kAxisLimits);
  if (r.VoltageLimitReached[0] || r.VoltageLimitReached[1]) {
    t += "\r\n" + texts::Get(texts::kVoltageLimitReached) + texts::Get(texts::kBeforeContinuing) +
         "\r\n";
  }
  const reports::LimitReportLayout& L = reports::kLimitReport;
  t += LimitLines(std::string("\r\n") + L.linear, r.LinearLimit[0], r.LinearLimit[1]);
  t += LimitLines(L.rotary, r.RotaryLimit[0], r.RotaryLimit[1]) + "\r\n";
  return t + texts::Get(texts::kTestFinished);
}

std::string LimitReportBody(const LimitTestResult& r, unsigned axis) {
  const reports::LimitReportLayout& L = reports::kLimitReport;
  std::string b = std::string(10, ' ') + AxisLetter(axis) + L.heading;
  if (r.VoltageLimitReached[0] || r.VoltageLimitReached[1]) {
    b += std::string("\r\n") + L.voltageLimit + "\r\n";
  }
  for (const Direction d : kDirections) {
    if (r.LimitNotRegistered[d]) b += std::string("\r\n") + L.notRegistered[d];
  }
  b += LimitLines(std::string("\r\n") + L.linear, r.LinearLimit[0], r.LinearLimit[1]);
  b += LimitLines(L.rotary, r.RotaryLimit[0], r.RotaryLimit[1]);
  for (const Direction d : kDirections) {
    b += std::string("    ") + L.moving[d] + "\r\n" +
         ValueLine(L.min, std::to_string(r.MinVoltage[d])) +
         ValueLine(L.max, std::to_string(r.MaxVoltage[d]));
  }
  b += std::string("    ") + L.manuallyStopped + " \r\n";
  b += ValueLine(L.side[0], r.ManuallyStopped[0] ? reports::kYes : reports::kNo);
  b += Field(L.side[1], r.ManuallyStopped[1] ? reports::kYes : reports::kNo);
  if (r.CenteringStopped) b += "\r\n" + Field(L.centering, reports::kYes);
  return b + "\r\n\r\n";
}

void RunLimitTest(const TestParams& p) {
  StagePage& page = *p.page;
  StageTestState& state = page.TestState();
  // The first generation asks nothing: it runs with the voltage limit of the last axis or zoom
  // test, or Standard after ResetPage.
  if (RulesOf(page).limitStartDialog) AskStart(page, StartDialog::kLimit);
  const std::uint32_t choice = page.VoltageChoice;
  if (state.MessageResult != ui::kIdOk) {
    state.MessageResult = ui::kIdOk;
  } else {
    RunPhases(p, choice);
  }
  page.Trace.End();
  state.TestX = state.TestY = state.TestZ = 0;
  state.LimitTest = 0;
  state.Running = 0;
}

}  // namespace motion
