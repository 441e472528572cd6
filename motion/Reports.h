// Report files of the tests: a new file each time, named by the first free number, in UTF-16
// little-endian with its mark and CR LF lines; and beside it the run's trace as CSV.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "motion/StageTest.h"

namespace motion {

struct ReportOutcome {
  bool written = false;       // the report (.dat) stands
  bool traceWritten = false;  // and its trace (.csv) beside it
  std::string path;           // the report written, or the one that could not be
  std::string failedPath;     // the file that could not be written, when one could not
  std::string reason;         // why not
};

// Writes <folder><prefix><N>.dat, the UTF-8 body as UTF-16LE after the mark FF FE, and beside it
// <folder><prefix><N>.csv with the trace, for the first N at which neither name is taken.
//
// The folder may be one other users can write, and the program runs as root, so both names are
// reserved by creating them new: never an existing file (a report that appeared meanwhile keeps
// its content and its number is skipped), never through a link, never a FIFO or other special
// file, and mode 0644 whatever the umask. A report that cannot be written whole is removed
// again, with its trace; a trace that cannot be written leaves the report standing.
// `board` is what the board's driver said it is (TraceCsv).
ReportOutcome WriteReportFiles(const std::string& folder, const std::string& prefix,
                               const std::string& body, const std::vector<TraceSample>& trace,
                               const std::string& board = {});

// The trace as CSV: the header, then one row per sample with the time in seconds to 3 decimals.
// A trace of a simulated board (`board` "simulated <profile>") says so in a first line
// "# board: simulated <profile>", so that nobody takes it for a machine's.
std::string TraceCsv(const std::vector<TraceSample>& samples, const std::string& board = {});

// What a test does with its report: writes it and the page's trace beside it, and ends the
// trace. A failure does not end the test: an OK box names the file and the reason.
void FileReport(StagePage& page, const std::string& prefix, const std::string& body);

}  // namespace motion
