// The report viewer's JSON answers on folders of reports written by the motion tests' own writer,
// and on the files another program may leave there.
#include "reports/ReportApi.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "motion/Reports.h"
#include "motion/Tests.h"
#include "reports/ReportFiles.h"
#include "tests/support/TempDirs.h"
#include "util/Text.h"

namespace reports {
namespace {

using nlohmann::json;

class ReportApi : public ::testing::Test {
 protected:
  // Writes a report (and its trace) as a test does; returns its base, its times set to `time`.
  std::string Write(const std::string& prefix, const std::string& body, std::int64_t time,
                    const std::vector<motion::TraceSample>& trace = {}) {
    const motion::ReportOutcome out = motion::WriteReportFiles(folder_, prefix, body, trace);
    EXPECT_TRUE(out.traceWritten) << out.reason;
    const std::string stem = out.path.substr(0, out.path.size() - 4);
    SetTime(out.path, time);
    // No trace: a report whose trace was taken away.
    if (trace.empty()) {
      std::filesystem::remove(stem + ".csv");
    } else {
      SetTime(stem + ".csv", time);
    }
    return stem.substr(stem.rfind('/') + 1);
  }
  static void SetTime(const std::string& path, std::int64_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
  }
  void WriteBytes(const std::string& name, const std::string& bytes) {
    std::ofstream(folder_ + "/" + name, std::ios::binary) << bytes;
  }
  static std::string Utf16File(const std::string& utf8) {
    std::string bytes = "\xFF\xFE";
    text::AppendUtf16Le(bytes, text::ToUtf16(utf8));
    return bytes;
  }
  // The whole answer to /report and the chunks it came in; the status in `status`.
  std::string Report(std::string_view base, ApiStatus& status, std::size_t* chunks = nullptr) {
    std::string all;
    std::size_t n = 0;
    status = WriteReportJson(folder_, base, [&](std::string_view chunk) {
      all += chunk;
      ++n;
      return true;
    });
    if (chunks != nullptr) *chunks = n;
    return all;
  }
  json ReportOf(std::string_view base) {
    ApiStatus status{};
    const std::string text = Report(base, status);
    EXPECT_EQ(status, ApiStatus::kOk) << base;
    return json::parse(text);
  }

