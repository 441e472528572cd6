#include "recorder/Recorder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <thread>

#include "recorder/PagePlan.h"

namespace recorder {
namespace {

constexpr TimeUs kT0 = 1'764'000'000LL * kUsPerSecond;

// Ticks of one group read back whole.
FullBlock ReadAll(const Recorder& rec, std::vector<ChannelId> ids, TimeUs from = 0,
                  TimeUs to = std::numeric_limits<TimeUs>::max()) {
  FullBlock all, part;
  std::uint64_t cursor = 0;
  while (rec.ReadFull(ids, from, to, cursor, 7, part)) {
    all.times.insert(all.times.end(), part.times.begin(), part.times.end());
    all.values.insert(all.values.end(), part.values.begin(), part.values.end());
    all.has.insert(all.has.end(), part.has.begin(), part.has.end());
  }
  return all;
}

TEST(Recorder, FullRateRingKeepsTheNewestTicksInOrder) {
  // A one-second window at 100 ms: 10 ticks and the ring's margin of one.
  Recorder rec({.fullWindowS = 1, .historyS = 10});
  const ChannelId a = rec.AddChannel({.name = "a", .rateMs = 100, .kind = ValueKind::kInt32});
  const ChannelId b = rec.AddChannel({.name = "b", .rateMs = 100, .kind = ValueKind::kInt16});
  for (int i = 0; i < 30; ++i) {
    rec.BeginTick(100, kT0 + i * 100'000);
    rec.Record(a, i * 1000);
    if (i % 3 == 0) rec.Record(b, -i);
  }
  const FullBlock all = ReadAll(rec, {a, b});
  ASSERT_EQ(all.times.size(), 11u);
  for (std::size_t k = 0; k < all.times.size(); ++k) {
    const int i = 19 + static_cast<int>(k);
    EXPECT_EQ(all.times[k], kT0 + i * 100'000);
    EXPECT_EQ(all.has[2 * k], 1);
    EXPECT_EQ(all.values[2 * k], i * 1000);
    // A channel not recorded in a tick has no value there, not the one of a tick overwritten.
    EXPECT_EQ(all.has[2 * k + 1], i % 3 == 0 ? 1 : 0) << i;
    if (i % 3 == 0) {
      EXPECT_EQ(all.values[2 * k + 1], -i);
    }
  }
  // A window inside the ring starts at the first tick at or after `from`.
  const FullBlock window = ReadAll(rec, {a}, kT0 + 2'550'000, kT0 + 2'800'000);
  ASSERT_EQ(window.times.size(), 3u);
  EXPECT_EQ(window.values.front(), 26000);
}

TEST(Recorder, ValuesAreHeldToTheirKind) {
  Recorder rec({.fullWindowS = 1, .historyS = 10});
  struct Case {
    ValueKind kind;
    double in;
    double out;
  };
  const Case cases[] = {
      {ValueKind::kFlag, 1, 1},
      {ValueKind::kFlag, 300, 255},
      {ValueKind::kFlag, -1, 0},
      {ValueKind::kInt16, -32768, -32768},
      {ValueKind::kInt16, 40000, 32767},
      {ValueKind::kUInt16, 4095, 4095},
      {ValueKind::kUInt16, 2.6, 3},
      {ValueKind::kInt32, -2147483648.0, -2147483648.0},
      {ValueKind::kInt32, 2147483647.0, 2147483647.0},
      {ValueKind::kInt32, 1e12, 2147483647.0},
      {ValueKind::kFloat, 12.34, static_cast<float>(12.34)},
      // The board's 32-bit light levels and laser value, whole.
      {ValueKind::kUInt32, 4294967295.0, 4294967295.0},
      {ValueKind::kUInt32, 3000000000.0, 3000000000.0},
      {ValueKind::kUInt32, 65536, 65536},
      {ValueKind::kUInt32, -1, 0},
      {ValueKind::kUInt32, 1e12, 4294967295.0},
  };
  std::vector<ChannelId> ids;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    ids.push_back(
        rec.AddChannel({.name = "c" + std::to_string(i), .rateMs = 100, .kind = cases[i].kind}));
  }
  rec.BeginTick(100, kT0);
  for (std::size_t i = 0; i < std::size(cases); ++i)
    rec.Record(ids[i], cases[i].in);
  const FullBlock all = ReadAll(rec, ids);
  ASSERT_EQ(all.times.size(), 1u);
  for (std::size_t i = 0; i < std::size(cases); ++i)
    EXPECT_EQ(all.values[i], cases[i].out) << i;
}

TEST(Recorder, HistoryKeepsEachSecondsMinimumAndMaximumExactly) {
  Recorder rec({.fullWindowS = 1, .historyS = 5});
  const ChannelId pos = rec.AddChannel({.name = "pos", .rateMs = 20, .kind = ValueKind::kInt32});
  const ChannelId volt = rec.AddChannel({.name = "v", .rateMs = 20, .kind = ValueKind::kFloat});
  // Seconds 0..7, second 3 left out (link lost); extremes at the first and last tick of a second.
  for (int s = 0; s < 8; ++s) {
    if (s == 3) continue;
    for (int k = 0; k < 50; ++k) {
      rec.BeginTick(20, kT0 + s * kUsPerSecond + k * 20'000);
      int v = s * 100 + k;
      if (k == 0) v = std::numeric_limits<std::int32_t>::min() + s;
      if (k == 49) v = std::numeric_limits<std::int32_t>::max() - s;
      rec.Record(pos, v);
      rec.Record(volt, 12.0 + 0.001 * k);
    }
  }
  double min[10], max[10];
  std::uint8_t has[10];
  rec.ReadSeconds(pos, kT0 / kUsPerSecond, 10, min, max, has);
  // Five seconds of history (and its slot of margin): 2..7 remain, 3 is empty, 8 and 9 to come.
  const std::uint8_t expectHas[10] = {0, 0, 1, 0, 1, 1, 1, 1, 0, 0};
  for (int s = 0; s < 10; ++s) {
    EXPECT_EQ(has[s], expectHas[s]) << s;
    if (!has[s]) continue;
    EXPECT_EQ(min[s], std::numeric_limits<std::int32_t>::min() + s);
    EXPECT_EQ(max[s], std::numeric_limits<std::int32_t>::max() - s);
  }
  rec.ReadSeconds(volt, kT0 / kUsPerSecond + 7, 1, min, max, has);
  ASSERT_EQ(has[0], 1);
  EXPECT_EQ(min[0], static_cast<float>(12.0));
  EXPECT_EQ(max[0], static_cast<float>(12.0 + 0.049));
}

TEST(Recorder, SlowChannelsKeepTheirSamplesForTheHistorysSpan) {
  Recorder rec({.fullWindowS = 2, .historyS = 20});
  const ChannelId t = rec.AddChannel({.name = "temp", .rateMs = 1000, .kind = ValueKind::kFloat});
  EXPECT_TRUE(rec.IsSlow(t));
  // A timer running late puts two samples into second 4 and none into 5.
  const TimeUs at[] = {0, 1'000'000, 2'000'000, 3'000'000, 4'000'000, 4'990'000, 6'000'000};
  for (std::size_t i = 0; i < std::size(at); ++i) {
    rec.BeginTick(1000, kT0 + at[i]);
    rec.Record(t, 20.5 + static_cast<double>(i));
  }
  EXPECT_EQ(ReadAll(rec, {t}).times.size(), std::size(at));  // far past the 2 s window
  double min[7], max[7];
  std::uint8_t has[7];
  rec.ReadSeconds(t, kT0 / kUsPerSecond, 7, min, max, has);
  EXPECT_EQ(has[5], 0);
  EXPECT_EQ(min[4], 24.5);
  EXPECT_EQ(max[4], 25.5);
  EXPECT_EQ(min[6], 26.5);
}

TEST(Recorder, DropsWhatItCannotPlaceAndKeepsTimeInOrder) {
  Recorder rec({.fullWindowS = 1, .historyS = 10});
  const ChannelId a = rec.AddChannel({.name = "a", .rateMs = 100, .kind = ValueKind::kFloat});
  rec.Record(a, 1);  // before the group's first tick
  rec.BeginTick(100, kT0 + 500'000);
  rec.Record(a, std::numeric_limits<double>::quiet_NaN());
  rec.BeginTick(100, kT0);  // a clock stepping back
  rec.Record(a, 2);
  rec.Record(a, 3);  // a second value in one tick replaces the first
  rec.Record(kNoChannel, 4);
  rec.Record(99, 4);
  rec.BeginTick(7, kT0);  // a rate nobody records at
  const FullBlock all = ReadAll(rec, {a});
  ASSERT_EQ(all.times.size(), 2u);
  EXPECT_EQ(all.has[0], 0);
  EXPECT_EQ(all.times[1], kT0 + 500'000);
  EXPECT_EQ(all.values[1], 3);
  double min, max;
  std::uint8_t has;
  rec.ReadSeconds(a, kT0 / kUsPerSecond, 1, &min, &max, &has);
  EXPECT_EQ(min, 2);
  EXPECT_EQ(max, 3);
}

TEST(Recorder, NeverPassesItsBudget) {
  const RecorderLimits limits{.budgetBytes = 4u << 20};
  Recorder rec(limits);
  int added = 0;
  while (rec.AddChannel(
             {.name = "p" + std::to_string(added), .rateMs = 20, .kind = ValueKind::kInt32}) !=
         kNoChannel) {
    ++added;
    ASSERT_LT(added, 100);
  }
  EXPECT_GT(added, 0);
  EXPECT_LE(rec.BytesUsed(), limits.budgetBytes);
  // A smaller channel may still fit where a larger one did not.
  const std::size_t before = rec.BytesUsed();
  const bool flagFits = before + ChannelBytes(limits, 20, ValueKind::kFlag) <= limits.budgetBytes;
  EXPECT_EQ(rec.AddChannel({.name = "flag", .rateMs = 20, .kind = ValueKind::kFlag}) != kNoChannel,
            flagFits);
  EXPECT_LE(rec.BytesUsed(), limits.budgetBytes);
  // Names are unique, bounded and not empty; a rate of 0 is none.
  EXPECT_EQ(rec.AddChannel({.name = "p0", .rateMs = 20}), kNoChannel);
  EXPECT_EQ(rec.AddChannel({.name = "", .rateMs = 20}), kNoChannel);
  EXPECT_EQ(rec.AddChannel({.name = std::string(200, 'x'), .rateMs = 20}), kNoChannel);
  EXPECT_EQ(rec.AddChannel({.name = "zero", .rateMs = 0}), kNoChannel);
  for (const char* name : {"a,b", "a b", "a&b=c", "a%2C", "a\"b", "a\nb", "\xC3\xA9"})
    EXPECT_EQ(rec.AddChannel({.name = name, .rateMs = 20, .kind = ValueKind::kFlag}), kNoChannel)
        << name;
}

TEST(Recorder, EveryPageFitsTheDefaultBudget) {
  const RecorderLimits limits;
  const std::size_t plan = PlanBytes(limits, kPagePlan);
  EXPECT_LE(plan, 80u << 20);
  Recorder rec(limits);
  unsigned channels = 0;
  for (const PlannedChannels& p : kPagePlan) {
    for (unsigned i = 0; i < p.count; ++i, ++channels) {
      ASSERT_NE(rec.AddChannel(
                    {.name = "c" + std::to_string(channels), .rateMs = p.rateMs, .kind = p.kind}),
                kNoChannel)
          << p.what;
    }
  }
  EXPECT_EQ(rec.BytesUsed(), plan);
  EXPECT_GE(channels, 140u);
}

// A reader copying blocks while the UI thread records: the reader sees ticks in order, each
// value the one recorded with its tick, however the ring turns under it.
TEST(Recorder, ReadersSeeWholeTicksWhileTheRingTurns) {
  Recorder rec({.fullWindowS = 1, .historyS = 10});
  const ChannelId a = rec.AddChannel({.name = "a", .rateMs = 20, .kind = ValueKind::kInt32});
  const ChannelId b = rec.AddChannel({.name = "b", .rateMs = 20, .kind = ValueKind::kInt32});
  std::atomic<bool> done{false};
  std::size_t blocks = 0;
  bool inOrder = true, matched = true;
  std::thread reader([&] {
    // One pass more after the writer is done, so that the last pass sees every tick.
    for (bool finalPass = false; !finalPass;) {
      finalPass = done.load();
      std::uint64_t cursor = 0;
      FullBlock block;
      TimeUs last = std::numeric_limits<TimeUs>::min();
      while (rec.ReadFull({a, b}, 0, std::numeric_limits<TimeUs>::max(), cursor, 16, block)) {
        ++blocks;
        for (std::size_t k = 0; k < block.times.size(); ++k) {
          inOrder = inOrder && block.times[k] > last;
          last = block.times[k];
          const double tick = static_cast<double>((block.times[k] - kT0) / 20'000);
          if (block.has[2 * k] && block.has[2 * k + 1]) {
            matched = matched && block.values[2 * k] == tick && block.values[2 * k + 1] == -tick;
          }
        }
      }
    }
  });
  for (int i = 0; i < 200'000; ++i) {
    rec.BeginTick(20, kT0 + i * 20'000LL);
    rec.Record(a, i);
    rec.Record(b, -i);
  }
  done = true;
  reader.join();
  EXPECT_TRUE(inOrder);
  EXPECT_TRUE(matched);
  EXPECT_GT(blocks, 0u);
}

TEST(Recorder, EventsAreBoundedAndCutWithinACharacter) {
  Recorder rec({.eventCapacity = 3});
  rec.Mark(EventKind::kLinkLost, kT0);
  rec.Mark(EventKind::kLinkBack, kT0 + 1);
  rec.Mark(EventKind::kTestStarted, kT0 + 2, "AxisTest_X");
  // 119 ASCII bytes and a two-byte character: the character does not fit and goes whole.
  // (Appended, not added: g++ 12 takes the temporary of a + for too short and warns.)
  std::string cut(119, 'a');
  cut += "\xC3\xA9";
  rec.Mark(EventKind::kTestEnded, kT0 + 3, cut);
  const std::vector<Event> events = rec.Events(kT0, kT0 + 10);
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].kind, EventKind::kLinkBack);
  EXPECT_EQ(events[1].text, "AxisTest_X");
  EXPECT_EQ(events[2].text, std::string(119, 'a'));
  EXPECT_EQ(rec.Events(kT0 + 2, kT0 + 2).size(), 1u);
}

}  // namespace
}  // namespace recorder
