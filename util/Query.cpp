#include "util/Query.h"

#include <algorithm>
#include <limits>

#include "util/Text.h"

namespace query {

namespace {

// Seconds since the epoch written with at most this many digits: past the year 5000.
constexpr std::size_t kMaxSecondDigits = 11;

}  // namespace

bool ForEachPair(std::string_view query,
                 const std::function<bool(std::string_view name, std::string_view value)>& take) {
  while (!query.empty()) {
    const std::size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view{} : query.substr(amp + 1);
    const std::size_t eq = pair.find('=');
    const std::string_view value =
        eq == std::string_view::npos ? std::string_view{} : pair.substr(eq + 1);
    if (!take(pair.substr(0, eq), value)) return false;
  }
  return true;
}

std::string_view RawValue(std::string_view query, std::string_view name) {
  std::string_view found;
  ForEachPair(query, [&](std::string_view key, std::string_view value) {
    if (key != name) return true;
    found = value;
    return false;
  });
  return found;
}

Found Value(std::string_view query, std::string_view name, std::string& value) {
  Found found = Found::kNo;
  ForEachPair(query, [&](std::string_view key, std::string_view raw) {
    if (key != name) return true;
    found = text::PercentDecode(raw, value) ? Found::kYes : Found::kBrokenEscape;
    return false;
  });
  return found;
}

std::string FormatTime(TimeUs time) {
  const bool negative = time < 0;
  const std::uint64_t magnitude =
      negative ? static_cast<std::uint64_t>(-(time + 1)) + 1 : static_cast<std::uint64_t>(time);
  std::string out = (negative ? "-" : "") + std::to_string(magnitude / kUsPerSecond);
  std::uint64_t fraction = magnitude % kUsPerSecond;
  if (fraction == 0) return out;
  int digits = 6;
  while (fraction % 10 == 0) {
    fraction /= 10;
    --digits;
  }
  std::string f = std::to_string(fraction);
  out += '.';
  out.append(static_cast<std::size_t>(digits) - f.size(), '0');
  return out + f;
}

bool ParseTime(std::string_view text, TimeUs& out) {
  std::size_t i = 0;
  const bool negative = !text.empty() && text[0] == '-';
  if (negative) ++i;
  std::int64_t whole = 0;
  std::size_t digits = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i, ++digits) {
    if (digits >= kMaxSecondDigits) return false;
    whole = whole * 10 + (text[i] - '0');
  }
  std::int64_t fraction = 0;
  std::size_t decimals = 0;
  if (i < text.size() && text[i] == '.') {
    ++i;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i, ++decimals) {
      if (decimals >= 18) return false;
      // Beyond the microsecond the digits are read and dropped.
      if (decimals < 6) fraction = fraction * 10 + (text[i] - '0');
    }
    if (decimals == 0 && digits == 0) return false;
  }
  if (i != text.size() || (digits == 0 && decimals == 0)) return false;
  for (std::size_t d = std::min<std::size_t>(decimals, 6); d < 6; ++d)
    fraction *= 10;
  const TimeUs value = whole * kUsPerSecond + fraction;
  out = negative ? -value : value;
  return true;
}

bool ParseTimeRange(std::string_view query, TimeUs now, TimeRange& out, std::string& reason) {
  TimeUs from = std::numeric_limits<TimeUs>::min(), to = now;
  std::string value;
  const bool read = ForEachPair(query, [&](std::string_view key, std::string_view raw) {
    if (key != "from" && key != "to") return true;
    TimeUs t = 0;
    if (!text::PercentDecode(raw, value)) {
      reason = "bad escape in " + std::string(key);
    } else if (!ParseTime(value, t)) {
      reason = "bad time in " + std::string(key) + ": " + Shown(value);
    } else if (key == "from") {
      from = t < 0 ? now + t : t;  // a negative start counts back from now
      return true;
    } else {
      to = t;
      return true;
    }
    return false;
  });
  if (!read) return false;
  if (from > to) {
    reason = "from is after to";
    return false;
  }
  out = {.from = from, .to = to};
  return true;
}

std::string Shown(std::string_view text) {
  std::string out;
  for (const char c : text.substr(0, 64))
    out += (c >= 0x20 && c < 0x7F) ? c : '?';
  return text.size() > 64 ? out + "..." : out;
}

}  // namespace query
