#include "reports/ReportApi.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <optional>
#include <vector>

#include "reports/ReportFiles.h"
#include "util/Text.h"

namespace reports {

namespace {

constexpr std::size_t kChunkBytes = 32 * 1024;
// A report's base is "LimitTest_Z_" and up to 19 digits; anything longer is not one.
constexpr std::size_t kMaxBaseLength = 40;

const char* KindName(ReportKind kind) {
  return LayoutOf(kind).name;
}

void AppendInt(std::string& out, std::int64_t v) {
  char buffer[24];
  std::snprintf(buffer, sizeof buffer, "%" PRId64, v);
  out += buffer;
}

template <typename T>
void AppendOptional(std::string& out, const std::optional<T>& v) {
  if (v) {
    AppendInt(out, *v);
  } else {
    out += "null";
  }
}

// "12.340", "-0.020": the trace's milliseconds as the seconds with three decimals it was read from.
void AppendTraceTime(std::string& out, std::int64_t ms) {
  const std::uint64_t magnitude =
      ms < 0 ? 0 - static_cast<std::uint64_t>(ms) : static_cast<std::uint64_t>(ms);
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%s%" PRIu64 ".%03" PRIu64, ms < 0 ? "-" : "",
                magnitude / 1000, magnitude % 1000);
  out += buffer;
}

// The entry the folder lists under `base`; none for a name that is not a report's (a path, "..").
std::optional<ReportEntry> ListedReport(const std::string& folder, std::string_view base) {
  if (base.empty() || base.size() > kMaxBaseLength) return std::nullopt;
  for (char c : base) {
    const bool ok =
        (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    if (!ok) return std::nullopt;
  }
  ReportEntry entry;
  if (!FindReport(folder, base, entry)) return std::nullopt;
  return entry;
}

std::string FilePath(const std::string& folder, const std::string& base, std::string_view ext) {
  return (folder.empty() ? std::string(".") : folder) + "/" + base + "." + std::string(ext);
}

// A report's text read for its results: the .dat of at most kMaxHistoryReportBytes, decoded.
bool ReadReportText(const std::string& folder, const ReportEntry& e, std::string& text) {
  std::string bytes, reason, problem;
  if (!e.hasReport ||
      !ReadBoundedFile(FilePath(folder, e.base, "dat"), kMaxHistoryReportBytes, bytes, reason))
    return false;
  text = DecodeReport(bytes, problem);
  return true;
}

// How the run of a report's text ended.
RunOutcome OutcomeOf(ReportKind kind, std::string_view text) {
  if (kind == ReportKind::kPlaten) {
    RunOutcome out;
    out.outcome = PlatenOutcome(text);
    return out;
  }
  if (kind == ReportKind::kLimit) {
    LimitReport l;
    ParseLimitReport(text, l);
    return LimitOutcome(l);
  }
  AxisReport a;
  ParseAxisReport(text, a);
  return AxisOutcome(a, kind == ReportKind::kZoom);
}

void AppendOutcome(std::string& out, Outcome outcome) {
  out += ",\"outcome\":";
  if (outcome == Outcome::kUnknown) {
    out += "null";
  } else {
    text::AppendJsonText(out, OutcomeName(outcome));
  }
}

// The report's text and the first fault in it: undecodable bytes first, then a line the parser
// of its kind did not understand.
void AppendReportText(std::string& out, const std::string& folder, const ReportEntry& e) {
  std::string text, problem;
  bool read = false;
  if (e.hasReport) {
    std::string bytes, reason;
    read = ReadBoundedFile(FilePath(folder, e.base, "dat"), kMaxReportBytes, bytes, reason);
    if (read) {
      text = DecodeReport(bytes, problem);
      // Not UTF-16 at all (another program's file): its bytes are shown as they are, what is
      // not UTF-8 among them as U+FFFD.
      if (text.empty() && !bytes.empty() && problem == "no UTF-16 mark") text = std::move(bytes);
    } else {
      problem = e.base + ".dat not read: " + reason;
    }
  }
  // The moves the report gives in counts, for the viewer to show in mm beside the text.
  std::vector<std::pair<std::string, std::int64_t>> moves;
  if (read && e.kind == ReportKind::kLimit) {
    LimitReport l;
    ParseLimitReport(text, l);
    if (problem.empty()) problem = l.problem;
    if (l.Travel()) moves.emplace_back(l.axis + " travel between the limits", *l.Travel());
  } else if (read && e.kind != ReportKind::kPlaten) {
    AxisReport a;
    ParseAxisReport(text, a);
    if (problem.empty()) problem = a.problem;
    for (int d = 0; d < 2; ++d) {
      // The zoom has no linear encoder: its move is the rotary one.
      const std::optional<std::int32_t> change =
          e.kind == ReportKind::kZoom ? a.dir[d].rotaryChange : a.dir[d].linearChange;
      if (a.dir[d].present && change) {
        moves.emplace_back(a.axis + kAxisReport.heading[d], *change);
      }
    }
  }
  out += ",\"text\":";
  if (read) {
    text::AppendJsonText(out, text);
  } else {
    out += "null";
  }
  out += ",\"problem\":";
  text::AppendJsonText(out, problem);
  out += ",\"moves\":[";
  for (const auto& [what, counts] : moves) {
    if (&what != &moves.front().first) out += ',';
    out += "{\"what\":";
    text::AppendJsonText(out, what);
    out += ",\"counts\":";
    AppendInt(out, counts);
    out += '}';
  }
  out += ']';
}

// The trace, read and written a line at a time: what is held is one piece of the file and one
// chunk of the answer, whatever the trace's size.
bool WriteTrace(std::string& out, const std::string& folder, const ReportEntry& e,
                const ChunkSink& sink) {
  out += ",\"trace\":";
  if (!e.hasTrace) {
    out += "null";
    return true;
  }
  out += "{\"columns\":[";
  for (const char* column : kTraceColumns) {
    if (column != kTraceColumns[0]) out += ',';
    text::AppendJsonText(out, column);
  }
  out += "],\"rows\":[";
  TraceParser parser;
  bool first = true, stopped = false;
  std::string reason;
  const bool read = ForEachFileLine(
      FilePath(folder, e.base, "csv"), kMaxTraceBytes,
      [&](std::string_view line) {
        const std::optional<TraceRow> r = parser.Line(line);
        if (!r) return true;
        out += first ? "[" : ",\n[";
        first = false;
        AppendTraceTime(out, r->timeMs);
        for (const std::int32_t v : {r->bias, r->linear, r->rotary, r->limit}) {
          out += ',';
          AppendInt(out, v);
        }
        out += ']';
        if (out.size() < kChunkBytes) return true;
        stopped = !sink(out);
        out.clear();
        return !stopped;
      },
      reason);
  if (stopped) return false;
  parser.Finish();
  if (!read) parser.problem = e.base + ".csv not read: " + reason;
  out += "],\"board\":";
  text::AppendJsonText(out, parser.board);
  out += ",\"problem\":";
  text::AppendJsonText(out, parser.problem);
  out += '}';
  return true;
}

// One report's results for the history; false when nothing in it could be read.
bool AppendHistoryRow(std::string& out, const std::string& folder, const ReportEntry& e) {
  std::string text;
  if (!ReadReportText(folder, e, text)) return false;
  std::string row = "{\"time\":";
  AppendInt(row, e.modified);
  row += ",\"base\":";
  text::AppendJsonText(row, e.base);
  row += ",\"kind\":\"";
  row += KindName(e.kind);
  row += '"';
  if (e.kind == ReportKind::kLimit) {
    LimitReport l;
    if (!ParseLimitReport(text, l)) return false;
    row += ",\"startNeg\":null,\"startPos\":null";
    for (int d = 0; d < 2; ++d) {
      row += d == 0 ? ",\"movingNeg\":" : ",\"movingPos\":";
      if (l.minVoltage[d] || l.maxVoltage[d]) {
        row += '[';
        AppendOptional(row, l.minVoltage[d]);
        row += ',';
        AppendOptional(row, l.maxVoltage[d]);
        row += ']';
      } else {
        row += "null";
      }
    }
    row += ",\"travel\":";
    AppendOptional(row, l.Travel());
    const RunOutcome outcome = LimitOutcome(l);
    AppendOutcome(row, outcome.outcome);
    row += outcome.measured[0] ? ",\"unmeasured\":[]"
                               : ",\"unmeasured\":[\"movingNeg\",\"movingPos\",\"travel\"]";
  } else {
    AxisReport a;
    if (!ParseAxisReport(text, a)) return false;
    row += ",\"startNeg\":";
    AppendOptional(row, a.dir[0].startingVoltage);
    row += ",\"startPos\":";
    AppendOptional(row, a.dir[1].startingVoltage);
    row += ",\"movingNeg\":null,\"movingPos\":null,\"travel\":null";
    const RunOutcome outcome = AxisOutcome(a, e.kind == ReportKind::kZoom);
    AppendOutcome(row, outcome.outcome);
    row += ",\"unmeasured\":[";
    if (!outcome.measured[0]) row += outcome.measured[1] ? "\"startNeg\"" : "\"startNeg\",";
    if (!outcome.measured[1]) row += "\"startPos\"";
    row += ']';
  }
  row += '}';
  out += row;
  return true;
}

}  // namespace

std::string ReportsJson(const std::string& folder, const std::vector<AxisScale>& scale) {
  bool truncated = false;
  const std::vector<ReportEntry> list = ListReports(folder, &truncated);
  std::string out = truncated ? "{\"truncated\":true" : "{\"truncated\":false";
  out += ",\"countsPerMm\":{";
  for (const AxisScale& s : scale) {
    if (&s != &scale.front()) out += ',';
    text::AppendJsonText(out, s.axis);
    out += ':';
    AppendInt(out, s.countsPerMm);
  }
  out += "},\"reports\":[";
  out.reserve(list.size() * 120 + 64);
  for (std::size_t i = 0; i < list.size(); ++i) {
    const ReportEntry& e = list[i];
    out += i == 0 ? "\n{\"base\":" : ",\n{\"base\":";
    text::AppendJsonText(out, e.base);
    out += ",\"kind\":\"";
    out += KindName(e.kind);
    out += "\",\"axis\":";
    text::AppendJsonText(out, e.axis);
    out += ",\"number\":";
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "%" PRIu64, e.number);
    out += buffer;
    out += e.hasReport ? ",\"hasReport\":true" : ",\"hasReport\":false";
    out += e.hasTrace ? ",\"hasTrace\":true" : ",\"hasTrace\":false";
    out += ",\"modified\":";
    AppendInt(out, e.modified);
    // The newest reports' outcomes: each costs a read of its file.
    std::string text;
    const bool read = i < kMaxOutcomeReads && ReadReportText(folder, e, text);
    AppendOutcome(out, read ? OutcomeOf(e.kind, text).outcome : Outcome::kUnknown);
    out += '}';
  }
  out += "]}\n";
  return out;
}

