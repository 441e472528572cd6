// The fixed texts of the motion tests: looked up in the string table by id, with the same text
// here as the fallback for a table that lacks the id. Texts with numbers in them are put together
// in code from these pieces, so that no format string comes from the table.
#pragma once

#include <string>

#include "reports/ReportLayout.h"
#include "util/StringTable.h"

namespace motion::texts {

struct Text {
  unsigned id;
  const char* fallback;
};

inline std::string Get(const Text& t) {
  return strings::LoadOr(t.id, t.fallback);
}

// --- Start dialogs ---
inline constexpr Text kAxisStartDirection{20101,
                                          "Position will begin moving in the NEGATIVE direction. "};
inline constexpr Text kAxisStartStop{
    20102,
    "Movement should automatically stop after 10-15mm (make sure \r\nthere is enough room to "
    "travel that distance), but you can click \r\nthe STOP button or press the Escape key at "
    "anytime to manually \r\nstop the movement. "};
inline constexpr Text kAxisStartAdvice{
    20103,
    "Run the test using the Standard Voltage Limit before trying it \r\nwith the higher voltages. "
    "\r\n\r\nClose Mirava before beginning the test. \r\n\r\nClick OK to begin the test."};
inline constexpr Text kLimitStartDirection{
    20104,
    "Machine will move to to Negative limit, then to the \r\nPositive limit, then back to the "
    "center of travel. You can \r\nclick the STOP button or press the Escape key at any \r\ntime "
    "to manually stop the movement. "};
inline constexpr Text kLimitStartPosition{
    20105,
    "Position the axis in the center of it travel limits and make \r\nsure there are no "
    "obstructions for the stage to travel to \r\nthe end of its limits."};
inline constexpr Text kLimitStartAdvice{
    20106,
    "Run the test using the Standard Voltage Limit before trying it \r\nwith the higher voltages. "
    "\r\n\r\nClose Mirava then click OK to begin the test."};
inline constexpr Text kZoomStartDirection{
    20107,
    "Zoom will begin moving in the NEGATIVE (lower magnification) \r\ndirection. \r\n\nMovement "
    "should automatically stop after about 3000-4000 \r\nencoder counts, but you can click the "
    "STOP button or press \r\nthe Escape key at anytime to manually stop the movement. "};
inline constexpr Text kZoomStartAdvice{
    20108,
    "Run the test using the Standard Voltage Limit before trying it \r\nwith the higher voltages. "
    "\r\n\r\nUse the camera window in Mirava to monitor the Zoom lens. \r\n\nClick OK to begin the "
    "test."};

// --- Axis and zoom test boxes ---
inline constexpr Text kAxisMoved{20110, " axis position moved "};
inline constexpr Text kVoltageLimitReached{20111, "VOLTAGE LIMIT REACHED\r\n"};
inline constexpr Text kBeforeContinuing{
    20112,
    "Before continuing, make sure that there is nothing obstructing \r\n the movement of the "
    "machine and that the axis is not at the \r\ntravel limit."};
inline constexpr Text kLinearInitial{20113, "\nLinear Encoder Initial Position: "};
inline constexpr Text kLinearFinal{20114, "\nLinear Encoder Final Position: "};
inline constexpr Text kRotaryInitial{20115, "\nRotary Encoder Initial Position: "};
inline constexpr Text kRotaryFinal{20116, "\nRotary Encoder Final Position: "};
inline constexpr Text kMovedCorrectly{20117, "\n\nDid the machine move correctly?"};
inline constexpr Text kCorrectDirection{20118,
                                        "\n\nDid the machine move in the correct DIRECTION?"};
inline constexpr Text kCorrectDistance{20119, "\n\nDid the machine move the correct DISTANCE?"};
inline constexpr Text kAxisPositivePrompt{
    20120,
    "Position will begin moving in the POSITIVE direction. \r\n\nMovement should automatically "
    "stop after 10-15mm (make sure there \r\nis enough room to travel that distance), but you can "
    "manually stop\r\nthe movement anytime by clicking the STOP button or pressing the Escape key. "
    "\r\n\nClick OK to begin the test."};
inline constexpr Text kTestFinished{20121, "Test finished."};
// Stands for "mm." when the machine image gives no counts per millimetre: the travel is then
// told in encoder counts.
inline constexpr Text kCountsNoScale{20122,
                                     " encoder counts (no counts per mm in the machine image).\n"};
inline constexpr Text kZoomMovedPositive{
    20130,
    "Encoder registered zoom position movement in  \r\nthe POSITIVE (higher magnification) "
    "direction.\n\nDid the machine move in the correct direction? "};
inline constexpr Text kZoomStill{
    20131, "Encoder registered NO zoom lens movement.\n\nDid the zoom lens remain still? "};
inline constexpr Text kZoomMovedNegative{
    20132,
    "Encoder registered zoom position movement in \r\nthe NEGATIVE (lower magnification) "
    "direction.\n\nDid the machine move in the correct direction? "};
inline constexpr Text kZoomPositivePrompt{
    20133,
    "Zoom will begin moving in the POSITIVE (higher magnification) direction. \r\n\nMovement "
    "should automatically stop after about 3000-4000 encoder counts, \r\nbut you can manually "
    "stop the movement anytime by clicking the STOP button or pressing \r\nthe Escape key. "
    "\r\n\nClick OK to continue the test. "};

// --- Limit test boxes ---
inline constexpr Text kHigherLimitAdvice{
    20140,
    "Make sure nothing is obstructing the movement of the machine \r\nbefore running the test "
    "with a higher voltage limit."};
inline constexpr Text kAxisLimits{20141, " Axis Limits\r\n"};

// --- Platen test ---
inline constexpr Text kPlatenNotConnected{20150, "Platen is not connected to the machine."};
inline constexpr Text kToggleOpenPrompt{
    20151, "Make sure the platen is clear of obstruction, then click OK to open the platen."};
inline constexpr Text kToggleClosePrompt{
    20152, "Make sure the platen is clear of obstruction, then click OK to close the platen."};
inline constexpr Text kPlatenWillRun{20153, " The Platen test will run "};
inline constexpr Text kPlatenTimes{
    20154,
    " times. \r\n\r\nYou can click the STOP button or push the Escape key \r\nat any time to stop "
    "the test after the current move finishes. \r\n\r\nMake sure the platen is free of "
    "obstruction, then click OK to begin."};
inline constexpr Text kPlatenCanceled{20155, "Platen test canceled"};
inline constexpr Text kOpening{20156, "Opening"};
inline constexpr Text kClosing{20157, "Closing"};
// The first line of the platen test's report: the viewer reads the outcome from it.
inline constexpr Text kStoppedInCycle{20160, reports::kPlatenReport.stoppedInCycle.text};
inline constexpr Text kCompletedCycle{20161, reports::kPlatenReport.completedCycle.text};
inline constexpr Text kStoppedAfterCycle{20162, reports::kPlatenReport.stoppedAfterCycle.text};
inline constexpr Text kFailedAfterCycle{20163, reports::kPlatenReport.failedAfterCycle.text};
inline constexpr Text kFailedInCycle{20164, reports::kPlatenReport.failedInCycle.text};
inline constexpr Text kSeeLatest{
    20165, "See latest \"PlatenTest_[i].dat\" file for complete test results."};
// The refusal of a test quantity the test cannot run; the bounds follow in code.
inline constexpr Text kCountRefused{20166, "Test Qty must be a whole number from 1 to "};
inline constexpr Text kCountRefusedEnd{20167, ".\r\n\r\nThe Platen test was not started."};

// --- Report files ---
inline constexpr Text kReportNotWritten{20170, "The test report could not be written to "};

}  // namespace motion::texts
