#include "reports/ReportFiles.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "util/Text.h"

namespace reports {

namespace {

bool StartsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
    s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

// A report's number: plain decimal as the writer makes it, no sign and no leading zero.
bool ParseNumber(std::string_view s, std::uint64_t& out) {
  if (s.empty() || s.size() > 19 || (s.size() > 1 && s[0] == '0')) return false;
  out = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    out = out * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return true;
}

bool ParseInt32(std::string_view s, std::int32_t& out) {
  const bool negative = !s.empty() && s[0] == '-';
  if (negative) s.remove_prefix(1);
  if (s.empty() || s.size() > 10) return false;
  std::int64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  if (negative) v = -v;
  if (v < INT32_MIN || v > INT32_MAX) return false;
  out = static_cast<std::int32_t>(v);
  return true;
}

// "Yes" true, "No" false, an empty answer none; anything else is not understood.
bool ParseAnswer(std::string_view s, std::optional<bool>& out) {
  if (s == "Yes") {
    out = true;
  } else if (s == "No") {
    out = false;
  } else if (s.empty()) {
    out.reset();
  } else {
    return false;
  }
  return true;
}

// The name of a report file without its extension: kind, axis and number.
bool ParseReportName(std::string_view base, ReportEntry& e) {
  for (const KindLayout& k : kKindLayouts) {
    if (!StartsWith(base, k.prefix)) continue;
    std::string_view rest = base.substr(std::string_view(k.prefix).size());
    e.kind = k.kind;
    e.axis = k.kind == ReportKind::kZoom ? "Zoom" : "";
    if (k.axisInName) {
      if (rest.size() < 2 || rest[1] != '_' ||
          std::string_view("XYZ0").find(rest[0]) == std::string_view::npos)
        return false;
      e.axis = std::string(1, rest[0]);
      rest.remove_prefix(2);
    }
    return ParseNumber(rest, e.number);
  }
  return false;
}

// Calls fn(line) for each line, without its CR LF.
template <typename Fn>
void ForEachLine(std::string_view text, Fn&& fn) {
  while (!text.empty()) {
    const std::size_t nl = text.find('\n');
    std::string_view line = text.substr(0, nl);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    fn(line);
    if (nl == std::string_view::npos) break;
    text.remove_prefix(nl + 1);
  }
}

void Note(std::string& problem, std::size_t lineNo, std::string_view line) {
  if (!problem.empty()) return;
  std::string shown(line.substr(0, 80));
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20) c = '?';
  }
  problem = "line " + std::to_string(lineNo) + " not understood: " + shown;
}

// "Key: value" split at the first colon; false when there is none.
bool KeyValue(std::string_view line, std::string_view& key, std::string_view& value) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  key = Trim(line.substr(0, colon));
  value = Trim(line.substr(colon + 1));
  return true;
}

}  // namespace

int OpenBounded(const std::string& path, std::size_t maxBytes, std::size_t& size,
                std::string& reason) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    reason = std::strerror(errno);
    return -1;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    reason = std::strerror(errno);
  } else if (!S_ISREG(st.st_mode)) {
    reason = "not a plain file";
  } else if (static_cast<std::uint64_t>(st.st_size) > maxBytes) {
    reason = "file too large (" + std::to_string(st.st_size) + " bytes)";
  } else {
    size = static_cast<std::size_t>(st.st_size);
    return fd;
  }
  ::close(fd);
  return -1;
}

ssize_t ReadSome(int fd, char* to, std::size_t n, std::string& reason) {
  for (;;) {
    const ssize_t got = ::read(fd, to, n);
    if (got >= 0) return got;
    if (errno == EINTR) continue;
    reason = std::strerror(errno);
    return -1;
  }
}