  testing_support::ScratchDir scratch_;
  const std::string folder_ = scratch_.Path();
};

TEST_F(ReportApi, ListsThousandsOfReportsWithWhatIsMissing) {
  // Written directly: the writer's search for a free number would take a while for each.
  motion::AxisTestResult r;
  r.StartingVoltage[0] = 1000;
  const std::string body = Utf16File(motion::AxisReportBody(r, 1));
  for (int i = 0; i < 3000; ++i) {
    const std::string name = "AxisTest_Y_" + std::to_string(i) + ".dat";
    WriteBytes(name, body);
    SetTime(folder_ + "/" + name, 100 + i / 2);  // older than the rest
  }
  for (int i = 0; i < 500; ++i)
    WriteBytes("notes" + std::to_string(i) + ".txt", "");
  const std::string both = Write(ReportPrefix(ReportKind::kAxis, "X"), motion::AxisReportBody(r, 0),
                                 4000, {{.time = 0}});
  const std::string csvOnly =
      Write(ReportPrefix(ReportKind::kLimit, "Z"), "z", 3000, {{.time = 0}});
  std::filesystem::remove(folder_ + "/" + csvOnly + ".dat");
  const std::string datOnly = Write(ReportPrefix(ReportKind::kPlaten), "p", 2000);
  WriteBytes("AxisTest_\"X\n_1.dat", "");

  const json list =
      json::parse(ReportsJson(folder_, {{.axis = "X", .countsPerMm = 1000}, {"Zoom", 0}}));
  EXPECT_EQ(list["truncated"], false);
  EXPECT_EQ(list["countsPerMm"], json::parse(R"({"X":1000,"Zoom":0})"));
  ASSERT_EQ(list["reports"].size(), 3003u);
  const json& first = list["reports"][0];
  EXPECT_EQ(first, json::parse(R"({"base":"AxisTest_X_0","kind":"axis","axis":"X","number":0,
                            "hasReport":true,"hasTrace":true,"modified":4000,
                            "outcome":"cancelled"})"));
  // No .dat, or one that does not say how it ended: no outcome.
  EXPECT_EQ(list["reports"][1]["outcome"], nullptr);
  EXPECT_EQ(list["reports"][2]["outcome"], nullptr);
  // Only the newest reports' outcomes are read.
  EXPECT_EQ(list["reports"][kMaxOutcomeReads - 1]["outcome"], "cancelled");
  EXPECT_EQ(list["reports"][kMaxOutcomeReads]["outcome"], nullptr);
  EXPECT_EQ(list["reports"][1]["base"], "LimitTest_Z_0");
  EXPECT_EQ(list["reports"][1]["kind"], "limit");
  EXPECT_EQ(list["reports"][1]["hasReport"], false);
  EXPECT_EQ(list["reports"][1]["hasTrace"], true);
  EXPECT_EQ(list["reports"][2]["base"], "PlatenTest_0");
  EXPECT_EQ(list["reports"][2]["axis"], "");
  EXPECT_EQ(list["reports"][2]["hasTrace"], false);

  EXPECT_EQ(list["reports"][3]["base"], "AxisTest_Y_2999");
  EXPECT_EQ(list["reports"].back()["base"], "AxisTest_Y_0");

  // The history reads the newest 2,000 reports with a .dat: X's and 1,999 of Y's.
  const json history = json::parse(HistoryJson(folder_));
  ASSERT_EQ(history["axes"]["Y"].size(), 1999u);
  EXPECT_EQ(history["axes"]["Y"][0]["base"], "AxisTest_Y_1001");
  EXPECT_EQ(history["axes"]["Y"][0]["startNeg"], 1000);
  EXPECT_EQ(history["axes"]["X"].size(), 1u);
  EXPECT_FALSE(history["axes"].contains("Z"));  // its report is gone
  EXPECT_EQ(json::parse(ReportsJson(folder_ + "/missing")),
            json::parse(R"({"truncated":false,"countsPerMm":{},"reports":[]})"));
}

TEST_F(ReportApi, ReportAndTraceComeBackExactly) {
  motion::AxisTestResult r;
  r.StartingVoltage[0] = 2750;
  r.StartingVoltage[1] = 3000;
  r.LinearChange[0] = -10003;
  r.LinearChange[1] = 9998;
  std::vector<motion::TraceSample> samples;
  for (int i = 0; i < 20000; ++i) {
    samples.push_back({.time = i * 0.02 - 0.04,  // the first rows before the start
                       .bias = -250 * (i / 10),
                       .linear = 2147483647 - i,
                       .rotary = -2147483647 - 1 + i,
                       .limit = static_cast<std::int8_t>(i % 3 - 1)});
  }
  const std::string body = motion::AxisReportBody(r, 0);
  const std::string base = Write(ReportPrefix(ReportKind::kAxis, "X"), body, 1000, samples);

  ApiStatus status{};
  std::size_t chunks = 0;
  const std::string answer = Report(base, status, &chunks);
  ASSERT_EQ(status, ApiStatus::kOk);
  EXPECT_GT(chunks, 10u);  // streamed, not held whole
  const json report = json::parse(answer);
  EXPECT_EQ(report["base"], base);
  EXPECT_EQ(report["text"], body);
  EXPECT_EQ(report["problem"], "");
  // The moves the viewer shows in mm, in the counts the report gives.
  EXPECT_EQ(report["moves"], json::parse(R"j([{"what":"X Axis (-)","counts":-10003},
                                             {"what":"X Axis (+)","counts":9998}])j"));
  EXPECT_EQ(report["trace"]["board"], "");
  EXPECT_EQ(report["trace"]["columns"],
            json::parse(R"(["time","bias","linear","rotary","limit"])"));
  EXPECT_EQ(report["trace"]["problem"], "");

  // Each row as the .csv holds it, character for character.
  const std::string csv = motion::TraceCsv(samples);
  std::istringstream lines(csv);
  std::string line, rows;
  std::getline(lines, line);  // the header
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    rows += (rows.empty() ? "[" : ",\n[") + line + "]";
  }
  EXPECT_NE(answer.find("\"rows\":[" + rows + "]"), std::string::npos);
  EXPECT_EQ(report["trace"]["rows"].size(), samples.size());
  EXPECT_EQ(report["trace"]["rows"][0], json::parse("[-0.04,0,2147483647,-2147483648,-1]"));

  // A closed download stops the work at the chunk that saw it.
  int calls = 0;
  EXPECT_EQ(WriteReportJson(folder_, base, [&](std::string_view) { return ++calls < 2; }),
            ApiStatus::kStopped);
  EXPECT_EQ(calls, 2);

