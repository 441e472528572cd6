#include "recorder/Export.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <limits>

#include "util/Query.h"
#include "util/Text.h"

namespace recorder {

namespace {

constexpr std::size_t kChunkBytes = 32 * 1024;
// A block is what a reader copies under a group's lock, while the UI thread may wait for it.
constexpr std::size_t kTicksPerBlock = 256;
constexpr std::size_t kSecondsPerBlock = 1024;

void AppendValue(std::string& out, ValueKind kind, double v) {
  char buffer[32];
  if (FormOf(kind).isFloat) {
    std::snprintf(buffer, sizeof buffer, "%.9g", v);
  } else {
    std::snprintf(buffer, sizeof buffer, "%" PRId64, static_cast<std::int64_t>(v));
  }
  out += buffer;
}

const char* KindName(ValueKind kind) {
  switch (kind) {
    case ValueKind::kFlag:
      return "flag";
    case ValueKind::kInt16:
      return "int16";
    case ValueKind::kUInt16:
      return "uint16";
    case ValueKind::kInt32:
      return "int32";
    case ValueKind::kFloat:
      return "float";
    case ValueKind::kUInt32:
      return "uint32";
  }
  return "int32";
}

// Collects the answer and hands it on in chunks.
class Writer {
 public:
  Writer(const ExportSink& sink, bool json) : sink_(sink), json_(json) {}

  std::string& Text() { return text_; }
  bool Flush(bool force) {
    if (!ok_) return false;
    if (text_.size() >= kChunkBytes || (force && !text_.empty())) {
      ok_ = sink_(text_);
      text_.clear();
    }
    return ok_;
  }

  void Header(const std::vector<std::string>& columns) {
    if (json_) {
      text_ += "{\"columns\":[";
      for (std::size_t i = 0; i < columns.size(); ++i) {
        if (i > 0) text_ += ',';
        text::AppendJsonText(text_, columns[i]);
      }
      text_ += "],\"rows\":[";
    } else {
      for (std::size_t i = 0; i < columns.size(); ++i) {
        if (i > 0) text_ += ',';
        text_ += columns[i];
      }
      text_ += '\n';
    }
  }
  void BeginRow(const std::string& time) {
    if (json_) {
      text_ += rows_ > 0 ? ",\n[" : "\n[";
    }
    text_ += time;
    ++rows_;
  }
  void Cell(bool has, ValueKind kind, double v) {
    text_ += ',';
    if (has) {
      AppendValue(text_, kind, v);
    } else if (json_) {
      text_ += "null";
    }
  }
  void EndRow() { text_ += json_ ? "]" : "\n"; }
  bool Finish() {
    if (json_) text_ += "]}\n";
    return Flush(true);
  }

