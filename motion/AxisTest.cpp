// The axis test of X, Y and Z, and the zoom test, which has its shape: a negative run, questions,
// a prompt, a positive run, questions, a report.
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

constexpr unsigned kZoomAxis = 3;
constexpr std::int32_t kZoomTarget = 3000;

// A direction that did not run: zeros, and No for both answers.
void FillCancelled(AxisTestResult& r, Direction d) {
  r.RotaryInitial[d] = r.RotaryFinal[d] = r.RotaryChange[d] = 0;
  r.LinearInitial[d] = r.LinearFinal[d] = r.LinearChange[d] = 0;
  r.StartingVoltage[d] = 0;
  r.VoltageLimitReached[d] = 0;
  r.ManuallyStopped[d] = 0;
  r.CorrectDirection[d] = ui::kIdNo;
  r.CorrectDistance[d] = ui::kIdNo;
}

// Steps shared by the axis and the zoom run once the ramp is over: the voltage verdict, the
// hand-back and the stop flag. Leaves the axis settled and synchronised.
void EndRamp(AxisRun& run, AxisTestResult& r, Direction d, RampEnd end, std::int32_t mb) {
  if (EndedWithBias(end)) r.StartingVoltage[d] = mb;
  r.VoltageLimitReached[d] = 0;
  if (mb >= run.Limit()) {
    r.StartingVoltage[d] = mb;
    r.VoltageLimitReached[d] = 1;
  }
  run.Restore(mb);
  r.ManuallyStopped[d] = run.Page().StopRequested != 0;
  run.Settle();
}

// One direction of the axis test; false when the run did not happen (a quit, or no link at its
// start), and then nothing of it is in `r`.
bool RunAxisDirection(const TestParams& p, std::uint32_t choice, AxisTestResult& r, Direction d) {
  StagePage& page = *p.page;
  AxisRun run(page, p.axis, choice);
  if (!run.TakeOver()) return false;
  // The positive Z run starts from the axis's own bias, which holds the stage against gravity.
  std::int32_t mb = p.axis == 2 && d == kPositive ? run.Saved().Mb : 0;
  r.LinearInitial[d] = run.Position();
  page.GetRotaryPosition(p.axis, r.RotaryInitial[d]);
  const std::int64_t target = 10 * DistanceScale(page.CountsPerMm(p.axis));
  const RampEnd end =
      run.RunRamp({.target = target, .moving = target / 50, .holds = RulesOf(page).axisHolds},
                  r.LinearInitial[d], d, mb);
  EndRamp(run, r, d, end, mb);
  r.LinearFinal[d] = run.Position();
  page.GetRotaryPosition(p.axis, r.RotaryFinal[d]);
  run.Release();
  r.LinearChange[d] = r.LinearFinal[d] - r.LinearInitial[d];
  r.RotaryChange[d] = r.RotaryFinal[d] - r.RotaryInitial[d];
  return true;
}

bool RunZoomDirection(const TestParams& p, std::uint32_t choice, AxisTestResult& r, Direction d) {
  StagePage& page = *p.page;
  AxisRun run(page, p.axis, choice);
  if (!run.TakeOver()) return false;
  std::int32_t mb = 0;
  r.RotaryInitial[d] = run.Position();
  const RampEnd end = run.RunRamp(
      {.target = kZoomTarget, .moving = kZoomTarget / 10, .holds = RulesOf(page).zoomHolds},
      r.RotaryInitial[d], d, mb);
  EndRamp(run, r, d, end, mb);
  r.RotaryFinal[d] = run.Position();
  run.Release();
  r.RotaryChange[d] = r.RotaryFinal[d] - r.RotaryInitial[d];
  return true;
}

void AskAxisQuestions(StagePage& page, AxisTestResult& r, Direction d, unsigned axis) {
  const int answer =
      YesNoAnswer(page.Ask(AxisResultText(r, d, axis, page.CountsPerMm(axis)), ui::kMbYesNo));
  if (answer == ui::kIdYes) {
    r.CorrectDirection[d] = r.CorrectDistance[d] = ui::kIdYes;
    return;
  }
  r.CorrectDirection[d] = YesNoAnswer(page.Ask(texts::Get(texts::kCorrectDirection), ui::kMbYesNo));
  // A right direction with a wrong move as a whole means the distance was wrong.
  r.CorrectDistance[d] =
      r.CorrectDirection[d] == ui::kIdYes
          ? ui::kIdNo
          : YesNoAnswer(page.Ask(texts::Get(texts::kCorrectDistance), ui::kMbYesNo));
}

const char* YesNoText(std::int32_t answer) {
  return answer == ui::kIdYes ? reports::kYes : answer == ui::kIdNo ? reports::kNo : "";
}

std::string PositionLines(const char* heading, std::int32_t initial, std::int32_t final,
                          std::int32_t change) {
  const reports::AxisReportLayout& L = reports::kAxisReport;
  const int w = L.positionWidth;
  return std::string(" ") + heading + "\r\n" + text::Format("%*s: %d\r\n", w, L.initial, initial) +
         text::Format("%*s: %d\r\n", w, L.final, final) +
         text::Format("%*s: %d\r\n", w, L.change, change);
}

std::string AnswerLine(const char* label, const char* answer) {
  return text::Format("%*s: %s\r\n", reports::kAxisReport.answerWidth, label, answer);
}