bool ReadBoundedFile(const std::string& path, std::size_t maxBytes, std::string& bytes,
                     std::string& reason) {
  bytes.clear();
  std::size_t size = 0;
  const int fd = OpenBounded(path, maxBytes, size, reason);
  if (fd < 0) return false;
  // As large as the file, and one byte more: a file that grew since fstat is refused too.
  bytes.resize(size + 1);
  std::size_t done = 0;
  bool ok = true;
  while (ok) {
    if (done == bytes.size()) {
      if (done > maxBytes) break;
      bytes.resize(std::min(maxBytes + 1, bytes.size() * 2));
    }
    const ssize_t n = ReadSome(fd, bytes.data() + done, bytes.size() - done, reason);
    ok = n >= 0;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  ::close(fd);
  bytes.resize(done);
  if (ok && done > maxBytes) {
    reason = "file too large";
    ok = false;
  }
  if (!ok) bytes.clear();
  return ok;
}

bool ForEachFileLine(const std::string& path, std::size_t maxBytes,
                     const std::function<bool(std::string_view line)>& fn, std::string& reason) {
  std::size_t size = 0;
  const int fd = OpenBounded(path, maxBytes, size, reason);
  if (fd < 0) return false;
  constexpr std::size_t kPiece = 64 * 1024;
  std::string buffer(kPiece, '\0');
  std::string line;  // the line read so far, cut at kMaxLineBytes
  std::size_t total = 0;
  bool ok = true, more = true, stopped = false;
  const auto pass = [&] {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    stopped = !fn(line);
    line.clear();
  };
  while (ok && more && !stopped) {
    const ssize_t n = ReadSome(fd, buffer.data(), buffer.size(), reason);
    ok = n >= 0;
    more = n > 0;
    total += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
    if (total > maxBytes) {
      reason = "file too large";
      ok = false;
    }
    std::string_view piece(buffer.data(), ok ? static_cast<std::size_t>(n) : 0);
    while (!piece.empty() && !stopped) {
      const std::size_t nl = piece.find('\n');
      const std::string_view part = piece.substr(0, nl);
      line.append(part.substr(0, kMaxLineBytes - std::min(kMaxLineBytes, line.size())));
      if (nl == std::string_view::npos) break;
      pass();
      piece.remove_prefix(nl + 1);
    }
  }
  if (ok && !stopped && !line.empty()) pass();
  ::close(fd);
  return ok;
}

namespace {

// Only plain files count: a link or a folder in a report's place is passed over.
bool PlainFileAt(int dirFd, const char* name, struct stat& st) {
  return ::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
}

void Count(ReportEntry& entry, bool isReport, const struct stat& st) {
  (isReport ? entry.hasReport : entry.hasTrace) = true;
  entry.modified = std::max<std::int64_t>(entry.modified, st.st_mtime);
}

}  // namespace

bool FindReport(const std::string& folder, std::string_view base, ReportEntry& out) {
  ReportEntry e;
  if (!ParseReportName(base, e)) return false;
  const int dirFd =
      ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd < 0) return false;
  for (const bool isReport : {true, false}) {
    const std::string name = std::string(base) + (isReport ? ".dat" : ".csv");
    struct stat st {};
    if (PlainFileAt(dirFd, name.c_str(), st)) Count(e, isReport, st);
  }
  ::close(dirFd);
  if (!e.hasReport && !e.hasTrace) return false;
  e.base = std::string(base);
  out = std::move(e);
  return true;
}

std::vector<ReportEntry> ListReports(const std::string& folder, bool* truncated) {
  if (truncated != nullptr) *truncated = false;
  std::vector<ReportEntry> entries;
  const int dirFd =
      ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd < 0) return entries;
  DIR* dir = ::fdopendir(dirFd);
  if (dir == nullptr) {
    ::close(dirFd);
    return entries;
  }
  std::unordered_map<std::string, std::size_t> byBase;
  while (const dirent* d = ::readdir(dir)) {
    const std::string_view name = d->d_name;
    if (name.size() < 5) continue;
    const std::string_view ext = name.substr(name.size() - 4);
    if (ext != ".dat" && ext != ".csv") continue;
    ReportEntry e;
    const std::string base(name.substr(0, name.size() - 4));
    if (!ParseReportName(base, e)) continue;
    struct stat st {};
    if (!PlainFileAt(dirFd, d->d_name, st)) continue;
    auto found = byBase.find(base);
    if (found == byBase.end()) {
      if (entries.size() >= kMaxListedReports) {
        if (truncated != nullptr) *truncated = true;
        continue;
      }
      e.base = base;
      found = byBase.emplace(base, entries.size()).first;
      entries.push_back(std::move(e));
    }
    Count(entries[found->second], ext == ".dat", st);
  }
  ::closedir(dir);
  std::sort(entries.begin(), entries.end(), [](const ReportEntry& a, const ReportEntry& b) {
    if (a.modified != b.modified) return a.modified > b.modified;
    const std::string_view pa(a.base.data(), a.base.rfind('_'));
    const std::string_view pb(b.base.data(), b.base.rfind('_'));
    if (pa != pb) return pa < pb;
    return a.number > b.number;
  });
  return entries;
}

