// The routes' query pairs and times: what a script or a hostile local user may send.
#include "util/Query.h"

#include <gtest/gtest.h>

#include <limits>
#include <utility>
#include <vector>

namespace query {
namespace {

constexpr TimeUs kT0 = 1'764'000'000LL * kUsPerSecond;

TEST(Query, PairsAreSplitAsTheyStandAndLookUpsTakeTheFirst) {
  std::vector<std::pair<std::string, std::string>> seen;
  EXPECT_TRUE(ForEachPair("a=1&&b&c=x=y&=z&", [&](std::string_view k, std::string_view v) {
    seen.emplace_back(k, v);
    return true;
  }));
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, std::string>>{
                      {"a", "1"}, {"", ""}, {"b", ""}, {"c", "x=y"}, {"", "z"}}));
  int calls = 0;
  EXPECT_FALSE(
      ForEachPair("a&b&c", [&](std::string_view, std::string_view) { return ++calls < 2; }));
  EXPECT_EQ(calls, 2);

  EXPECT_EQ(RawValue("token=ab%20&token=cd", "token"), "ab%20");
  EXPECT_EQ(RawValue("tokens=ab&xtoken=cd", "token"), "");
  std::string value = "kept";
  EXPECT_EQ(Value("x=1", "name", value), Found::kNo);
  EXPECT_EQ(value, "kept");
  EXPECT_EQ(Value("name=a%2Fb&name=c", "name", value), Found::kYes);
  EXPECT_EQ(value, "a/b");
  EXPECT_EQ(Value("name=%2", "name", value), Found::kBrokenEscape);
}

TEST(Query, TimesWriteExactlyAndReadBack) {
  const struct {
    TimeUs t;
    std::string text;
  } cases[] = {
      {kT0, "1764000000"},
      {kT0 + 20'000, "1764000000.02"},
      {kT0 + 3, "1764000000.000003"},
      {-1'500'000, "-1.5"},
      {0, "0"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(FormatTime(c.t), c.text);
    TimeUs back = -7;
    EXPECT_TRUE(ParseTime(c.text, back)) << c.text;
    EXPECT_EQ(back, c.t) << c.text;
  }
  TimeUs t;
  EXPECT_TRUE(ParseTime("1.1234567", t));  // beyond the microsecond: dropped
  EXPECT_EQ(t, 1'123'456);
  for (const char* bad : {"", "-", "1.2.3", "+1", " 1", "1 ", "0x10", "1e3", "123456789012"})
    EXPECT_FALSE(ParseTime(bad, t)) << bad;
}

TEST(Query, TimeRanges) {
  const TimeUs now = kT0 + 500'000;
  constexpr TimeUs kEarliest = std::numeric_limits<TimeUs>::min();
  const struct {
    const char* query;
    TimeUs from, to;
  } good[] = {
      {"", kEarliest, now},
      {"token=%zz&from=-60", now - 60 * kUsPerSecond, now},  // other pairs are not read
      {"from=1764000000&to=1764000000.25", kT0, kT0 + 250'000},
      {"from=1&from=1764000000", kT0, now},  // the last counts
      {"to=1764000000", kEarliest, kT0},
  };
  for (const auto& c : good) {
    TimeRange range;
    std::string reason;
    ASSERT_TRUE(ParseTimeRange(c.query, now, range, reason)) << c.query << ": " << reason;
    EXPECT_EQ(range.from, c.from) << c.query;
    EXPECT_EQ(range.to, c.to) << c.query;
  }
  const struct {
    const char* query;
    const char* reason;
  } bad[] = {
      {"from=yesterday", "bad time in from: yesterday"},
      {"to=%zz", "bad escape in to"},
      {"from=%0a1", "bad time in from: ?1"},
      {"from=5&to=4", "from is after to"},
      {"from=-0.1&to=1764000000", "from is after to"},  // counted back from now
  };
  for (const auto& c : bad) {
    TimeRange range;
    std::string reason;
    EXPECT_FALSE(ParseTimeRange(c.query, now, range, reason)) << c.query;
    EXPECT_EQ(reason, c.reason) << c.query;
  }
  EXPECT_EQ(Shown(std::string(70, 'a') + "\xff"), std::string(64, 'a') + "...");
  EXPECT_EQ(Shown("\xc3\xa9\x7f"), "???");
}

}  // namespace
}  // namespace query