ApiStatus WriteReportJson(const std::string& folder, std::string_view base, const ChunkSink& sink) {
  const std::optional<ReportEntry> entry = ListedReport(folder, base);
  if (!entry) return ApiStatus::kNotFound;
  std::string out = "{\"base\":";
  text::AppendJsonText(out, entry->base);
  AppendReportText(out, folder, *entry);
  if (!WriteTrace(out, folder, *entry, sink)) return ApiStatus::kStopped;
  out += "}\n";
  return sink(out) ? ApiStatus::kOk : ApiStatus::kStopped;
}

bool ReportFilePath(const std::string& folder, std::string_view base, std::string_view ext,
                    std::string& path) {
  if (ext != "dat" && ext != "csv") return false;
  const std::optional<ReportEntry> entry = ListedReport(folder, base);
  if (!entry || !(ext == "dat" ? entry->hasReport : entry->hasTrace)) return false;
  path = FilePath(folder, entry->base, ext);
  return true;
}

ApiStatus SendReportFile(const std::string& folder, std::string_view base, std::string_view ext,
                         const std::function<void()>& begin, const ChunkSink& sink) {
  std::string path;
  if (!ReportFilePath(folder, base, ext, path)) return ApiStatus::kNotFound;
  std::size_t size = 0;
  std::string reason;
  const int fd = OpenBounded(path, kMaxReportFileBytes, size, reason);
  if (fd < 0) return ApiStatus::kUnreadable;
  begin();
  std::string buffer(64 * 1024, '\0');
  std::size_t sent = 0;
  ApiStatus status = ApiStatus::kOk;
  while (sent < kMaxReportFileBytes) {
    const ssize_t n = ReadSome(fd, buffer.data(), buffer.size(), reason);
    if (n <= 0) break;
    sent += static_cast<std::size_t>(n);
    if (!sink(std::string_view(buffer.data(), static_cast<std::size_t>(n)))) {
      status = ApiStatus::kStopped;
      break;
    }
  }
  ::close(fd);
  return status;
}

