// The report viewer's side of the test reports: the folder's list, a report's text, the axis and
// limit results a per-axis history needs, and a run's trace. Every file is untrusted: another
// program may have written, cut or replaced it, so each reader is bounded and says what it could
// not read instead of failing whole.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "reports/ReportLayout.h"

namespace reports {

// Files above these sizes are refused unread. A report is a few hundred bytes (a platen test of
// many cycles some kilobytes); a trace holds at most an hour of 20 ms rows.
inline constexpr std::size_t kMaxReportBytes = 1u << 20;
inline constexpr std::size_t kMaxTraceBytes = 32u << 20;
inline constexpr std::size_t kMaxListedReports = 100000;

// One report of the folder: its .dat, its .csv, or both.
struct ReportEntry {
  std::string base;  // "AxisTest_X_3"
  ReportKind kind = ReportKind::kAxis;
  std::string axis;  // "X", "Y", "Z", "0", "Zoom"; empty for the platen
  std::uint64_t number = 0;
  bool hasReport = false;     // the .dat
  bool hasTrace = false;      // the .csv
  std::int64_t modified = 0;  // seconds since the epoch, the later of the two files
};

// The folder's reports, newest first (then by name, number descending). Only plain files with a
// report's name count; links and other entries are passed over. `truncated` is set when the
// folder held more than kMaxListedReports.
std::vector<ReportEntry> ListReports(const std::string& folder, bool* truncated = nullptr);

// The entry ListReports would give for `base`, found without reading the whole folder. False
// when `base` is not a report's name or neither of its files is a plain file there.
bool FindReport(const std::string& folder, std::string_view base, ReportEntry& out);

// Opens a plain file (never through a link, never waiting on a FIFO) of at most maxBytes for
// reading: the descriptor, or -1 with the reason. `size` is its size when opened.
int OpenBounded(const std::string& path, std::size_t maxBytes, std::size_t& size,
                std::string& reason);
// Reads up to `n` bytes, again when a signal cut the read short: the count, or -1 with the reason.
ssize_t ReadSome(int fd, char* to, std::size_t n, std::string& reason);

// Reads a plain file (never through a link) of at most maxBytes. False with the reason.
bool ReadBoundedFile(const std::string& path, std::size_t maxBytes, std::string& bytes,
                     std::string& reason);

// A line longer than this is passed on cut to this length, the rest of it skipped.
inline constexpr std::size_t kMaxLineBytes = 4096;

// Reads a plain file (never through a link) of at most maxBytes a piece at a time and calls
// fn(line) for each line, without its line end; fn returns false to stop. False with the reason
// when the file cannot be opened, is not a plain file, is (or grows) too large, or fails to read;
// the lines before a failure were passed on.
bool ForEachFileLine(const std::string& path, std::size_t maxBytes,
                     const std::function<bool(std::string_view line)>& fn, std::string& reason);

// A report's text as UTF-8 from its bytes: the mark FF FE, then UTF-16LE. What can be read is
// returned in every case; `problem` names the first fault (no mark, an odd last byte, a broken
// surrogate, which becomes U+FFFD), empty when there is none.
std::string DecodeReport(std::string_view bytes, std::string& problem);

// One direction of an axis (or zoom) test report.
struct AxisDirection {
  bool present = false;
  bool voltageLimitReached = false;
  std::optional<std::int32_t> linearInitial, linearFinal, linearChange;
  std::optional<std::int32_t> rotaryInitial, rotaryFinal, rotaryChange;
  std::optional<std::int32_t> startingVoltage;
  std::optional<bool> correctDirection, correctDistance;  // none when the report says neither
  std::optional<bool> manuallyStopped;
};

struct AxisReport {
  std::string axis;      // from the block headings
  AxisDirection dir[2];  // 0 negative, 1 positive
  std::string problem;   // the first line not understood, empty when all were
};

struct LimitReport {
  std::string axis;
  bool voltageLimitReached = false;
  bool limitNotRegistered[2] = {};
  std::optional<std::int32_t> linearLimit[2], rotaryLimit[2];
  std::optional<std::int32_t> minVoltage[2], maxVoltage[2];
  std::optional<bool> manuallyStopped[2];
  bool centeringStopped = false;
  std::string problem;

  // The travel between the two limits in linear counts, when both were read.
  std::optional<std::int64_t> Travel() const;
};

// Parse the UTF-8 text of a report. What was understood is kept; `problem` names the first line
// that was not (a report of another version, a cut file). False when nothing was understood.
bool ParseAxisReport(std::string_view text, AxisReport& out);
bool ParseLimitReport(std::string_view text, LimitReport& out);

struct TraceRow {
  std::int64_t timeMs = 0;  // the time column, in milliseconds as written (3 decimals)
  std::int32_t bias = 0;
  std::int32_t linear = 0;
  std::int32_t rotary = 0;
  std::int32_t limit = 0;
};

struct Trace {
  std::string board;  // what the first line "# board: ..." says ("simulated autovision"), or ""
  std::vector<TraceRow> rows;
  std::string problem;  // the first row not read (with its line number), empty when all were
};

// Reads a trace a line at a time: an optional line "# board: <what>", the header
// "time,bias,linear,rotary,limit", then rows; a bad row is skipped and named. Nothing of the
// rows is kept: each is handed back as it is read.
class TraceParser {
 public:
  // The row the line holds; none for the board's line, the header, an empty or a bad line.
  std::optional<TraceRow> Line(std::string_view line);
  // After the last line: names an empty trace.
  void Finish();

  std::string board;
  std::string problem;

 private:
  std::size_t lineNo_ = 0;
  std::size_t header_ = 1;
};

// The whole trace from its text.
Trace ParseTrace(std::string_view csv);

// How a run ended and which of its values are measurements. A direction that was cancelled (its
// block all zeros), or stopped by hand before the axis moved, measured nothing; nor did a limit
// test stopped by hand in a seek or one that missed a limit.
struct RunOutcome {
  Outcome outcome = Outcome::kUnknown;
  bool measured[2] = {};  // per direction; a limit test's both alike
};
RunOutcome AxisOutcome(const AxisReport& report, bool zoom);
RunOutcome LimitOutcome(const LimitReport& report);
// From the platen report's first line.
Outcome PlatenOutcome(std::string_view text);

}  // namespace reports