 private:
  const ExportSink& sink_;
  bool json_;
  bool ok_ = true;
  std::string text_;
  std::uint64_t rows_ = 0;
};

struct GroupCursor {
  std::vector<ChannelId> ids;
  std::vector<std::size_t> columns;  // where each id stands in the row
  std::uint64_t cursor = 0;
  FullBlock block;
  std::size_t at = 0;
  bool done = false;
};

bool ExportFull(const Recorder& recorder, const ExportQuery& q, const std::vector<ValueKind>& kinds,
                Writer& w) {
  std::vector<GroupCursor> groups;
  std::vector<std::uint32_t> rates;
  for (std::size_t i = 0; i < q.channels.size(); ++i) {
    const std::uint32_t rate = recorder.Info(q.channels[i]).rateMs;
    const auto found = std::find(rates.begin(), rates.end(), rate);
    const std::size_t g = static_cast<std::size_t>(found - rates.begin());
    if (found == rates.end()) {
      rates.push_back(rate);
      groups.emplace_back();
    }
    groups[g].ids.push_back(q.channels[i]);
    groups[g].columns.push_back(i);
  }
  std::vector<std::uint8_t> has(q.channels.size());
  std::vector<double> values(q.channels.size());
  for (;;) {
    // Refill the groups whose block is used up; the row time is the earliest head.
    TimeUs next = std::numeric_limits<TimeUs>::max();
    for (GroupCursor& g : groups) {
      if (!g.done && g.at >= g.block.times.size()) {
        g.at = 0;
        g.done = !recorder.ReadFull(g.ids, q.from, q.to, g.cursor, kTicksPerBlock, g.block);
      }
      if (!g.done) next = std::min(next, g.block.times[g.at]);
    }
    if (next == std::numeric_limits<TimeUs>::max()) return true;
    std::fill(has.begin(), has.end(), std::uint8_t{0});
    for (GroupCursor& g : groups) {
      if (g.done || g.block.times[g.at] != next) continue;
      for (std::size_t k = 0; k < g.ids.size(); ++k) {
        const std::size_t cell = g.at * g.ids.size() + k;
        has[g.columns[k]] = g.block.has[cell];
        values[g.columns[k]] = g.block.values[cell];
      }
      ++g.at;
    }
    w.BeginRow(query::FormatTime(next));
    for (std::size_t i = 0; i < has.size(); ++i)
      w.Cell(has[i] != 0, kinds[i], values[i]);
    w.EndRow();
    if (!w.Flush(false)) return false;
  }
}

std::int64_t FloorSecond(TimeUs t) {
  return t >= 0 ? t / kUsPerSecond : -((-t + kUsPerSecond - 1) / kUsPerSecond);
}

bool ExportSeconds(const Recorder& recorder, const ExportQuery& q,
                   const std::vector<ValueKind>& kinds, Writer& w) {
  // Nothing older than the history is kept, counted back from now: a window reaching further
  // back starts there, and one reaching into the future ends now.
  const std::int64_t last = FloorSecond(std::min(q.to, q.now));
  const std::int64_t first = std::max(FloorSecond(q.from), last - recorder.Limits().historyS);
  const std::size_t n = q.channels.size();
  std::vector<double> mins(n * kSecondsPerBlock), maxs(n * kSecondsPerBlock);
  std::vector<std::uint8_t> has(n * kSecondsPerBlock);
  for (std::int64_t s = first; s <= last; s += static_cast<std::int64_t>(kSecondsPerBlock)) {
    const auto count =
        static_cast<std::size_t>(std::min<std::int64_t>(kSecondsPerBlock, last - s + 1));
    for (std::size_t c = 0; c < n; ++c) {
      recorder.ReadSeconds(q.channels[c], s, count, &mins[c * kSecondsPerBlock],
                           &maxs[c * kSecondsPerBlock], &has[c * kSecondsPerBlock]);
    }
    for (std::size_t i = 0; i < count; ++i) {
      bool any = false;
      for (std::size_t c = 0; c < n; ++c)
        any = any || has[c * kSecondsPerBlock + i];
      if (!any) continue;
      w.BeginRow(std::to_string(s + static_cast<std::int64_t>(i)));
      for (std::size_t c = 0; c < n; ++c) {
        const std::size_t k = c * kSecondsPerBlock + i;
        w.Cell(has[k] != 0, kinds[c], mins[k]);
        w.Cell(has[k] != 0, kinds[c], maxs[k]);
      }
      w.EndRow();
      if (!w.Flush(false)) return false;
    }
  }
  return true;
}

}  // namespace

bool ParseExportQuery(std::string_view query, const Recorder& recorder, TimeUs now,
                      ExportQuery& out, std::string& reason) {
  out = ExportQuery{};
  if (query.size() > kMaxQueryLength) {
    reason = "query too long";
    return false;
  }
  out.now = now;
  query::TimeRange range;
  if (!query::ParseTimeRange(query, now, range, reason)) return false;
  bool haveChannels = false;
  std::string channels, value;
  const bool read = query::ForEachPair(query, [&](std::string_view key, std::string_view raw) {
    if (!text::PercentDecode(raw, value)) {
      reason = "bad escape in " + query::Shown(key);
    } else if (key == "channels") {
      channels = value;
      haveChannels = true;
      return true;
    } else if (key == "format" && value != "csv" && value != "json") {
      reason = "unknown format: " + query::Shown(value);
    } else if (key == "resolution" && value != "full" && value != "1s") {
      reason = "unknown resolution: " + query::Shown(value);
    } else {
      if (key == "format") out.json = value == "json";
      if (key == "resolution") out.perSecond = value == "1s";
      return true;
    }
    return false;
  });
  if (!read) return false;
  if (!haveChannels || channels.empty()) {
    reason = "no channels named";
    return false;
  }
  std::string_view rest = channels;
  while (true) {
    const std::size_t comma = rest.find(',');
    const std::string_view name = rest.substr(0, comma);
    if (out.channels.size() >= kMaxExportChannels) {
      reason = "too many channels";
      return false;
    }
    const ChannelId id = recorder.Find(name);
    if (id == kNoChannel) {
      reason = "unknown channel: " + query::Shown(name);
      return false;
    }
    out.channels.push_back(id);
    out.names.emplace_back(name);
    if (comma == std::string_view::npos) break;
    rest = rest.substr(comma + 1);
  }
  out.from = range.from;
  out.to = range.to;
  return true;
}

std::string ChannelsJson(const Recorder& recorder) {
  std::string out = "[";
  for (const ChannelInfo& c : recorder.Channels()) {
    out += out.size() > 1 ? ",\n{\"name\":" : "\n{\"name\":";
    text::AppendJsonText(out, c.name);
    out += ",\"unit\":";
    text::AppendJsonText(out, c.unit);
    out += ",\"rate_ms\":" + std::to_string(c.rateMs) + ",\"page\":";
    text::AppendJsonText(out, c.page);
    out += ",\"element\":";
    text::AppendJsonText(out, c.element);
    out += ",\"kind\":\"";
    out += KindName(c.kind);
    out += "\"}";
  }
  return out + "]\n";
}

bool Export(const Recorder& recorder, const ExportQuery& q, const ExportSink& sink) {
  Writer w(sink, q.json);
  std::vector<std::string> columns{"time"};
  std::vector<ValueKind> kinds;
  for (std::size_t i = 0; i < q.channels.size(); ++i) {
    const std::string name = i < q.names.size() ? q.names[i] : recorder.Info(q.channels[i]).name;
    kinds.push_back(recorder.Info(q.channels[i]).kind);
    if (q.perSecond) {
      columns.push_back(name + ".min");
      columns.push_back(name + ".max");
    } else {
      columns.push_back(name);
    }
  }
  w.Header(columns);
  const bool whole =
      q.perSecond ? ExportSeconds(recorder, q, kinds, w) : ExportFull(recorder, q, kinds, w);
  return whole && w.Finish();
}

}  // namespace recorder
