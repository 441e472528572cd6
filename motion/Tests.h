// The four motion tests: their thread parameters, their results and their thread bodies, and the
// report and message texts they build from the results.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "motion/StageTest.h"

namespace motion {

// What a start handler hands its thread. The thread keeps the axis and, for the platen, the
// count as they were at the click.
struct TestParams {
  StagePage* page = nullptr;
  TestThreadGuard* guard = nullptr;
  TestButton button = TestButton::kXAxis;
  unsigned axis = kNoAxis;  // the axis of an axis, limit or zoom test
  std::uint32_t toggle = 0;
  std::int32_t count = 0;
  bool platenPresent = false;
};

// PlatenCount's text as a count: optional blanks and sign, then the leading decimal digits; 0
// when there are none; saturated at the ends of the 32-bit range.
std::int32_t ParsePlatenCount(const std::string& text);

// --- Axis and zoom test ---

// Index 0 the negative, 1 the positive direction. The zoom test keeps its positions in the
// rotary fields.
struct AxisTestResult {
  std::int32_t RotaryInitial[2] = {};
  std::int32_t RotaryFinal[2] = {};
  std::int32_t RotaryChange[2] = {};
  std::int32_t LinearInitial[2] = {};
  std::int32_t LinearFinal[2] = {};
  std::int32_t LinearChange[2] = {};
  std::int32_t StartingVoltage[2] = {};
  std::uint8_t VoltageLimitReached[2] = {};
  std::int32_t CorrectDirection[2] = {};
  std::int32_t CorrectDistance[2] = {};
  std::uint8_t ManuallyStopped[2] = {};
};

// "10.500mm.\n" from a change of 10500 counts at K 1000; with no usable K the travel in counts.
std::string TravelText(std::int32_t change, std::int32_t countsPerMm);
// The question box of the axis test for direction d.
std::string AxisResultText(const AxisTestResult& r, Direction d, unsigned axis,
                           std::int32_t countsPerMm);
// The question box of the zoom test for direction d.
std::string ZoomResultText(const AxisTestResult& r, Direction d);
// The report body: one block per direction, negative first.
std::string AxisReportBody(const AxisTestResult& r, unsigned axis);
std::string ZoomReportBody(const AxisTestResult& r);

void RunAxisTest(const TestParams& params);  // axis 3 runs the zoom test

// --- Limit test ---

struct LimitTestResult {
  std::int32_t StartPosition[2] = {};
  std::uint8_t VoltageLimitReached[2] = {};
  std::uint8_t ManuallyStopped[2] = {};
  std::uint8_t CenteringStopped = 0;
  std::int32_t RotaryLimit[2] = {};
  std::int32_t LinearLimit[2] = {};
  std::int32_t CenterRotary = 0;
  std::int32_t CenterLinear = 0;
  std::int32_t ExpectedNegative = 0;
  std::int32_t ExpectedPositive = 0;
  std::int32_t MaxVoltage[2] = {};
  std::int32_t MinVoltage[2] = {};
  std::uint8_t LimitNotRegistered[2] = {};
};

std::string LimitResultText(const LimitTestResult& r, unsigned axis);
std::string LimitReportBody(const LimitTestResult& r, unsigned axis);

void RunLimitTest(const TestParams& params);

// --- Platen test ---

struct PlatenSample {
  std::int32_t Open = 50000;
  std::int32_t Closed = 50000;
};

struct PlatenTestSummary {
  std::int32_t OpenMax = 0;
  std::int32_t OpenMin = 0;
  std::int32_t ClosedMax = 0;
  std::int32_t ClosedMin = 0;
  std::int32_t StoppedInCycle = -1;
  std::int32_t StoppedAfterCycle = -1;
  std::int32_t OpenFailedInCycle = -1;
  std::int32_t CloseFailedInCycle = -1;
};

// Works out the extremes over the samples the outcome counts; may carry the Closed of the
// second-last sample into the last (a stop in the middle of a later cycle).
void SummarisePlaten(std::vector<PlatenSample>& samples, std::int32_t count,
                     PlatenTestSummary& summary);
std::string PlatenResultText(const PlatenTestSummary& s, std::int32_t count);
std::string PlatenReportBody(const std::vector<PlatenSample>& samples, const PlatenTestSummary& s,
                             std::int32_t count);

void RunPlatenTest(const TestParams& params);

}  // namespace motion