  std::string path;
  ASSERT_TRUE(ReportFilePath(folder_, base, "csv", path));
  EXPECT_EQ(path, folder_ + "/" + base + ".csv");
  ASSERT_TRUE(ReportFilePath(folder_, base, "dat", path));
  EXPECT_EQ(path, folder_ + "/" + base + ".dat");
}

TEST_F(ReportApi, OnlyListedNamesAreServed) {
  const std::string base = Write(ReportPrefix(ReportKind::kAxis, "X"), "x", 1000);
  WriteBytes("secret.dat", "s");
  std::filesystem::create_directory(folder_ + "/sub");
  std::ofstream(folder_ + "/sub/AxisTest_X_0.dat") << "s";
  ASSERT_EQ(::symlink((folder_ + "/secret.dat").c_str(), (folder_ + "/AxisTest_Y_0.dat").c_str()),
            0);
  for (const std::string& name :
       std::vector<std::string>{"../" + base, "./" + base, "sub/AxisTest_X_0", base + ".dat",
                                base + "/", "secret", "AxisTest_Y_0", "AxisTest_X_1", "",
                                std::string(4096, 'A'), base + std::string(1, '\0')}) {
    ApiStatus status{};
    EXPECT_EQ(Report(name, status), "") << name;
    EXPECT_EQ(status, ApiStatus::kNotFound) << name;
    std::string path;
    EXPECT_FALSE(ReportFilePath(folder_, name, "dat", path)) << name;
  }
  std::string path;
  EXPECT_FALSE(ReportFilePath(folder_, base, "csv", path));  // it has no trace
  EXPECT_FALSE(ReportFilePath(folder_, base, "txt", path));
  EXPECT_FALSE(ReportFilePath(folder_, base, "dat/../../x", path));
  EXPECT_EQ(ReportOf(base)["trace"], nullptr);
}

TEST_F(ReportApi, BadFilesGiveWhatCouldBeRead) {
  motion::AxisTestResult r;
  r.StartingVoltage[0] = 1500;
  r.StartingVoltage[1] = 1750;
  const std::string good =
      Write(ReportPrefix(ReportKind::kAxis, "Y"), motion::AxisReportBody(r, 1), 1000);
  std::string bytes, reason;
  ASSERT_TRUE(ReadBoundedFile(folder_ + "/" + good + ".dat", kMaxReportBytes, bytes, reason));
  const struct {
    std::string name, dat, csv;
    json text;  // null: not checked
    std::string problem, traceProblem;
    std::size_t rows;
  } cases[] = {
      // Cut inside a character: the first block is there, the fault is named.
      {"AxisTest_Y_5", bytes.substr(0, bytes.size() / 4 * 2 + 1), "", nullptr,
       "truncated: odd last byte", "", 0},
      // Not UTF-16 at all.
      {"AxisTest_Y_6", "               Y Axis (-)\r\n\xC3\x28\x80", "",
       "               Y Axis (-)\r\n\xEF\xBF\xBD(\xEF\xBF\xBD", "no UTF-16 mark", "", 0},
      // A report of another program: its control characters and quotes come back escaped.
      {"AxisTest_Y_7", Utf16File("Foreign \"tool\"\x01\x1b[2J\r\n"), "",
       "Foreign \"tool\"\x01\x1b[2J\r\n", "line 1 not understood: Foreign \"tool\"??[2J", "", 0},
      // A trace with bytes that are not UTF-8 in a bad row, and a trace without its report.
      {"AxisTest_Y_8", "", "time,bias,linear,rotary,limit\n0.000,1,2,3,0\n\xFF\xFE,\"\\\n", nullptr,
       "", "line 3 not understood: \xEF\xBF\xBD\xEF\xBF\xBD,\"\\", 1},
      {"LimitTest_X_0", "", "garbage", nullptr, "", "line 1 not understood: garbage", 0},
  };
  for (const auto& c : cases) {
    if (!c.dat.empty()) WriteBytes(c.name + ".dat", c.dat);
    if (!c.csv.empty()) WriteBytes(c.name + ".csv", c.csv);
    ApiStatus status{};
    const std::string answer = Report(c.name, status);
    ASSERT_EQ(status, ApiStatus::kOk) << c.name;
    json report;
    ASSERT_NO_THROW(report = json::parse(answer)) << c.name << answer;
    if (c.dat.empty()) {
      EXPECT_EQ(report["text"], nullptr) << c.name;
    } else if (!c.text.is_null()) {
      EXPECT_EQ(report["text"], c.text) << c.name;
    }
    EXPECT_EQ(report["problem"], c.problem) << c.name;
    if (c.csv.empty()) {
      EXPECT_EQ(report["trace"], nullptr) << c.name;
    } else {
      EXPECT_EQ(report["trace"]["problem"], c.traceProblem) << c.name;
      EXPECT_EQ(report["trace"]["rows"].size(), c.rows) << c.name;
    }
  }
  EXPECT_EQ(ReportOf("AxisTest_Y_5")["text"].get<std::string>().find("Y Axis (+)"),
            std::string::npos);

  // A trace above its bound is named, not read.
  WriteBytes("AxisTest_Y_9.csv", std::string(kMaxTraceBytes + 1, '0'));
  EXPECT_EQ(ReportOf("AxisTest_Y_9")["trace"]["problem"],
            "AxisTest_Y_9.csv not read: file too large (33554433 bytes)");
}

TEST_F(ReportApi, JsonTextIsAlwaysValid) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"plain", R"("plain")"},
      {"\"\\/", R"("\"\\/")"},
      {"\r\n\t\x01\x1f\x7f", R"("\u000d\u000a\u0009\u0001\u001f\u007f")"},
      {std::string("a\0b", 3), R"("a\u0000b")"},
      {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\""},
      {"\x80", R"("\ufffd")"},                                // a lone continuation byte
      {"\xC0\x80", R"("\ufffd\ufffd")"},                      // an overlong NUL
      {"\xED\xA0\x80", R"("\ufffd\ufffd\ufffd")"},            // a surrogate
      {"\xE2\x82", R"("\ufffd\ufffd")"},                      // cut at the end
      {"\xE2\x82x", R"("\ufffd\ufffdx")"},                    // cut before another character
      {"\xF4\x90\x80\x80", R"("\ufffd\ufffd\ufffd\ufffd")"},  // past U+10FFFF
      {"\xFF\xFE", R"("\ufffd\ufffd")"},
  };
  for (const auto& c : cases) {
    std::string out;
    text::AppendJsonText(out, c.in);
    EXPECT_EQ(out, c.out);
    EXPECT_TRUE(json::accept(out)) << out;
  }
}