std::string DecodeReport(std::string_view bytes, std::string& problem) {
  problem.clear();
  std::string out;
  if (bytes.size() < 2 || static_cast<unsigned char>(bytes[0]) != 0xFF ||
      static_cast<unsigned char>(bytes[1]) != 0xFE) {
    problem = "no UTF-16 mark";
    return out;
  }
  std::u16string wide((bytes.size() - 2) / 2, u'\0');
  for (std::size_t i = 0; i < wide.size(); ++i) {
    wide[i] = static_cast<char16_t>(static_cast<unsigned char>(bytes[2 + 2 * i]) |
                                    static_cast<unsigned char>(bytes[3 + 2 * i]) << 8);
  }
  // The conversion writes a broken surrogate as U+FFFD; the first one is named.
  for (std::size_t i = 0; i < wide.size(); ++i) {
    const char16_t u = wide[i];
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < wide.size() && wide[i + 1] >= 0xDC00 &&
        wide[i + 1] <= 0xDFFF) {
      ++i;
    } else if (u >= 0xD800 && u <= 0xDFFF) {
      problem = "broken surrogate at unit " + std::to_string(i);
      break;
    }
  }
  out = text::ToUtf8(wide);
  if (bytes.size() % 2 != 0 && problem.empty()) problem = "truncated: odd last byte";
  return out;
}

bool ParseAxisReport(std::string_view text, AxisReport& out) {
  out = AxisReport{};
  int d = -1;
  int section = 0;  // 1 linear, 2 rotary
  std::size_t lineNo = 0;
  bool any = false;
  const AxisReportLayout& L = kAxisReport;
  ForEachLine(text, [&](std::string_view raw) {
    ++lineNo;
    const std::string_view line = Trim(raw);
    if (line.empty()) return;
    for (int h = 0; h < 2; ++h) {
      const std::string_view heading = L.heading[h];
      if (line.size() <= heading.size() || !line.ends_with(heading)) continue;
      d = h;
      out.axis = std::string(line.substr(0, line.size() - heading.size()));
      out.dir[d] = AxisDirection{};
      out.dir[d].present = any = true;
      section = 0;
      return;
    }
    if (d < 0) return Note(out.problem, lineNo, line);
    AxisDirection& r = out.dir[d];
    std::string_view key, value;
    std::int32_t n = 0;
    std::optional<bool> answer;
    if (line == L.voltageLimit) {
      r.voltageLimitReached = true;
    } else if (line == L.linear) {
      section = 1;
    } else if (line == L.rotary) {
      section = 2;
    } else if (!KeyValue(line, key, value)) {
      Note(out.problem, lineNo, line);
    } else if ((key == L.initial || key == L.final || key == L.change) && section != 0 &&
               ParseInt32(value, n)) {
      auto& slot = key == L.initial ? (section == 1 ? r.linearInitial : r.rotaryInitial)
                   : key == L.final ? (section == 1 ? r.linearFinal : r.rotaryFinal)
                                    : (section == 1 ? r.linearChange : r.rotaryChange);
      slot = n;
    } else if (key == L.startingVoltage && ParseInt32(value, n)) {
      r.startingVoltage = n;
    } else if (key == L.correctDirection && ParseAnswer(value, answer)) {
      r.correctDirection = answer;
    } else if (key == L.correctDistance && ParseAnswer(value, answer)) {
      r.correctDistance = answer;
    } else if (key == L.manuallyStopped && ParseAnswer(value, answer)) {
      r.manuallyStopped = answer;
    } else {
      Note(out.problem, lineNo, line);
    }
  });
  if (!any && out.problem.empty()) out.problem = "no axis block";
  return any;
}

