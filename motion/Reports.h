// Report files of the tests: a new file each time, named by the first free number, in UTF-16
// little-endian with its mark and CR LF lines; and beside it the run's trace as CSV.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "motion/StageTest.h"

namespace motion {

// Name prefixes: the report is <prefix><N>.dat.
std::string AxisReportPrefix(unsigned axis);   // "AxisTest_X_"
std::string LimitReportPrefix(unsigned axis);  // "LimitTest_Z_"
inline constexpr const char* kZoomReportPrefix = "AxisTest_Zoom_";
inline constexpr const char* kPlatenReportPrefix = "PlatenTest_";

struct ReportOutcome {
  bool written = false;
  std::string path;    // the file written, or the one that could not be
  std::string reason;  // why not, when not written
};

// Creates <folder><prefix><N>.dat for the first N with no such file and writes the UTF-8 body
// there as UTF-16LE after the mark FF FE. The file is created exclusively, so a report that
// appears meanwhile (another program, another test) is never overwritten: its number is skipped.
// A file that cannot be written whole is removed again.
ReportOutcome WriteReportFile(const std::string& folder, const std::string& prefix,
                              const std::string& body);

// The trace as CSV: the header, then one row per sample with the time in seconds to 3 decimals.
std::string TraceCsv(const std::vector<TraceSample>& samples);
// <report path without .dat>.csv; false with the reason when it could not be written.
bool WriteTraceFile(const std::string& reportPath, const std::vector<TraceSample>& samples,
                    std::string& reason);

// What a test does with its report: writes it and the page's trace beside it, and ends the
// trace. A failure does not end the test: an OK box names the file and the reason.
void FileReport(StagePage& page, const std::string& prefix, const std::string& body);

}  // namespace motion