std::string ReportBlock(const AxisTestResult& r, Direction d, const std::string& letter,
                        bool zoom) {
  const reports::AxisReportLayout& L = reports::kAxisReport;
  std::string b = std::string(15, ' ') + letter + L.heading[d == kNegative ? 0 : 1] + "\r\n";
  if (r.VoltageLimitReached[d]) b += std::string(L.voltageLimit) + "\r\n";
  if (!zoom) b += PositionLines(L.linear, r.LinearInitial[d], r.LinearFinal[d], r.LinearChange[d]);
  b += PositionLines(L.rotary, r.RotaryInitial[d], r.RotaryFinal[d], r.RotaryChange[d]);
  b += text::Format("%*s: %d\r\n", L.answerWidth, L.startingVoltage, r.StartingVoltage[d]);
  b += AnswerLine(L.correctDirection, YesNoText(r.CorrectDirection[d]));
  if (!zoom) b += AnswerLine(L.correctDistance, YesNoText(r.CorrectDistance[d]));
  b += AnswerLine(L.manuallyStopped, r.ManuallyStopped[d] ? reports::kYes : reports::kNo);
  return b + "\r\n";
}

std::string VoltageWarning() {
  return texts::Get(texts::kVoltageLimitReached) + texts::Get(texts::kBeforeContinuing);
}

}  // namespace

std::string TravelText(std::int32_t change, std::int32_t countsPerMm) {
  if (countsPerMm <= 0) {
    // No scale to divide by: the travel in counts, so the operator still sees what moved.
    return text::Format("%d", change) + texts::Get(texts::kCountsNoScale);
  }
  const std::int32_t whole = change / countsPerMm;
  const std::int32_t rest = std::abs(change % countsPerMm);
  return text::Format("%s%d.%dmm.\n", change < 0 && whole == 0 ? "-" : "", whole, rest);
}

std::string AxisResultText(const AxisTestResult& r, Direction d, unsigned axis,
                           std::int32_t countsPerMm) {
  std::string t =
      AxisLetter(axis) + texts::Get(texts::kAxisMoved) + TravelText(r.LinearChange[d], countsPerMm);
  if (r.VoltageLimitReached[d]) t += "\r\n" + VoltageWarning();
  t += texts::Get(texts::kLinearInitial) + text::Format("%d", r.LinearInitial[d]);
  t += texts::Get(texts::kLinearFinal) + text::Format("%d", r.LinearFinal[d]);
  t += texts::Get(texts::kRotaryInitial) + text::Format("%d", r.RotaryInitial[d]);
  t += texts::Get(texts::kRotaryFinal) + text::Format("%d", r.RotaryFinal[d]);
  return t + texts::Get(texts::kMovedCorrectly);
}

std::string ZoomResultText(const AxisTestResult& r, Direction d) {
  std::string t = r.VoltageLimitReached[d] ? VoltageWarning() : "";
  t += texts::Get(texts::kRotaryInitial) + text::Format("%d", r.RotaryInitial[d]);
  t += texts::Get(texts::kRotaryFinal) + text::Format("%d", r.RotaryFinal[d]) + "\r\n\r\n";
  const std::int32_t change = r.RotaryChange[d];
  return t + texts::Get(change > 0    ? texts::kZoomMovedPositive
                        : change == 0 ? texts::kZoomStill
                                      : texts::kZoomMovedNegative);
}

std::string AxisReportBody(const AxisTestResult& r, unsigned axis) {
  return ReportBlock(r, kNegative, AxisLetter(axis), false) +
         ReportBlock(r, kPositive, AxisLetter(axis), false);
}

std::string ZoomReportBody(const AxisTestResult& r) {
  return ReportBlock(r, kNegative, "Zoom", true) + ReportBlock(r, kPositive, "Zoom", true);
}

void RunAxisTest(const TestParams& p) {
  StagePage& page = *p.page;
  StageTestState& state = page.TestState();
  const bool zoom = p.axis == kZoomAxis;
  AskStart(page, zoom ? StartDialog::kZoom : StartDialog::kAxis);
  // Kept for both runs: a reconnection clears the page's VoltageChoice under the test.
  const std::uint32_t choice = page.VoltageChoice;
  AxisTestResult r;
  for (const Direction d : kDirections) {
    if (state.MessageResult == ui::kIdCancel) {
      FillCancelled(r, d);
      if (d == kPositive) state.MessageResult = ui::kIdOk;
      continue;
    }
    const bool ran = zoom ? RunZoomDirection(p, choice, r, d) : RunAxisDirection(p, choice, r, d);
    p.guard->ClearThread();
    if (!ran) {
      // A run that never began is reported as a cancelled direction, and nobody is asked about
      // a move that did not happen.
      FillCancelled(r, d);
    } else if (zoom) {
      r.CorrectDirection[d] = YesNoAnswer(page.Ask(ZoomResultText(r, d), ui::kMbYesNo));
    } else {
      AskAxisQuestions(page, r, d, p.axis);
    }
    if (d == kNegative) {
      const texts::Text& prompt = zoom ? texts::kZoomPositivePrompt : texts::kAxisPositivePrompt;
      state.MessageResult =
          page.Ask(texts::Get(prompt), ui::kMbOkCancel) == ui::kIdOk ? ui::kIdOk : ui::kIdCancel;
    } else {
      page.Ask(texts::Get(texts::kTestFinished), ui::kMbOk);
    }
  }
  if (zoom) {
    FileReport(page, reports::ReportPrefix(reports::ReportKind::kZoom), ZoomReportBody(r));
  } else {
    FileReport(page, reports::ReportPrefix(reports::ReportKind::kAxis, AxisLetter(p.axis)),
               AxisReportBody(r, p.axis));
  }
  page.Trace.End();
  if (zoom) {
    state.TestZoom = 0;
  } else {
    state.TestX = state.TestY = state.TestZ = 0;
  }
  state.Running = 0;
}

}  // namespace motion