std::optional<std::int64_t> LimitReport::Travel() const {
  if (!linearLimit[0] || !linearLimit[1]) return std::nullopt;
  return static_cast<std::int64_t>(*linearLimit[1]) - *linearLimit[0];
}

bool ParseLimitReport(std::string_view text, LimitReport& out) {
  out = LimitReport{};
  enum { kNone, kLinear, kRotary, kMovingNeg, kMovingPos, kStopped } section = kNone;
  std::size_t lineNo = 0;
  bool any = false;
  const LimitReportLayout& L = kLimitReport;
  const std::string_view heading = Trim(L.heading);
  ForEachLine(text, [&](std::string_view raw) {
    ++lineNo;
    const std::string_view line = Trim(raw);
    if (line.empty()) return;
    std::string_view key, value;
    std::int32_t n = 0;
    std::optional<bool> answer;
    const bool side = KeyValue(line, key, value) && (key == L.side[0] || key == L.side[1]);
    const int at = key == L.side[1] ? 1 : 0;
    if (lineNo == 1 && line.ends_with(heading) && line.size() > heading.size()) {
      out.axis = std::string(Trim(line.substr(0, line.size() - heading.size())));
      any = true;
    } else if (line == L.voltageLimit) {
      out.voltageLimitReached = true;
    } else if (line == L.notRegistered[0] || line == L.notRegistered[1]) {
      out.limitNotRegistered[line == L.notRegistered[1] ? 1 : 0] = true;
    } else if (line == L.linear || line == L.rotary) {
      section = line == L.linear ? kLinear : kRotary;
    } else if (line == L.moving[0] || line == L.moving[1]) {
      section = line == L.moving[0] ? kMovingNeg : kMovingPos;
    } else if (line == L.manuallyStopped) {
      section = kStopped;
    } else if (!KeyValue(line, key, value)) {
      Note(out.problem, lineNo, line);
    } else if (side && section == kStopped && ParseAnswer(value, answer)) {
      out.manuallyStopped[at] = answer;
      any = true;
    } else if (side && (section == kLinear || section == kRotary) && ParseInt32(value, n)) {
      std::optional<std::int32_t>* limits = section == kLinear ? out.linearLimit : out.rotaryLimit;
      limits[at] = n;
      any = true;
    } else if ((key == L.min || key == L.max) && (section == kMovingNeg || section == kMovingPos) &&
               ParseInt32(value, n)) {
      std::optional<std::int32_t>* voltages = key == L.min ? out.minVoltage : out.maxVoltage;
      voltages[section == kMovingPos ? 1 : 0] = n;
      any = true;
    } else if (key == L.centering && value == kYes) {
      out.centeringStopped = true;
    } else {
      Note(out.problem, lineNo, line);
    }
  });
  if (!any && out.problem.empty()) out.problem = "no limit results";
  return any;
}

std::optional<TraceRow> TraceParser::Line(std::string_view line) {
  ++lineNo_;
  // The board's line, when there is one, comes before the header.
  if (lineNo_ == 1 && StartsWith(line, kTraceBoardLine)) {
    board = std::string(Trim(line.substr(kTraceBoardLine.size())).substr(0, 80));
    for (char& c : board) {
      if (static_cast<unsigned char>(c) < 0x20) c = '?';
    }
    header_ = 2;
    return std::nullopt;
  }
  if (lineNo_ == header_) {
    if (line != kTraceHeader) Note(problem, lineNo_, line);
    return std::nullopt;
  }
  if (line.empty()) return std::nullopt;
  std::string_view fields[5];
  std::size_t count = 0;
  std::string_view rest = line;
  for (bool more = true; more && count < 6; ++count) {
    const std::size_t comma = rest.find(',');
    if (count < 5) fields[count] = rest.substr(0, comma);
    more = comma != std::string_view::npos;
    if (more) rest.remove_prefix(comma + 1);
  }
  TraceRow row;
  // The time: seconds with up to three decimals, kept as milliseconds.
  std::string_view t = count == 5 ? fields[0] : std::string_view{};
  const std::size_t dot = t.find('.');
  std::int32_t whole = 0, part = 0;
  const std::string_view decimals = dot == std::string_view::npos ? "" : t.substr(dot + 1);
  const bool ok = count == 5 && ParseInt32(t.substr(0, dot), whole) && decimals.size() <= 3 &&
                  (decimals.empty() || (ParseInt32(decimals, part) && decimals[0] != '-')) &&
                  ParseInt32(fields[1], row.bias) && ParseInt32(fields[2], row.linear) &&
                  ParseInt32(fields[3], row.rotary) && ParseInt32(fields[4], row.limit);
  if (!ok) {
    Note(problem, lineNo_, line);
    return std::nullopt;
  }
  for (std::size_t k = decimals.size(); k < 3; ++k)
    part *= 10;
  const bool negative = !t.empty() && t[0] == '-';
  row.timeMs = static_cast<std::int64_t>(whole) * 1000 + (negative ? -part : part);
  return row;
}

