// The layout of the motion tests' report files, one table per kind: the file names, the labels
// of each report and the trace's header. The tests write their reports from these tables and
// the report viewer reads them back with the same ones, so a label changed here changes both.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace reports {

enum class ReportKind : std::uint8_t { kAxis, kZoom, kLimit, kPlaten };

// A kind's file names: <prefix><N>.dat and <prefix><N>.csv, where the axis and limit tests put
// the axis's letter and "_" after the prefix.
struct KindLayout {
  ReportKind kind;
  const char* prefix;
  const char* name;  // the kind in the viewer's answers
  bool axisInName;
};

// The zoom's prefix first: it begins with the axis test's.
inline constexpr KindLayout kKindLayouts[] = {
    {.kind = ReportKind::kZoom, .prefix = "AxisTest_Zoom_", .name = "zoom", .axisInName = false},
    {.kind = ReportKind::kAxis, .prefix = "AxisTest_", .name = "axis", .axisInName = true},
    {.kind = ReportKind::kLimit, .prefix = "LimitTest_", .name = "limit", .axisInName = true},
    {.kind = ReportKind::kPlaten, .prefix = "PlatenTest_", .name = "platen", .axisInName = false},
};

const KindLayout& LayoutOf(ReportKind kind);

// "AxisTest_X_", "AxisTest_Zoom_", "PlatenTest_": the name of a report up to its number.
std::string ReportPrefix(ReportKind kind, std::string_view axisLetter = {});

// The axis and zoom tests' report: per direction a heading "<axis> Axis (-)", then its lines.
// Values follow their labels right-aligned to a common column.
struct AxisReportLayout {
  const char* heading[2] = {" Axis (-)", " Axis (+)"};  // after the axis's name
  const char* voltageLimit = "VOLTAGE LIMIT REACHED";
  const char* linear = "Linear Encoder Positions";
  const char* rotary = "Rotary Encoder Positions";
  const char* initial = "Initial";
  const char* final = "Final";
  const char* change = "Change";
  int positionWidth = 27;
  const char* startingVoltage = "Starting Voltage";
  const char* correctDirection = "Correct Direction";
  const char* correctDistance = "Correct Distance";
  const char* manuallyStopped = "Manually Stopped";
  int answerWidth = 25;
};
inline constexpr AxisReportLayout kAxisReport{};

// The limit test's report: a heading "<axis> Axis ", the optional warnings, the limits per
// encoder, the moving voltages per direction, and what was stopped by hand.
struct LimitReportLayout {
  const char* heading = " Axis ";  // after the axis's letter
  const char* voltageLimit = "VOLTAGE LIMIT REACHED";
  const char* notRegistered[2] = {"DIDN'T REGISTER HITTING NEGATIVE LIMIT",
                                  "DIDN'T REGISTER HITTING POSITIVE LIMIT"};
  const char* linear = "Linear encoder limits";
  const char* rotary = "Rotary encoder limits";
  const char* side[2] = {"Negative", "Positive"};
  const char* moving[2] = {"Moving voltage (-)", "Moving voltage (+)"};
  const char* min = "Min";
  const char* max = "Max";
  const char* manuallyStopped = "Manually Stopped:";
  const char* centering = "Centering";
  int valueWidth = 18;
};
inline constexpr LimitReportLayout kLimitReport{};

// The answers of the reports' yes/no lines.
inline constexpr const char* kYes = "Yes";
inline constexpr const char* kNo = "No";

// How a run ended, as its report tells it.
enum class Outcome : std::uint8_t {
  kUnknown,  // the report could not be read far enough to tell
  kCompleted,
  kManuallyStopped,
  kVoltageLimit,
  kLimitNotRegistered,
  kCancelled,
  kPlatenTimeOut,
};

// The platen test's report begins with how the cycles ended, then the cycle's number.
struct PlatenEnding {
  const char* text;
  Outcome outcome;
};
struct PlatenReportLayout {
  PlatenEnding stoppedInCycle{"Platen test manually stopped in the middle of cycle ",
                              Outcome::kManuallyStopped};
  PlatenEnding completedCycle{"Platen test completed cycle ", Outcome::kCompleted};
  PlatenEnding stoppedAfterCycle{"Platen test manually stopped after cycle ",
                                 Outcome::kManuallyStopped};
  PlatenEnding failedAfterCycle{"Platen test failed after cycle ", Outcome::kPlatenTimeOut};
  PlatenEnding failedInCycle{"Platen test failed in the middle of cycle ", Outcome::kPlatenTimeOut};
};
inline constexpr PlatenReportLayout kPlatenReport{};

// The outcome's name in the viewer's answers.
const char* OutcomeName(Outcome outcome);

// The trace: an optional first line that names a simulated board, then the header and a row
// per sample.
inline constexpr std::string_view kTraceHeader = "time,bias,linear,rotary,limit";
inline constexpr const char* kTraceColumns[] = {"time", "bias", "linear", "rotary", "limit"};
inline constexpr std::string_view kTraceBoardLine = "# board: ";

}  // namespace reports
