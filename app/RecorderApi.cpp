#include "app/RecorderApi.h"

#include "recorder/Export.h"
#include "reports/ReportApi.h"
#include "util/Query.h"
#include "util/Text.h"

namespace {

using ui::HttpReply;

void Refuse(HttpReply& reply, int status, const std::string& reason) {
  reply.Head(status, "text/plain; charset=utf-8");
  reply.Write(reason + "\n");
}

}  // namespace

// The channel list and the events are copies of a few KB from memory; everything that formats a
// long answer or reads the report folder (thousands of files, perhaps) runs off the I/O thread.
const RecorderApi::Handler* RecorderApi::Find(std::string_view path) {
  using ui::HttpRoute;
  static constexpr Handler kRoutes[] = {
      {"/channels", HttpRoute::kQuick, &RecorderApi::Channels},
      {"/events", HttpRoute::kQuick, &RecorderApi::Events},
      {"/export", HttpRoute::kLong, &RecorderApi::Export},
      {"/reports", HttpRoute::kLong, &RecorderApi::Reports},
      {"/report", HttpRoute::kLong, &RecorderApi::Report},
      {"/report-file", HttpRoute::kLong, &RecorderApi::ReportFile},
      {"/history", HttpRoute::kLong, &RecorderApi::History},
  };
  for (const Handler& h : kRoutes) {
    if (path == h.path) return &h;
  }
  return nullptr;
}

RecorderApi::RecorderApi(std::shared_ptr<const recorder::Recorder> recorder,
                         const recorder::RunTime& time, std::string reportFolder)
    : recorder_(std::move(recorder)), time_(time), folder_(std::move(reportFolder)) {}

ui::HttpRoute RecorderApi::Route(std::string_view path) const {
  const Handler* h = Find(path);
  return h ? h->route : ui::HttpRoute::kNone;
}

void RecorderApi::Answer(std::string_view path, std::string_view query, HttpReply& reply) {
  if (const Handler* h = Find(path)) {
    (this->*h->answer)(query, reply);
  } else {
    Refuse(reply, 404, "not found");
  }
}

void RecorderApi::Channels(std::string_view, HttpReply& reply) const {
  reply.Write(recorder::ChannelsJson(*recorder_));
}

void RecorderApi::Events(std::string_view query, HttpReply& reply) const {
  if (query.size() > recorder::kMaxQueryLength) return Refuse(reply, 400, "query too long");
  query::TimeRange range;
  std::string reason;
  if (!query::ParseTimeRange(query, time_.Now(), range, reason)) {
    return Refuse(reply, 400, reason);
  }
  std::string out = "{\"events\":[";
  bool first = true;
  for (const recorder::Event& e : recorder_->Events(range.from, range.to)) {
    out += first ? "\n{\"time\":" : ",\n{\"time\":";
    first = false;
    out += query::FormatTime(e.time);
    out += ",\"kind\":\"";
    out += recorder::EventName(e.kind);
    out += "\",\"text\":";
    text::AppendJsonText(out, e.text);
    out += "}";
  }
  out += "]}\n";
  reply.Write(out);
}

void RecorderApi::Export(std::string_view query, HttpReply& reply) const {
  recorder::ExportQuery q;
  std::string reason;
  if (!recorder::ParseExportQuery(query, *recorder_, time_.Now(), q, reason)) {
    return Refuse(reply, 400, reason);
  }
  reply.Head(200, q.json ? "application/json" : "text/csv; charset=utf-8");
  recorder::Export(*recorder_, q, [&reply](std::string_view chunk) { return reply.Write(chunk); });
}

void RecorderApi::SetCountsPerMm(unsigned axis, std::int32_t countsPerMm) {
  if (axis < kScaledAxes) countsPerMm_[axis].store(countsPerMm, std::memory_order_relaxed);
}

void RecorderApi::Reports(std::string_view, HttpReply& reply) const {
  static constexpr const char* kAxes[kScaledAxes] = {"X", "Y", "Z", "Zoom"};
  std::vector<reports::AxisScale> scale;
  for (unsigned i = 0; i < kScaledAxes; ++i)
    scale.push_back({.axis = kAxes[i], .countsPerMm = countsPerMm_[i].load()});
  reply.Write(reports::ReportsJson(folder_, scale));
}

void RecorderApi::Report(std::string_view query, HttpReply& reply) const {
  std::string name;
  if (query::Value(query, "name", name) == query::Found::kBrokenEscape) {
    return Refuse(reply, 400, "bad escape in name");
  }
  if (name.empty()) return Refuse(reply, 400, "no report named");
  const reports::ApiStatus status = reports::WriteReportJson(
      folder_, name, [&reply](std::string_view chunk) { return reply.Write(chunk); });
  if (status == reports::ApiStatus::kNotFound) {
    Refuse(reply, 404, "no such report: " + query::Shown(name));
  }
}

void RecorderApi::ReportFile(std::string_view query, HttpReply& reply) const {
  std::string name, ext;
  if (query::Value(query, "name", name) == query::Found::kBrokenEscape ||
      query::Value(query, "ext", ext) == query::Found::kBrokenEscape) {
    return Refuse(reply, 400, "bad escape in name or ext");
  }
  if (name.empty()) return Refuse(reply, 400, "no report named");
  if (ext != "dat" && ext != "csv") return Refuse(reply, 400, "ext must be dat or csv");
  const std::string shown = query::Shown(name) + "." + ext;
  const reports::ApiStatus status = reports::SendReportFile(
      folder_, name, ext,
      [&] {
        reply.Head(200, ext == "csv" ? "text/csv" : "application/octet-stream", name + "." + ext);
      },
      [&reply](std::string_view chunk) { return reply.Write(chunk); });
  if (status == reports::ApiStatus::kNotFound) {
    Refuse(reply, 404, "no such file: " + shown);
  } else if (status == reports::ApiStatus::kUnreadable) {
    Refuse(reply, 404, "not a readable report file: " + shown);
  }
}

void RecorderApi::History(std::string_view, HttpReply& reply) const {
  reply.Write(reports::HistoryJson(folder_));
}
