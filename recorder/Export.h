// Export of recorded channels: the query of an export request, and the CSV and JSON it answers,
// written to a sink chunk by chunk so that no answer is ever held whole.
#pragma once

#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "recorder/Recorder.h"

namespace recorder {

struct ExportQuery {
  std::vector<ChannelId> channels;
  std::vector<std::string> names;
  TimeUs from = 0;
  TimeUs to = 0;
  bool json = false;
  bool perSecond = false;  // resolution=1s; else full
  // When the request came: the history reaches back from now, whatever `to` says, and no second
  // after now is looked for. The latest time there is when the query was not parsed from a request.
  TimeUs now = std::numeric_limits<TimeUs>::max();
};

// Bounds on the untrusted query.
inline constexpr std::size_t kMaxQueryLength = 16384;
inline constexpr std::size_t kMaxExportChannels = 512;

// Parses the query part of /export (without '?'): channels=A,B,... (required), from=S, to=S
// (seconds since the epoch, up to 6 decimals; a negative `from` is seconds before `now`, a
// missing `to` is now, a missing `from` the oldest kept), format=csv|json, resolution=full|1s.
// Other parameters (the token) are left alone. False with a one-line reason on bad input.
bool ParseExportQuery(std::string_view query, const Recorder& recorder, TimeUs now,
                      ExportQuery& out, std::string& reason);

// The answer to /channels: [{"name":...,"unit":...,"rate_ms":...,"page":...,"element":...,
// "kind":...},...], one object a line. `kind` is how the values are held: "flag" (on/off),
// "int16", "uint16", "int32", "uint32" or "float".
std::string ChannelsJson(const Recorder& recorder);

// Receives the answer a chunk at a time; false stops the export (the download was closed).
using ExportSink = std::function<bool(std::string_view chunk)>;

// Writes the answer to the query. Full resolution: one row per tick time of any selected
// channel's timer, as far back as the full-rate rings reach. 1s: one row per second in which any
// selected channel has a value, as far back as the history reaches. False when the sink
// stopped it.
bool Export(const Recorder& recorder, const ExportQuery& query, const ExportSink& sink);

}  // namespace recorder