std::string HistoryJson(const std::string& folder) {
  // The newest reports of the axis and limit tests, then each axis's oldest first.
  std::vector<ReportEntry> list = ListReports(folder);
  std::erase_if(list, [](const ReportEntry& e) {
    return e.kind == ReportKind::kPlaten || !e.hasReport || e.axis.empty();
  });
  if (list.size() > kMaxHistoryReports) list.resize(kMaxHistoryReports);
  std::stable_sort(list.begin(), list.end(), [](const ReportEntry& a, const ReportEntry& b) {
    if (a.axis != b.axis) return a.axis < b.axis;
    if (a.modified != b.modified) return a.modified < b.modified;
    if (a.number != b.number) return a.number < b.number;
    return a.base < b.base;
  });
  std::string out = "{\"axes\":{";
  std::string axis;
  bool firstAxis = true, firstRow = true;
  for (const ReportEntry& e : list) {
    if (firstAxis || e.axis != axis) {
      if (!firstAxis) out += "\n]";
      if (!firstAxis) out += ',';
      text::AppendJsonText(out, e.axis);
      out += ":[";
      axis = e.axis;
      firstAxis = false;
      firstRow = true;
    }
    std::string row = firstRow ? "\n" : ",\n";
    if (AppendHistoryRow(row, folder, e)) {
      out += row;
      firstRow = false;
    }
  }
  if (!firstAxis) out += "\n]";
  out += "}}\n";
  return out;
}

}  // namespace reports