void TraceParser::Finish() {
  if (lineNo_ == 0) problem = "empty trace";
}

Trace ParseTrace(std::string_view csv) {
  Trace trace;
  TraceParser parser;
  ForEachLine(csv, [&](std::string_view line) {
    if (const std::optional<TraceRow> row = parser.Line(line)) trace.rows.push_back(*row);
  });
  parser.Finish();
  trace.board = std::move(parser.board);
  trace.problem = std::move(parser.problem);
  return trace;
}

namespace {

// A direction whose block is all zeros did not run: it was cancelled, or the test quit first.
bool Cancelled(const AxisDirection& d) {
  for (const auto& v : {d.linearInitial, d.linearFinal, d.linearChange, d.rotaryInitial,
                        d.rotaryFinal, d.rotaryChange, d.startingVoltage}) {
    if (v.value_or(0) != 0) return false;
  }
  return true;
}

}  // namespace

RunOutcome AxisOutcome(const AxisReport& report, bool zoom) {
  RunOutcome out;
  bool any = false, limit = false, cancelled = false, stopped = false;
  for (int i = 0; i < 2; ++i) {
    const AxisDirection& d = report.dir[i];
    if (!d.present) continue;
    any = true;
    // The zoom reports no linear encoder: its move is the rotary one.
    const std::int32_t moved = zoom ? d.rotaryChange.value_or(0) : d.linearChange.value_or(0);
    const bool stoppedHere = d.manuallyStopped.value_or(false);
    const bool cancelledHere = Cancelled(d);
    limit = limit || d.voltageLimitReached;
    cancelled = cancelled || cancelledHere;
    stopped = stopped || stoppedHere;
    out.measured[i] = !cancelledHere && !(stoppedHere && moved == 0);
  }
  if (!any) return out;
  out.outcome = limit       ? Outcome::kVoltageLimit
                : cancelled ? Outcome::kCancelled
                : stopped   ? Outcome::kManuallyStopped
                            : Outcome::kCompleted;
  return out;
}

RunOutcome LimitOutcome(const LimitReport& report) {
  RunOutcome out;
  if (report.axis.empty() && !report.linearLimit[0] && !report.linearLimit[1]) return out;
  const bool missed = report.limitNotRegistered[0] || report.limitNotRegistered[1];
  const bool stopped =
      report.manuallyStopped[0].value_or(false) || report.manuallyStopped[1].value_or(false);
  out.outcome = missed                               ? Outcome::kLimitNotRegistered
                : report.voltageLimitReached         ? Outcome::kVoltageLimit
                : stopped || report.centeringStopped ? Outcome::kManuallyStopped
                                                     : Outcome::kCompleted;
  // Both limits were found when no seek was stopped or missed its limit; a stop while centering
  // comes after them.
  out.measured[0] = out.measured[1] =
      !missed && !stopped && !report.voltageLimitReached && report.Travel().has_value();
  return out;
}

Outcome PlatenOutcome(std::string_view text) {
  const PlatenReportLayout& L = kPlatenReport;
  for (const PlatenEnding& e : {L.stoppedInCycle, L.completedCycle, L.stoppedAfterCycle,
                                L.failedAfterCycle, L.failedInCycle}) {
    if (StartsWith(text, e.text)) return e.outcome;
  }
  return Outcome::kUnknown;
}

}  // namespace reports
