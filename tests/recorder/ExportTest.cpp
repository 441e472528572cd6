#include "recorder/Export.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <sstream>

#include "util/Query.h"

namespace recorder {
namespace {

constexpr TimeUs kT0 = 1'764'000'000LL * kUsPerSecond;

std::string ExportText(const Recorder& rec, const ExportQuery& q) {
  std::string out;
  EXPECT_TRUE(Export(rec, q, [&](std::string_view chunk) {
    out += chunk;
    return true;
  }));
  return out;
}

std::vector<std::string> Split(const std::string& line) {
  std::vector<std::string> cells;
  std::stringstream s(line);
  std::string cell;
  while (std::getline(s, cell, ','))
    cells.push_back(cell);
  if (!line.empty() && line.back() == ',') cells.emplace_back();
  return cells;
}

TEST(Export, FullRateCsvReadsBackAsRecorded) {
  Recorder rec({.fullWindowS = 60, .historyS = 120});
  const ChannelId pos = rec.AddChannel({.name = "status.LinearPosition.X",
                                        .unit = "counts",
                                        .rateMs = 20,
                                        .kind = ValueKind::kInt32});
  const ChannelId limit =
      rec.AddChannel({.name = "status.Limit.X", .rateMs = 50, .kind = ValueKind::kFlag});
  const ChannelId volt = rec.AddChannel(
      {.name = "readings.Analog3", .unit = "V", .rateMs = 50, .kind = ValueKind::kFloat});
  // What was recorded, by time and column; the 20 and 50 ms timers meet every 100 ms.
  std::map<TimeUs, std::map<int, std::string>> expected;
  std::mt19937 random(7);
  for (int ms = 0; ms < 10'000; ms += 10) {
    const TimeUs t = kT0 + ms * 1000LL + 3;  // microseconds that must survive the text
    if (ms % 20 == 0) {
      rec.BeginTick(20, t);
      expected[t];
      const auto v = static_cast<std::int32_t>(random());
      if (ms % 60 != 0) {  // now and then a tick without this channel
        rec.Record(pos, v);
        expected[t][0] = std::to_string(v);
      }
    }
    if (ms % 50 == 0) {
      rec.BeginTick(50, t);
      expected[t];
      const int flag = static_cast<int>(random() % 2);
      rec.Record(limit, flag);
      expected[t][1] = std::to_string(flag);
      const float f = std::uniform_real_distribution<float>(-15, 15)(random);
      rec.Record(volt, f);
      char text[32];
      std::snprintf(text, sizeof text, "%.9g", static_cast<double>(f));
      expected[t][2] = text;
    }
  }
  ExportQuery q{.channels = {pos, limit, volt}, .from = kT0, .to = kT0 + 20 * kUsPerSecond};
  const std::string csv = ExportText(rec, q);
  std::stringstream lines(csv);
  std::string line;
  std::getline(lines, line);
  EXPECT_EQ(line, "time,status.LinearPosition.X,status.Limit.X,readings.Analog3");
  std::size_t rows = 0;
  while (std::getline(lines, line)) {
    const std::vector<std::string> cells = Split(line);
    ASSERT_EQ(cells.size(), 4u) << line;
    TimeUs t;
    ASSERT_TRUE(query::ParseTime(cells[0], t)) << line;
    ASSERT_TRUE(expected.count(t)) << line;
    const auto& want = expected[t];
    EXPECT_EQ(cells[1], want.count(0) ? want.at(0) : "") << line;
    EXPECT_EQ(cells[3], want.count(2) ? want.at(2) : "") << line;
    EXPECT_EQ(cells[2], want.count(1) ? want.at(1) : "") << line;
    // The float read back is the float recorded.
    if (!cells[3].empty()) {
      EXPECT_EQ(static_cast<float>(std::stod(cells[3])), std::stof(want.at(2)));
    }
    ++rows;
  }
  EXPECT_EQ(rows, expected.size());
}

TEST(Export, JsonAndPerSecondForms) {
  Recorder rec({.fullWindowS = 60, .historyS = 120});
  const ChannelId a = rec.AddChannel({.name = "a", .rateMs = 500, .kind = ValueKind::kInt16});
  const ChannelId b = rec.AddChannel({.name = "b", .rateMs = 1000, .kind = ValueKind::kFloat});
  for (int i = 0; i < 4; ++i) {
    rec.BeginTick(500, kT0 + i * 500'000);
    rec.Record(a, i % 2 ? -i : i * 10);
  }
  rec.BeginTick(1000, kT0 + 250'000);
  rec.Record(b, 0.5);
  ExportQuery q{.channels = {a, b}, .from = kT0, .to = kT0 + 2 * kUsPerSecond, .json = true};
  EXPECT_EQ(ExportText(rec, q),
            "{\"columns\":[\"time\",\"a\",\"b\"],\"rows\":[\n"
            "[1764000000,0,null],\n[1764000000.25,null,0.5],\n[1764000000.5,-1,null],\n"
            "[1764000001,20,null],\n[1764000001.5,-3,null]]}\n");
  q.perSecond = true;
  q.json = false;
  EXPECT_EQ(ExportText(rec, q),
            "time,a.min,a.max,b.min,b.max\n"
            "1764000000,-1,0,0.5,0.5\n"
            "1764000001,-3,20,,\n");
  q.json = true;
  q.to = kT0 - 1;
  EXPECT_EQ(ExportText(rec, q),
            "{\"columns\":[\"time\",\"a.min\",\"a.max\",\"b.min\",\"b.max\"],"
            "\"rows\":[]}\n");
}

// The history reaches back from the request's time, not from `to`: a range that runs far into
// the future still holds what was recorded, and its future seconds are not walked.
TEST(Export, PerSecondHistoryCountsBackFromNow) {
  Recorder rec({.fullWindowS = 60, .historyS = 120});
  const ChannelId a = rec.AddChannel({.name = "a", .rateMs = 1000, .kind = ValueKind::kInt16});
  for (int i = 0; i < 3; ++i) {
    rec.BeginTick(1000, kT0 + i * kUsPerSecond);
    rec.Record(a, i + 7);
  }
  const TimeUs now = kT0 + 3 * kUsPerSecond;
  ExportQuery q;
  std::string reason;
  ASSERT_TRUE(
      ParseExportQuery("channels=a&resolution=1s&from=0&to=99999999999", rec, now, q, reason))
      << reason;
  EXPECT_EQ(q.now, now);
  const std::string expected =
      "time,a.min,a.max\n1764000000,7,7\n1764000001,8,8\n"
      "1764000002,9,9\n";
  EXPECT_EQ(ExportText(rec, q), expected);
  // From before the history's start: the same rows, from where the history begins.
  ASSERT_TRUE(ParseExportQuery("channels=a&resolution=1s&from=-100000", rec, now, q, reason));
  EXPECT_EQ(ExportText(rec, q), expected);
  // A range that ends before now still ends where it says.
  ASSERT_TRUE(
      ParseExportQuery("channels=a&resolution=1s&from=0&to=1764000001", rec, now, q, reason));
  EXPECT_EQ(ExportText(rec, q), "time,a.min,a.max\n1764000000,7,7\n1764000001,8,8\n");
}

TEST(Export, ChannelList) {
  Recorder rec;
  rec.AddChannel({.name = "status.LinearPosition.X",
                  .rateMs = 20,
                  .kind = ValueKind::kInt32,
                  .page = "Stage",
                  .element = "linear-x"});
  rec.AddChannel({.name = "readings.Temperature1",
                  .unit = "\xC2\xB0"
                          "C\"\n",
                  .rateMs = 1000,
                  .kind = ValueKind::kFlag});
  EXPECT_EQ(ChannelsJson(rec),
            "[\n{\"name\":\"status.LinearPosition.X\",\"unit\":\"\",\"rate_ms\":20,"
            "\"page\":\"Stage\",\"element\":\"linear-x\",\"kind\":\"int32\"},\n"
            "{\"name\":\"readings.Temperature1\",\"unit\":\"\xC2\xB0"
            "C\\\"\\u000a\",\"rate_ms\":1000,\"page\":\"\",\"element\":\"\","
            "\"kind\":\"flag\"}]\n");
  EXPECT_EQ(ChannelsJson(Recorder()), "[]\n");
}

TEST(Export, StreamsInChunksAndStopsWhenTheSinkDoes) {
  Recorder rec({.fullWindowS = 600, .historyS = 700});
  const ChannelId a = rec.AddChannel({.name = "a", .rateMs = 20, .kind = ValueKind::kInt32});
  for (int i = 0; i < 30'000; ++i) {
    rec.BeginTick(20, kT0 + i * 20'000LL);
    rec.Record(a, -1'000'000 - i);
  }
  const ExportQuery q{.channels = {a}, .from = kT0, .to = kT0 + 600 * kUsPerSecond};
  std::size_t chunks = 0, largest = 0, total = 0;
  EXPECT_TRUE(Export(rec, q, [&](std::string_view chunk) {
    ++chunks;
    largest = std::max(largest, chunk.size());
    total += chunk.size();
    return true;
  }));
  EXPECT_GT(chunks, 10u);
  EXPECT_LT(largest, 40'000u);  // never the whole answer at once
  EXPECT_GT(total, 30'000u * 20);
  chunks = 0;
  EXPECT_FALSE(Export(rec, q, [&](std::string_view) { return ++chunks < 2; }));
  EXPECT_EQ(chunks, 2u);
}

TEST(Export, QueryParser) {
  Recorder rec;
  rec.AddChannel({.name = "status.LinearPosition.X", .rateMs = 20});
  rec.AddChannel({.name = "readings.Analog3", .rateMs = 1000, .kind = ValueKind::kFloat});
  const TimeUs now = kT0 + 123'456;
  ExportQuery q;
  std::string reason;
  ASSERT_TRUE(ParseExportQuery(
      "token=abc&channels=status.LinearPosition.X%2Creadings.Analog3&from=-600&format=json"
      "&resolution=1s",
      rec, now, q, reason))
      << reason;
  EXPECT_EQ(q.channels.size(), 2u);
  EXPECT_EQ(q.names[1], "readings.Analog3");
  EXPECT_EQ(q.from, now - 600 * kUsPerSecond);
  EXPECT_EQ(q.to, now);
  EXPECT_TRUE(q.json);
  EXPECT_TRUE(q.perSecond);
  ASSERT_TRUE(ParseExportQuery("channels=readings.Analog3&from=1764000000.5&to=1764000001", rec,
                               now, q, reason));
  EXPECT_EQ(q.from, kT0 + 500'000);
  EXPECT_EQ(q.to, kT0 + kUsPerSecond);
  EXPECT_FALSE(q.json);
  EXPECT_FALSE(q.perSecond);

  const struct {
    std::string query;
    std::string reason;
  } refused[] = {
      {"from=0", "no channels named"},
      {"channels=", "no channels named"},
      {"channels=status.LinearPosition.X,nope", "unknown channel: nope"},
      {"channels=readings.Analog3,", "unknown channel: "},
      {"channels=readings.Analog3&from=abc", "bad time in from: abc"},
      {"channels=readings.Analog3&to=1e9", "bad time in to: 1e9"},
      {"channels=readings.Analog3&from=123456789012", "bad time in from: 123456789012"},
      {"channels=readings.Analog3&from=.", "bad time in from: ."},
      {"channels=readings.Analog3&from=5&to=4", "from is after to"},
      {"channels=readings.Analog3&format=xml", "unknown format: xml"},
      {"channels=readings.Analog3&resolution=10s", "unknown resolution: 10s"},
      {"channels=readings%2", "bad escape in channels"},
      {"channels=%0a%1b", "unknown channel: ??"},
      {"channels=" + std::string(20'000, 'x'), "query too long"},
  };
  for (const auto& r : refused) {
    EXPECT_FALSE(ParseExportQuery(r.query, rec, now, q, reason)) << r.query;
    EXPECT_EQ(reason, r.reason) << r.query;
  }
  std::string many = "channels=readings.Analog3";
  for (int i = 0; i < 600; ++i)
    many += ",readings.Analog3";
  EXPECT_FALSE(ParseExportQuery(many, rec, now, q, reason));
  EXPECT_EQ(reason, "too many channels");
}

}  // namespace
}  // namespace recorder