TEST_F(ReportApi, HistoryPerAxisOldestFirst) {
  auto axis = [](int neg, int pos) {
    motion::AxisTestResult r;
    r.StartingVoltage[0] = neg;
    r.StartingVoltage[1] = pos;
    return motion::AxisReportBody(r, 0);
  };
  motion::LimitTestResult l;
  l.LinearLimit[0] = -150000;
  l.LinearLimit[1] = 152001;
  l.MinVoltage[0] = 1000;
  l.MaxVoltage[0] = 1750;
  l.MinVoltage[1] = -250;
  l.MaxVoltage[1] = 2000;
  Write(ReportPrefix(ReportKind::kAxis, "X"), axis(850, 900), 3000);
  Write(ReportPrefix(ReportKind::kAxis, "X"), axis(2550, 2700),
        1000);  // older, though numbered after
  Write(ReportPrefix(ReportKind::kLimit, "X"), motion::LimitReportBody(l, 0), 2000);
  // A limit report cut before its negative limit: no travel.
  WriteBytes("LimitTest_Y_0.dat",
             Utf16File("          Y Axis \r\nLinear encoder limits\r\n          Positive: 5\r\n"));
  Write(ReportPrefix(ReportKind::kPlaten), "Platen", 2000);
  WriteBytes("AxisTest_X_7.dat", Utf16File("Not a report\r\n"));
  SetTime(folder_ + "/AxisTest_X_7.dat", 2500);

  const json history = json::parse(HistoryJson(folder_));
  EXPECT_EQ(history["axes"]["X"], json::parse(R"([
      {"time":1000,"base":"AxisTest_X_1","kind":"axis","startNeg":2550,"startPos":2700,
       "movingNeg":null,"movingPos":null,"travel":null,"outcome":"completed","unmeasured":[]},
      {"time":2000,"base":"LimitTest_X_0","kind":"limit","startNeg":null,"startPos":null,
       "movingNeg":[1000,1750],"movingPos":[-250,2000],"travel":302001,"outcome":"completed",
       "unmeasured":[]},
      {"time":3000,"base":"AxisTest_X_0","kind":"axis","startNeg":850,"startPos":900,
       "movingNeg":null,"movingPos":null,"travel":null,"outcome":"completed","unmeasured":[]}])"));
  ASSERT_EQ(history["axes"]["Y"].size(), 1u);
  EXPECT_EQ(history["axes"]["Y"][0]["travel"], nullptr);
  EXPECT_EQ(history["axes"]["Y"][0]["unmeasured"],
            json::parse(R"(["movingNeg","movingPos","travel"])"));
  EXPECT_EQ(history["axes"].size(), 2u);  // no platen
}

}  // namespace
}  // namespace reports
