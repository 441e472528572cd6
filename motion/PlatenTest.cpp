// The platen toggle and the platen test: one thread body that moves the platen with the board's
// own command and watches its limit switches.
#include <algorithm>

#include "motion/Reports.h"
#include "motion/TestRun.h"
#include "motion/TestTexts.h"
#include "motion/Tests.h"
#include "reports/ReportLayout.h"
#include "ui/MessageBox.h"
#include "util/Text.h"

namespace motion {

namespace {

constexpr int kMoveWaitMs = 3000;  // after MovePlaten, before the limit is looked at
constexpr int kPollMs = 100;
constexpr int kSettleMs = 200;  // before the encoder is sampled
constexpr int kOpenPasses = 90;
constexpr int kClosePasses = 70;

bool QuitRequested(const TestParams& p) {
  return p.guard->IsQuitRequested();
}

// A single move; false when the board did not take the command (the link is down), and then
// nothing is waited for.
bool SingleMove(const TestParams& p) {
  if (QuitRequested(p)) return true;
  StagePage& page = *p.page;
  StageTestState& state = page.TestState();
  const bool open = state.PlatenClosed != 0;
  page.SetPlatenStatusText(texts::Get(open ? texts::kOpening : texts::kClosing));
  if (!page.MovePlaten(open)) return false;
  SleepMs(kMoveWaitMs);
  const auto& reached = open ? state.PlatenOpen : state.PlatenClosed;
  // A move that does not arrive has no consequence: the test goes on, the toggle just ends.
  for (int pass = 0; pass < (open ? kOpenPasses : kClosePasses) && !reached; ++pass) {
    SleepMs(kPollMs);
  }
  return true;
}

// Waits for the end switch of a cycle's move: false when the pass counter ran past `passes`.
bool WaitForEnd(const std::atomic<std::uint8_t>& reached, int passes) {
  for (int counter = 0; !reached; ++counter) {
    SleepMs(kPollMs);
    if (counter > passes) return false;
  }
  return true;
}

// A stop is looked at between moves only. A quit counts as a stop there: the page that feeds the
// switches is going away, and the cycles would otherwise run on to their time-outs.
bool StopBetweenMoves(const TestParams& p) {
  return p.page->StopRequested != 0 || QuitRequested(p);
}

// The cycles; false when a move did not reach the board (the link went), which ends them: the
// cycles from there on did not happen, and a time-out of a move never sent is no failure of the
// platen.
bool RunCycles(const TestParams& p, std::vector<PlatenSample>& samples, PlatenTestSummary& s) {
  if (QuitRequested(p)) return true;
  StagePage& page = *p.page;
  StageTestState& state = page.TestState();
  if (!page.Trace.Active()) page.Trace.Begin();
  for (std::int32_t i = 0; i < p.count; ++i) {
    page.SetPlatenStatusText(text::Format("Run %d of %d", i + 1, p.count));
    if (StopBetweenMoves(p)) {
      if (i == 0) {
        s.StoppedAfterCycle = -2;
      } else if (s.OpenFailedInCycle == s.CloseFailedInCycle) {
        s.StoppedAfterCycle = i - 1;
      }
      break;
    }
    if (!page.MovePlaten(true)) return false;
    SleepMs(kMoveWaitMs);
    if (!WaitForEnd(state.PlatenOpen, kOpenPasses)) {
      s.OpenFailedInCycle = i;
      page.StopRequested = 1;
    }
    SleepMs(kSettleMs);
    samples[static_cast<std::size_t>(i)].Open = page.TestPosition;
    if (StopBetweenMoves(p)) {
      if (s.OpenFailedInCycle == s.CloseFailedInCycle) s.StoppedInCycle = i;
      break;
    }
    if (!page.MovePlaten(false)) return false;
    SleepMs(kMoveWaitMs);
    if (!WaitForEnd(state.PlatenClosed, kClosePasses)) {
      s.CloseFailedInCycle = i;
      page.StopRequested = 1;
    }
    SleepMs(kSettleMs);
    samples[static_cast<std::size_t>(i)].Closed = page.TestPosition;
  }
  page.StopRequested = 0;
  return true;
}

std::string Extremes(const PlatenTestSummary& s, bool closedMeasured) {
  std::string t = "Platen open position:\r\n" + text::Format("    Min: %d\r\n", s.OpenMin) +
                  text::Format("    Max: %d\r\n", s.OpenMax);
  if (!closedMeasured) return t;
  return t + "Platen closed position:\r\n" + text::Format("    Min: %d\r\n", s.ClosedMin) +
         text::Format("    Max: %d\r\n\r\n", s.ClosedMax);
}

// The refusal of a count the test cannot run, or "" for a count it can.
std::string RefusedCount(std::int32_t count) {
  if (count >= 1 && count <= kMaxPlatenCycles) return "";
  return texts::Get(texts::kCountRefused) + std::to_string(kMaxPlatenCycles) +
         texts::Get(texts::kCountRefusedEnd);
}

void RunPrompted(const TestParams& p, std::vector<PlatenSample>& samples) {
  StagePage& page = *p.page;
  StageTestState& state = page.TestState();
  PlatenTestSummary s;
  std::string prompt;
  if (p.toggle) {
    prompt = texts::Get(state.PlatenClosed ? texts::kToggleOpenPrompt : texts::kToggleClosePrompt);
  } else {
    prompt = texts::Get(texts::kPlatenWillRun) + std::to_string(p.count) +
             texts::Get(texts::kPlatenTimes);
  }
  state.MessageResult = page.Ask(prompt, ui::kMbOkCancel) == ui::kIdOk ? ui::kIdOk : ui::kIdCancel;
  if (state.MessageResult == ui::kIdCancel) return;
  if (p.toggle) {
    SingleMove(p);
    p.guard->ClearThread();
    return;
  }
  // The cycles start from the closed end. Without the link the test ends there and files
  // nothing (the window tells that the board is gone).
  const bool ran = (state.PlatenClosed || SingleMove(p)) && RunCycles(p, samples, s);
  p.guard->ClearThread();
  if (!ran) {
    page.StopRequested = 0;
    return;
  }
  if (s.StoppedAfterCycle == -2) {
    page.Ask(texts::Get(texts::kPlatenCanceled), ui::kMbOk);
    return;
  }
  SummarisePlaten(samples, p.count, s);
  page.Ask(PlatenResultText(s, p.count), ui::kMbOk);
  FileReport(page, reports::ReportPrefix(reports::ReportKind::kPlaten),
             PlatenReportBody(samples, s, p.count));
}

}  // namespace

void SummarisePlaten(std::vector<PlatenSample>& samples, std::int32_t count, PlatenTestSummary& s) {
  std::int32_t counted = count;
  if (s.StoppedAfterCycle >= 0) {
    counted = s.StoppedAfterCycle + 1;
  } else if (s.StoppedInCycle >= 0) {
    counted = s.StoppedInCycle + 1;
    // The last cycle has no closed value of its own: it takes the one before.
    if (counted >= 2) {
      samples[static_cast<std::size_t>(counted - 1)].Closed =
          samples[static_cast<std::size_t>(counted - 2)].Closed;
    }
  } else if (s.OpenFailedInCycle >= 0) {
    counted = s.OpenFailedInCycle;
  } else if (s.CloseFailedInCycle >= 0) {
    counted = s.CloseFailedInCycle + 1;
  }
  if (samples.empty()) return;
  counted = std::min<std::int32_t>(counted, static_cast<std::int32_t>(samples.size()));
  s.OpenMax = s.OpenMin = samples[0].Open;
  s.ClosedMax = s.ClosedMin = samples[0].Closed;
  for (std::int32_t i = 1; i < counted; ++i) {
    const PlatenSample& x = samples[static_cast<std::size_t>(i)];
    s.OpenMax = std::max(s.OpenMax, x.Open);
    s.OpenMin = std::min(s.OpenMin, x.Open);
    s.ClosedMax = std::max(s.ClosedMax, x.Closed);
    s.ClosedMin = std::min(s.ClosedMin, x.Closed);
  }
}

std::string PlatenResultText(const PlatenTestSummary& s, std::int32_t count) {
  const bool noFailure = s.OpenFailedInCycle == s.CloseFailedInCycle;
  std::string t;
  if (noFailure && s.StoppedInCycle >= 0) {
    t = texts::Get(texts::kStoppedInCycle) + text::Format("%d.\r\n\r\n", s.StoppedInCycle + 1);
  } else if (noFailure && s.StoppedAfterCycle < 0) {
    t = texts::Get(texts::kCompletedCycle) + text::Format("%d.\r\n\r\n", count);
  } else if (noFailure) {
    t = texts::Get(texts::kStoppedAfterCycle) +
        text::Format("%d.\r\n\r\n", s.StoppedAfterCycle + 1);
  } else if (s.OpenFailedInCycle < 0) {
    t = texts::Get(texts::kFailedAfterCycle) +
        text::Format("%d.\r\n\r\n", s.CloseFailedInCycle + 1);
  } else {
    t = texts::Get(texts::kFailedInCycle) + text::Format("%d.\r\n\r\n", s.OpenFailedInCycle + 1);
  }
  if (noFailure) t += s.StoppedInCycle != 0 ? Extremes(s, true) : Extremes(s, false) + "\r\n";
  return t + texts::Get(texts::kSeeLatest);
}

std::string PlatenReportBody(const std::vector<PlatenSample>& samples, const PlatenTestSummary& s,
                             std::int32_t count) {
  std::string b;
  std::int32_t rows = 0;
  bool lastClosed = true;
  if (s.OpenFailedInCycle >= 0) {
    rows = s.OpenFailedInCycle + 1;
    lastClosed = false;
    b = texts::Get(texts::kFailedInCycle);
  } else if (s.CloseFailedInCycle >= 0) {
    rows = s.CloseFailedInCycle + 1;
    b = texts::Get(texts::kFailedAfterCycle);
  } else if (s.StoppedInCycle >= 0) {
    rows = s.StoppedInCycle + 1;
    lastClosed = false;
    b = texts::Get(texts::kStoppedInCycle);
  } else if (s.StoppedAfterCycle < 0) {
    rows = count;
    b = texts::Get(texts::kCompletedCycle);
  } else {
    rows = s.StoppedAfterCycle + 1;
    b = texts::Get(texts::kStoppedAfterCycle);
  }
  b += text::Format("%d.\r\n\r\n", rows);
  if (s.StoppedInCycle != 0) {
    b += Extremes(s, true);
  } else {
    b += Extremes(s, false) + "Platen closed position:\r\n    Min: -\r\n    Max: -\r\n\r\n";
  }
  b += "Count\tOpen Position\tClosed Position\r\n";
  rows = std::min<std::int32_t>(rows, static_cast<std::int32_t>(samples.size()));
  for (std::int32_t i = 0; i < rows; ++i) {
    const PlatenSample& x = samples[static_cast<std::size_t>(i)];
    if (i == rows - 1 && !lastClosed) {
      b += text::Format("%d\t%d\r\n", i + 1, x.Open);
    } else {
      b += text::Format("%d\t%d\t\t%d\r\n", i + 1, x.Open, x.Closed);
    }
  }
  return b;
}

void RunPlatenTest(const TestParams& p) {
  StagePage& page = *p.page;
  StageTestState& state = page.TestState();
  // A count below 1 would leave the summary without a first sample, and one beyond the bound an
  // allocation and a run of no sense: both are refused before anything moves.
  const std::string refusal = RefusedCount(p.count);
  if (!refusal.empty()) {
    page.Ask(refusal, ui::kMbOk);
  } else if (!p.platenPresent) {
    page.Ask(texts::Get(texts::kPlatenNotConnected), ui::kMbOk);
  } else {
    std::vector<PlatenSample> samples(static_cast<std::size_t>(p.count));
    RunPrompted(p, samples);
  }
  page.Trace.End();
  state.MessageResult = 0;  // neither answer: a later limit test asks nothing and starts nothing
  state.PlatenTest = 0;
  // The page fed the platen's count into TestPosition for this test; between runs it is 0.
  page.TestPosition = 0;
  state.Running = 0;
}

}  // namespace motion
