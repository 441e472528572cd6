// The report viewer's answers over HTTP: the folder's list, one report with its trace, a file's
// path for download, and each axis's results over time. Everything read comes from files any
// local user can write, so names are checked against the folder's own list (never taken as a
// path) and every string is escaped for JSON, whatever its bytes.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace reports {

// Receives an answer a chunk at a time; false stops it (the download was closed).
using ChunkSink = std::function<bool(std::string_view chunk)>;

enum class ApiStatus {
  kOk,
  kNotFound,    // not a report (or file) the folder lists
  kUnreadable,  // listed, but not a plain file of at most kMaxReportFileBytes (a link, say)
  kStopped,     // the sink stopped the answer
};

// A report read for the history is at most this long (an axis or limit report is a few hundred
// bytes), and at most the newest kMaxHistoryReports are read.
inline constexpr std::size_t kMaxHistoryReportBytes = 64u << 10;
inline constexpr std::size_t kMaxHistoryReports = 2000;

// The list gives the outcomes of this many of the newest reports; older ones have none.
inline constexpr std::size_t kMaxOutcomeReads = 2000;

// /reports: {"truncated":false,"reports":[{"base":..,"kind":..,"axis":..,"number":..,
// "hasReport":..,"hasTrace":..,"modified":S,"outcome":"completed"|..|null},...]}, newest first.
// The outcome is one of "completed", "manually stopped", "voltage limit", "limit not
// registered", "cancelled", "platen time-out"; null when it could not be read.
// `countsPerMm` gives the scale of the machine connected now, per axis:
// "countsPerMm":{"X":1000,...}, 0 where it is not known.
struct AxisScale {
  const char* axis;  // "X", "Y", "Z", "Zoom"
  std::int32_t countsPerMm;
};
std::string ReportsJson(const std::string& folder, const std::vector<AxisScale>& scale = {});

// /report: {"base":..,"text":..|null,"problem":..,"moves":[{"what":"X Axis
// (-)","counts":N},..],"trace":{"board":..,"columns":[..], "rows":[[..],..],"problem":..}|null},
// `board` the trace's "# board:" line or "", written to the sink in chunks (a trace may be 32 MiB).
// Times are written with the three decimals the trace holds, so nothing is lost. kNotFound when
// `base` is not a report the folder lists (nothing is written then); kStopped when the sink stopped
// it.
ApiStatus WriteReportJson(const std::string& folder, std::string_view base, const ChunkSink& sink);

// /report-file: the path of BASE.dat or BASE.csv when the folder lists that file; false for any
// other name or extension.
bool ReportFilePath(const std::string& folder, std::string_view base, std::string_view ext,
                    std::string& path);

// A report's file is sent up to this size.
inline constexpr std::size_t kMaxReportFileBytes = 32u << 20;

// /report-file: BASE.dat or BASE.csv as stored. The folder is writable by every local user, so a
// link put in a report's place is not followed and only a plain file of bounded size is sent:
// `begin` is called once it is open, then its bytes go to the sink in chunks.
ApiStatus SendReportFile(const std::string& folder, std::string_view base, std::string_view ext,
                         const std::function<void()>& begin, const ChunkSink& sink);

// /history: {"axes":{"X":[{"time":S,"base":..,"kind":"axis|zoom|limit","startNeg":..,
// "startPos":..,"movingNeg":[min,max]|null,"movingPos":..,"travel":..,"outcome":..,
// "unmeasured":["startNeg",..]},...]}}, each axis oldest first, null where the report did not
// say. `unmeasured` names the values the run did not measure (a cancelled direction, a seek
// stopped by hand): they are no baseline and no drift. Reports of which nothing could be read are
// left out.
std::string HistoryJson(const std::string& folder);

}  // namespace reports
