// Outcomes read back from reports the motion tests' own writers made: each way a run can end
// gives its outcome, and the values of a run that did not measure are told apart.
#include <gtest/gtest.h>

#include <vector>

#include "motion/Tests.h"
#include "reports/ReportFiles.h"

namespace reports {
namespace {

// A finished direction of an axis test.
void Ran(motion::AxisTestResult& r, int d, std::int32_t start) {
  r.LinearInitial[d] = 100;
  r.LinearFinal[d] = d == 0 ? -9900 : 10100;
  r.LinearChange[d] = d == 0 ? -10000 : 10000;
  r.RotaryInitial[d] = 5;
  r.RotaryFinal[d] = d == 0 ? -39995 : 40005;
  r.RotaryChange[d] = d == 0 ? -40000 : 40000;
  r.StartingVoltage[d] = start;
  r.CorrectDirection[d] = r.CorrectDistance[d] = 6;
}

TEST(ReportOutcome, AxisRunsAsWrittenGiveTheirOutcomeAndWhatTheyMeasured) {
  struct Case {
    const char* name;
    void (*make)(motion::AxisTestResult&);
    Outcome outcome;
    bool measured[2];
  };
  const Case cases[] = {
      {"both ran",
       [](auto& r) { Ran(r, 0, 1250), Ran(r, 1, 1500); },
       Outcome::kCompleted,
       {true, true}},
      // Cancelled in the start dialog: both blocks all zeros.
      {"cancelled at the start", [](auto&) {}, Outcome::kCancelled, {false, false}},
      // Cancelled at the prompt between the directions.
      {"cancelled before +", [](auto& r) { Ran(r, 0, 1250); }, Outcome::kCancelled, {true, false}},
      // The stop (or an e-stop) before the axis moved: a voltage, but no move.
      {"stopped before moving",
       [](auto& r) {
         Ran(r, 1, 1500);
         r.StartingVoltage[0] = 750;
         r.LinearInitial[0] = r.LinearFinal[0] = 100;
         r.LinearChange[0] = r.RotaryChange[0] = 0;
         r.ManuallyStopped[0] = 1;
       },
       Outcome::kManuallyStopped,
       {false, true}},
      {"stopped after moving",
       [](auto& r) {
         Ran(r, 0, 1250), Ran(r, 1, 1500);
         r.ManuallyStopped[1] = 1;
       },
       Outcome::kManuallyStopped,
       {true, true}},
      {"voltage limit",
       [](auto& r) {
         Ran(r, 0, 1250), Ran(r, 1, 8129);
         r.LinearChange[1] = 12;
         r.VoltageLimitReached[1] = 1;
       },
       Outcome::kVoltageLimit,
       {true, true}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    motion::AxisTestResult r;
    c.make(r);
    AxisReport a;
    ASSERT_TRUE(ParseAxisReport(motion::AxisReportBody(r, 0), a));
    EXPECT_EQ(a.problem, "");
    const RunOutcome o = AxisOutcome(a, false);
    EXPECT_EQ(OutcomeName(o.outcome), std::string(OutcomeName(c.outcome)));
    EXPECT_EQ(o.measured[0], c.measured[0]);
    EXPECT_EQ(o.measured[1], c.measured[1]);
  }
  // The zoom has no linear encoder: its rotary move counts.
  motion::AxisTestResult r;
  Ran(r, 0, 1250), Ran(r, 1, 1500);
  r.ManuallyStopped[0] = r.ManuallyStopped[1] = 1;
  r.RotaryChange[1] = 0;
  AxisReport a;
  ASSERT_TRUE(ParseAxisReport(motion::ZoomReportBody(r), a));
  const RunOutcome zoom = AxisOutcome(a, true);
  EXPECT_EQ(zoom.outcome, Outcome::kManuallyStopped);
  EXPECT_TRUE(zoom.measured[0]);
  EXPECT_FALSE(zoom.measured[1]);
  // Nothing read, nothing told.
  EXPECT_EQ(AxisOutcome(AxisReport{}, false).outcome, Outcome::kUnknown);
}

TEST(ReportOutcome, LimitRunsAsWrittenGiveTheirOutcomeAndWhetherTheTravelIsOne) {
  struct Case {
    const char* name;
    void (*make)(motion::LimitTestResult&);
    Outcome outcome;
    bool measured;
  };
  const Case cases[] = {
      {"completed", [](auto&) {}, Outcome::kCompleted, true},
      // The tab closed in a seek: the run stops where it was, the travel is no travel.
      {"stopped in a seek", [](auto& r) { r.ManuallyStopped[1] = 1; }, Outcome::kManuallyStopped,
       false},
      // Both limits were found before the centering was stopped.
      {"stopped centering", [](auto& r) { r.CenteringStopped = 1; }, Outcome::kManuallyStopped,
       true},
      {"limit not registered", [](auto& r) { r.LimitNotRegistered[0] = 1; },
       Outcome::kLimitNotRegistered, false},
      {"voltage limit", [](auto& r) { r.VoltageLimitReached[1] = 1; }, Outcome::kVoltageLimit,
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    motion::LimitTestResult r;
    r.LinearLimit[0] = -150000;
    r.LinearLimit[1] = 152001;
    c.make(r);
    LimitReport l;
    ASSERT_TRUE(ParseLimitReport(motion::LimitReportBody(r, 1), l));
    EXPECT_EQ(l.problem, "");
    const RunOutcome o = LimitOutcome(l);
    EXPECT_EQ(OutcomeName(o.outcome), std::string(OutcomeName(c.outcome)));
    EXPECT_EQ(o.measured[0], c.measured);
    EXPECT_EQ(o.measured[1], c.measured);
  }
}

TEST(ReportOutcome, PlatenRunsAsWrittenGiveTheirOutcome) {
  struct Case {
    const char* name;
    motion::PlatenTestSummary summary;
    Outcome outcome;
  };
  const Case cases[] = {
      {"completed", {}, Outcome::kCompleted},
      {"stopped in a cycle", {.StoppedInCycle = 1}, Outcome::kManuallyStopped},
      {"stopped after a cycle", {.StoppedAfterCycle = 1}, Outcome::kManuallyStopped},
      {"did not open", {.OpenFailedInCycle = 1}, Outcome::kPlatenTimeOut},
      {"did not close", {.CloseFailedInCycle = 0}, Outcome::kPlatenTimeOut},
  };
  const std::vector<motion::PlatenSample> samples(3);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(PlatenOutcome(motion::PlatenReportBody(samples, c.summary, 3)), c.outcome);
  }
  EXPECT_EQ(PlatenOutcome("Count\tOpen Position\r\n"), Outcome::kUnknown);
}

TEST(ReportOutcome, ATracesBoardLineIsReadBeforeItsHeader) {
  const Trace simulated =
      ParseTrace("# board: simulated autovision\ntime,bias,linear,rotary,limit\n0.020,1,2,3,0\n");
  EXPECT_EQ(simulated.problem, "");
  EXPECT_EQ(simulated.board, "simulated autovision");
  ASSERT_EQ(simulated.rows.size(), 1u);
  EXPECT_EQ(simulated.rows[0].linear, 2);

  const Trace plain = ParseTrace("time,bias,linear,rotary,limit\n0.020,1,2,3,0\n");
  EXPECT_EQ(plain.problem, "");
  EXPECT_EQ(plain.board, "");
  EXPECT_EQ(plain.rows.size(), 1u);
  // Only the first line may be the board's; control bytes in it are not passed on.
  const Trace late = ParseTrace("time,bias,linear,rotary,limit\n# board: simulated x\n");
  EXPECT_EQ(late.board, "");
  EXPECT_NE(late.problem, "");
  EXPECT_EQ(ParseTrace("# board: a\x1b[2Jb\ntime,bias,linear,rotary,limit\n").board, "a?[2Jb");
}

}  // namespace
}  // namespace reports
