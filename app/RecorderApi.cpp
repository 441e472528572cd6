#include "app/RecorderApi.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>
#include <optional>

#include "recorder/Export.h"
#include "recorder/ReportApi.h"
#include "util/Text.h"

namespace {

using recorder::TimeUs;

// The decoded value of query parameter `name`; nullopt when it is missing, "" when its escape is
// broken is told apart by `broken`.
std::optional<std::string> Param(std::string_view query, std::string_view name, bool& broken) {
  while (!query.empty()) {
    const std::size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view{} : query.substr(amp + 1);
    const std::size_t eq = pair.find('=');
    if (pair.substr(0, eq) != name) continue;
    std::string value;
    if (!text::PercentDecode(eq == std::string_view::npos ? "" : pair.substr(eq + 1), value)) {
      broken = true;
      return std::nullopt;
    }
    return value;
  }
  return std::nullopt;
}

void Refuse(ui::HttpReply& reply, int status, const std::string& reason) {
  reply.Head(status, "text/plain; charset=utf-8");
  reply.Write(reason + "\n");
}

// A report's name as a reason shows it: at most 64 bytes, printable ASCII only.
std::string Shown(std::string_view s) {
  std::string out;
  for (const char c : s.substr(0, 64))
    out += (c >= 0x20 && c < 0x7F) ? c : '?';
  return s.size() > 64 ? out + "..." : out;
}

// An event's kind as scripts name it: one word, dashes for spaces ("estop-on", "test-ended").
std::string KindName(recorder::EventKind kind) {
  std::string out;
  for (const char* c = recorder::EventName(kind); *c; ++c) {
    if (*c == ' ') {
      out += '-';
    } else if (!(*c == '-' && out == "e")) {
      out += *c;
    }
  }
  return out;
}

}  // namespace

RecorderApi::RecorderApi(std::shared_ptr<const recorder::Recorder> recorder,
                         const recorder::RunTime& time, std::string reportFolder)
    : recorder_(std::move(recorder)), time_(time), folder_(std::move(reportFolder)) {}

// The channel list and the events are copies of a few KB from memory; everything that formats a
// long answer or reads the report folder (thousands of files, perhaps) runs off the I/O thread.
ui::HttpRoute RecorderApi::Route(std::string_view path) const {
  if (path == "/channels" || path == "/events") return ui::HttpRoute::kQuick;
  if (path == "/export" || path == "/reports" || path == "/report" || path == "/report-file" ||
      path == "/history") {
    return ui::HttpRoute::kLong;
  }
  return ui::HttpRoute::kNone;
}

void RecorderApi::Answer(std::string_view path, std::string_view query, ui::HttpReply& reply) {
  if (path == "/channels") {
    reply.Write(recorder::ChannelsJson(*recorder_));
  } else if (path == "/events") {
    Events(query, reply);
  } else if (path == "/export") {
    Export(query, reply);
  } else if (path == "/reports") {
    reply.Write(recorder::ReportsJson(folder_));
  } else if (path == "/report") {
    Report(query, reply);
  } else if (path == "/report-file") {
    ReportFile(query, reply);
  } else if (path == "/history") {
    reply.Write(recorder::HistoryJson(folder_));
  } else {
    Refuse(reply, 404, "not found");
  }
}

void RecorderApi::Events(std::string_view query, ui::HttpReply& reply) const {
  if (query.size() > recorder::kMaxQueryLength) return Refuse(reply, 400, "query too long");
  const TimeUs now = time_.Now();
  TimeUs from = std::numeric_limits<TimeUs>::min(), to = now;
  for (const char* key : {"from", "to"}) {
    bool broken = false;
    const std::optional<std::string> value = Param(query, key, broken);
    if (broken) return Refuse(reply, 400, std::string("bad escape in ") + key);
    if (!value) continue;
    TimeUs t = 0;
    if (!recorder::ParseTime(*value, t)) {
      return Refuse(reply, 400, std::string("bad time in ") + key + ": " + Shown(*value));
    }
    if (key[0] == 'f') {
      from = t < 0 ? now + t : t;  // a negative start counts back from now
    } else {
      to = t;
    }
  }
  if (from > to) return Refuse(reply, 400, "from is after to");
  std::string out = "{\"events\":[";
  bool first = true;
  for (const recorder::Event& e : recorder_->Events(from, to)) {
    out += first ? "\n{\"time\":" : ",\n{\"time\":";
    first = false;
    out += recorder::FormatTime(e.time);
    out += ",\"kind\":\"";
    out += KindName(e.kind);
    out += "\",\"text\":";
    recorder::AppendJsonText(out, e.text);
    out += "}";
  }
  out += "]}\n";
  reply.Write(out);
}

void RecorderApi::Export(std::string_view query, ui::HttpReply& reply) const {
  recorder::ExportQuery q;
  std::string reason;
  if (!recorder::ParseExportQuery(query, *recorder_, time_.Now(), q, reason)) {
    return Refuse(reply, 400, reason);
  }
  reply.Head(200, q.json ? "application/json" : "text/csv; charset=utf-8");
  recorder::Export(*recorder_, q, [&reply](std::string_view chunk) { return reply.Write(chunk); });
}

void RecorderApi::Report(std::string_view query, ui::HttpReply& reply) const {
  bool broken = false;
  const std::optional<std::string> name = Param(query, "name", broken);
  if (broken) return Refuse(reply, 400, "bad escape in name");
  if (!name || name->empty()) return Refuse(reply, 400, "no report named");
  const recorder::ApiStatus status = recorder::WriteReportJson(
      folder_, *name, [&reply](std::string_view chunk) { return reply.Write(chunk); });
  if (status == recorder::ApiStatus::kNotFound) {
    Refuse(reply, 404, "no such report: " + Shown(*name));
  }
}

void RecorderApi::ReportFile(std::string_view query, ui::HttpReply& reply) const {
  bool broken = false;
  const std::optional<std::string> name = Param(query, "name", broken);
  const std::optional<std::string> ext = Param(query, "ext", broken);
  if (broken) return Refuse(reply, 400, "bad escape in name or ext");
  if (!name || name->empty()) return Refuse(reply, 400, "no report named");
  if (!ext || (*ext != "dat" && *ext != "csv")) return Refuse(reply, 400, "ext must be dat or csv");
  std::string path;
  if (!recorder::ReportFilePath(folder_, *name, *ext, path)) {
    return Refuse(reply, 404, "no such file: " + Shown(*name) + "." + *ext);
  }
  // The folder is writable by every local user: a link put in a report's place is not followed,
  // and only a plain file of bounded size is sent.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
      static_cast<std::uint64_t>(st.st_size) > kMaxReportFileBytes) {
    if (fd >= 0) ::close(fd);
    return Refuse(reply, 404, "not a readable report file: " + Shown(*name) + "." + *ext);
  }
  reply.Head(200, *ext == "csv" ? "text/csv" : "application/octet-stream", *name + "." + *ext);
  std::string buffer(64 * 1024, '\0');
  std::size_t sent = 0;
  while (sent < kMaxReportFileBytes) {
    const ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n <= 0) break;
    sent += static_cast<std::size_t>(n);
    if (!reply.Write(std::string_view(buffer.data(), static_cast<std::size_t>(n)))) break;
  }
  ::close(fd);
}
