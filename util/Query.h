// The query part of a URL as the routes read it: name=value pairs split on '&', the first '='
// parting name from value, and the times the routes take and give, in seconds since the epoch
// with up to six decimals. A query comes from any local user, so nothing here trusts it: bad
// input is refused with a one-line reason, never taken as something else.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace query {

// Calls `take(name, value)` for every pair in order, both as they stand (undecoded); a pair
// without '=' has an empty value. Stops at the first `take` that returns false, and returns false
// then.
bool ForEachPair(std::string_view query,
                 const std::function<bool(std::string_view name, std::string_view value)>& take);

// The undecoded value of the first pair named `name`; empty when there is none (the token is
// plain hex and needs no decoding).
std::string_view RawValue(std::string_view query, std::string_view name);

enum class Found { kYes, kNo, kBrokenEscape };
// The decoded value of the first pair named `name`.
Found Value(std::string_view query, std::string_view name, std::string& value);

// Microseconds since the epoch, the time of the routes' queries and answers.
using TimeUs = std::int64_t;
inline constexpr TimeUs kUsPerSecond = 1'000'000;

// "1764043200.02" from microseconds: the fewest decimals that keep the time exact.
std::string FormatTime(TimeUs time);
// Parses a time as FormatTime writes it (and an optional leading '-'); false when it is not one.
bool ParseTime(std::string_view text, TimeUs& out);

struct TimeRange {
  TimeUs from = 0;
  TimeUs to = 0;
};
// The range of `from=S` and `to=S` (the last of each counts): a negative `from` is seconds before
// `now`, a missing `to` is now and a missing `from` the earliest time there is. False with a
// one-line reason for a broken escape, a bad time or a `from` after `to`.
bool ParseTimeRange(std::string_view query, TimeUs now, TimeRange& out, std::string& reason);

// Printable for a one-line reason: at most 64 bytes, control bytes as '?'.
std::string Shown(std::string_view text);

}  // namespace query
