// The report readers on reports and traces written by the motion tests' own writer.
#include "reports/ReportFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "motion/Reports.h"
#include "motion/Tests.h"
#include "tests/support/TempDirs.h"

namespace reports {
namespace {

class ReportFiles : public ::testing::Test {
 protected:
  std::string Write(const std::string& prefix, const std::string& body,
                    const std::vector<motion::TraceSample>& trace = {}) {
    const motion::ReportOutcome out = motion::WriteReportFiles(folder_, prefix, body, trace);
    EXPECT_TRUE(out.traceWritten) << out.reason;
    // No trace: a report whose trace was taken away.
    if (trace.empty()) std::filesystem::remove(out.path.substr(0, out.path.size() - 4) + ".csv");
    return out.path;
  }
  static void SetTime(const std::string& path, std::int64_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
  }
  static void WriteBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
  }
  std::string Text(const std::string& path) {
    std::string bytes, reason, problem;
    EXPECT_TRUE(ReadBoundedFile(path, kMaxReportBytes, bytes, reason)) << reason;
    std::string text = DecodeReport(bytes, problem);
    EXPECT_EQ(problem, "");
    return text;
  }

  testing_support::ScratchDir scratch_;
  const std::string folder_ = scratch_.Path();
};

TEST_F(ReportFiles, ListsNewestFirstWithKindAxisAndNumber) {
  const std::string x0 = Write(ReportPrefix(ReportKind::kAxis, "X"), "x");
  const std::string x1 = Write(ReportPrefix(ReportKind::kAxis, "X"), "x", {{.time = 0.02}});
  const std::string lz = Write(ReportPrefix(ReportKind::kLimit, "Z"), "z", {{.time = 0.02}});
  const std::string zoom = Write(ReportPrefix(ReportKind::kZoom), "zoom");
  const std::string platen = Write(ReportPrefix(ReportKind::kPlaten), "p");
  SetTime(x0, 1000);
  SetTime(x1, 3000);
  SetTime(x1.substr(0, x1.size() - 4) + ".csv", 3001);
  SetTime(lz, 2000);
  SetTime(lz.substr(0, lz.size() - 4) + ".csv", 2000);
  SetTime(zoom, 2000);
  SetTime(platen, 500);
  // A trace whose report is gone, and a report without its trace.
  std::filesystem::remove(lz);
  // Not reports: other names, a link to a report, a folder with a report's name.
  WriteBytes(folder_ + "/AxisTest_Q_1.dat", "");
  WriteBytes(folder_ + "/AxisTest_X_01.dat", "");
  WriteBytes(folder_ + "/notes.txt", "");
  ASSERT_EQ(::symlink(x0.c_str(), (folder_ + "/AxisTest_Y_9.dat").c_str()), 0);
  std::filesystem::create_directory(folder_ + "/PlatenTest_4.dat");

  const std::vector<ReportEntry> list = ListReports(folder_);
  ASSERT_EQ(list.size(), 5u);
  const struct {
    std::string base;
    ReportKind kind;
    std::string axis;
    std::uint64_t n;
    bool report, trace;
  } expected[] = {
      {"AxisTest_X_1", ReportKind::kAxis, "X", 1, true, true},
      {"AxisTest_Zoom_0", ReportKind::kZoom, "Zoom", 0, true, false},
      {"LimitTest_Z_0", ReportKind::kLimit, "Z", 0, false, true},
      {"AxisTest_X_0", ReportKind::kAxis, "X", 0, true, false},
      {"PlatenTest_0", ReportKind::kPlaten, "", 0, true, false},
  };
  for (std::size_t i = 0; i < list.size(); ++i) {
    EXPECT_EQ(list[i].base, expected[i].base) << i;
    EXPECT_EQ(list[i].kind, expected[i].kind) << i;
    EXPECT_EQ(list[i].axis, expected[i].axis) << i;
    EXPECT_EQ(list[i].number, expected[i].n) << i;
    EXPECT_EQ(list[i].hasReport, expected[i].report) << i;
    EXPECT_EQ(list[i].hasTrace, expected[i].trace) << i;
  }
  EXPECT_EQ(list[0].modified, 3001);
  EXPECT_TRUE(ListReports(folder_ + "/missing").empty());
}

TEST_F(ReportFiles, ReadsTheAxisReportAsWritten) {
  motion::AxisTestResult r;
  r.LinearInitial[0] = 120;
  r.LinearFinal[0] = -9880;
  r.LinearChange[0] = -10000;
  r.RotaryInitial[0] = 7;
  r.RotaryFinal[0] = -40007;
  r.RotaryChange[0] = -40014;
  r.StartingVoltage[0] = 2750;
  r.CorrectDirection[0] = 6;
  r.CorrectDistance[0] = 7;
  r.VoltageLimitReached[1] = 1;
  r.StartingVoltage[1] = 8129;
  r.CorrectDirection[1] = 0;  // not answered: the report leaves it blank
  r.CorrectDistance[1] = 7;
  r.ManuallyStopped[1] = 1;
  AxisReport a;
  ASSERT_TRUE(ParseAxisReport(
      Text(Write(ReportPrefix(ReportKind::kAxis, "Y"), motion::AxisReportBody(r, 1))), a));
  EXPECT_EQ(a.problem, "");
  EXPECT_EQ(a.axis, "Y");
  const AxisDirection& neg = a.dir[0];
  EXPECT_TRUE(neg.present);
  EXPECT_FALSE(neg.voltageLimitReached);
  EXPECT_EQ(neg.linearInitial, 120);
  EXPECT_EQ(neg.linearFinal, -9880);
  EXPECT_EQ(neg.linearChange, -10000);
  EXPECT_EQ(neg.rotaryInitial, 7);
  EXPECT_EQ(neg.rotaryFinal, -40007);
  EXPECT_EQ(neg.rotaryChange, -40014);
  EXPECT_EQ(neg.startingVoltage, 2750);
  EXPECT_EQ(neg.correctDirection, true);
  EXPECT_EQ(neg.correctDistance, false);
  EXPECT_EQ(neg.manuallyStopped, false);
  const AxisDirection& pos = a.dir[1];
  EXPECT_TRUE(pos.voltageLimitReached);
  EXPECT_EQ(pos.startingVoltage, 8129);
  EXPECT_EQ(pos.correctDirection, std::nullopt);
  EXPECT_EQ(pos.manuallyStopped, true);

  ASSERT_TRUE(
      ParseAxisReport(Text(Write(ReportPrefix(ReportKind::kZoom), motion::ZoomReportBody(r))), a));
  EXPECT_EQ(a.axis, "Zoom");
  EXPECT_EQ(a.dir[0].rotaryChange, -40014);
}

TEST_F(ReportFiles, ReadsTheLimitReportAsWritten) {
  motion::LimitTestResult r;
  r.LinearLimit[0] = -150000;
  r.LinearLimit[1] = 152001;
  r.RotaryLimit[0] = -600000;
  r.RotaryLimit[1] = 608004;
  r.MinVoltage[0] = 1000;
  r.MaxVoltage[0] = 1750;
  r.MinVoltage[1] = -250;  // step-downs have no floor
  r.MaxVoltage[1] = 2000;
  r.ManuallyStopped[0] = 1;
  LimitReport l;
  ASSERT_TRUE(ParseLimitReport(
      Text(Write(ReportPrefix(ReportKind::kLimit, "X"), motion::LimitReportBody(r, 0))), l));
  EXPECT_EQ(l.problem, "");
  EXPECT_EQ(l.axis, "X");
  EXPECT_FALSE(l.voltageLimitReached);
  EXPECT_EQ(l.Travel(), 302001);
  EXPECT_EQ(l.rotaryLimit[1], 608004);
  EXPECT_EQ(l.minVoltage[0], 1000);
  EXPECT_EQ(l.maxVoltage[0], 1750);
  EXPECT_EQ(l.minVoltage[1], -250);
  EXPECT_EQ(l.maxVoltage[1], 2000);
  EXPECT_EQ(l.manuallyStopped[0], true);
  EXPECT_EQ(l.manuallyStopped[1], false);
  EXPECT_FALSE(l.centeringStopped);

  // Every optional line at once.
  r.VoltageLimitReached[0] = 1;
  r.LimitNotRegistered[0] = r.LimitNotRegistered[1] = 1;
  r.CenteringStopped = 1;
  ASSERT_TRUE(ParseLimitReport(
      Text(Write(ReportPrefix(ReportKind::kLimit, "Z"), motion::LimitReportBody(r, 2))), l));
  EXPECT_EQ(l.problem, "");
  EXPECT_EQ(l.axis, "Z");
  EXPECT_TRUE(l.voltageLimitReached);
  EXPECT_TRUE(l.limitNotRegistered[0]);
  EXPECT_TRUE(l.limitNotRegistered[1]);
  EXPECT_TRUE(l.centeringStopped);
  EXPECT_EQ(l.Travel(), 302001);
}

TEST_F(ReportFiles, ReadsTheTraceWithoutLoss) {
  std::vector<motion::TraceSample> samples;
  for (int i = 0; i < 500; ++i) {
    samples.push_back({.time = i * 0.02,
                       .bias = -250 * (i / 10),
                       .linear = 2147483647 - i,
                       .rotary = -2147483647 - 1 + i,
                       .limit = static_cast<std::int8_t>(i % 3 - 1)});
  }
  const std::string report = Write(ReportPrefix(ReportKind::kAxis, "X"), "r", samples);
  std::string bytes, reason;
  ASSERT_TRUE(
      ReadBoundedFile(report.substr(0, report.size() - 4) + ".csv", kMaxTraceBytes, bytes, reason));
  const Trace trace = ParseTrace(bytes);
  EXPECT_EQ(trace.problem, "");
  ASSERT_EQ(trace.rows.size(), samples.size());
  for (std::size_t i = 0; i < samples.size(); ++i) {
    EXPECT_EQ(trace.rows[i].timeMs, static_cast<std::int64_t>(i) * 20);
    EXPECT_EQ(trace.rows[i].bias, samples[i].bias);
    EXPECT_EQ(trace.rows[i].linear, samples[i].linear);
    EXPECT_EQ(trace.rows[i].rotary, samples[i].rotary);
    EXPECT_EQ(trace.rows[i].limit, samples[i].limit);
  }
}

TEST_F(ReportFiles, BadFilesAreReadAsFarAsTheyGo) {
  motion::AxisTestResult r;
  r.StartingVoltage[0] = 1500;
  r.StartingVoltage[1] = 1750;
  const std::string path =
      Write(ReportPrefix(ReportKind::kAxis, "Z"), motion::AxisReportBody(r, 2));
  std::string bytes, reason, problem;
  ASSERT_TRUE(ReadBoundedFile(path, kMaxReportBytes, bytes, reason));

  // Cut in the middle of a unit: what came before is read; the positive block is missing.
  const std::string cut = bytes.substr(0, bytes.size() / 4 * 2 + 1);
  AxisReport a;
  ASSERT_TRUE(ParseAxisReport(DecodeReport(cut, problem), a));
  EXPECT_EQ(problem, "truncated: odd last byte");
  EXPECT_EQ(a.dir[0].startingVoltage, 1500);
  EXPECT_FALSE(a.dir[1].present);

  // Not UTF-16 (no mark): nothing decoded, said why.
  EXPECT_EQ(DecodeReport("               Z Axis (-)\r\n", problem), "");
  EXPECT_EQ(problem, "no UTF-16 mark");
  // A lone surrogate becomes U+FFFD.
  EXPECT_EQ(DecodeReport(std::string("\xFF\xFE"
                                     "A\0\x00\xD8"
                                     "B\0",
                                     8),
                         problem),
            "A\xEF\xBF\xBD"
            "B");
  EXPECT_EQ(problem, "broken surrogate at unit 1");
  // A character beyond the first plane, as a pair.
  EXPECT_EQ(DecodeReport(std::string("\xFF\xFE\x3D\xD8\x00\xDE", 6), problem), "\xF0\x9F\x98\x80");
  EXPECT_EQ(problem, "");

  // A report of another version: the lines known are read, the first unknown is named.
  const std::string other = Text(path) + "         Firmware Build: 7\r\n";
  ASSERT_TRUE(ParseAxisReport("Report version 3\r\n" + other, a));
  EXPECT_EQ(a.problem, "line 1 not understood: Report version 3");
  EXPECT_EQ(a.dir[1].startingVoltage, 1750);
  EXPECT_FALSE(ParseAxisReport("", a));
  LimitReport l;
  EXPECT_FALSE(ParseLimitReport(other.substr(0, 0) + "garbage\r\n", l));
  EXPECT_EQ(l.problem, "line 1 not understood: garbage");
  // An axis report is not a limit report.
  EXPECT_FALSE(ParseLimitReport(Text(path), l));

  // A file above the bound is refused unread; a link is not followed.
  WriteBytes(folder_ + "/big.dat", std::string(kMaxReportBytes + 1, 'x'));
  EXPECT_FALSE(ReadBoundedFile(folder_ + "/big.dat", kMaxReportBytes, bytes, reason));
  EXPECT_EQ(reason, "file too large (1048577 bytes)");
  ASSERT_EQ(::symlink(path.c_str(), (folder_ + "/link.dat").c_str()), 0);
  EXPECT_FALSE(ReadBoundedFile(folder_ + "/link.dat", kMaxReportBytes, bytes, reason));
  EXPECT_FALSE(ReadBoundedFile(folder_, kMaxReportBytes, bytes, reason));

  // Trace rows that are not rows are skipped and the first is named.
  const Trace t = ParseTrace(
      "time,bias,linear,rotary,limit\n0.000,0,1,2,0\n0.02,1,2\n0.040,1,2,3,4,5\n"
      "x,1,2,3,4\n0.0600,1,2,3,4\n99999999999.000,1,2,3,4\n-0.020,5,6,7,-1\n");
  ASSERT_EQ(t.rows.size(), 2u);
  EXPECT_EQ(t.rows[1].timeMs, -20);
  EXPECT_EQ(t.problem, "line 3 not understood: 0.02,1,2");
  EXPECT_EQ(ParseTrace("bias,time\n1,2\n").problem, "line 1 not understood: bias,time");
  EXPECT_EQ(ParseTrace("").problem, "empty trace");
}

// A trace is read a piece at a time: lines across the pieces' edges come whole, a line longer
// than any trace's is cut, and the reader stops when told to or when the file passes its bound.
TEST_F(ReportFiles, FilesAreReadLineByLineWithinTheirBounds) {
  std::string text;
  std::vector<std::string> expected;
  for (int i = 0; text.size() < 200 * 1024; ++i) {
    expected.push_back(std::to_string(i) + std::string(static_cast<std::size_t>(i % 97), 'y'));
    text += expected.back() + (i % 2 ? "\r\n" : "\n");
  }
  expected.push_back(std::string(kMaxLineBytes, 'z'));
  text += std::string(kMaxLineBytes + 10, 'z') + "\nlast";
  expected.push_back("last");
  const std::string path = folder_ + "/t.csv";
  WriteBytes(path, text);
  std::vector<std::string> lines;
  std::string reason;
  const auto collect = [&](std::string_view line) {
    lines.emplace_back(line);
    return true;
  };
  ASSERT_TRUE(ForEachFileLine(path, kMaxTraceBytes, collect, reason)) << reason;
  EXPECT_EQ(lines, expected);

  // The reader stops at the first false.
  std::size_t calls = 0;
  EXPECT_TRUE(ForEachFileLine(
      path, kMaxTraceBytes, [&](std::string_view) { return ++calls < 3; }, reason));
  EXPECT_EQ(calls, 3u);
  // Above its bound, a link, a FIFO: refused before a line is passed.
  const struct {
    std::string path;
    std::size_t bound;
    const char* reason;
  } refused[] = {
      {path, text.size() - 1, "file too large"},
      {folder_ + "/link.csv", kMaxTraceBytes, ""},
      {folder_ + "/fifo.csv", kMaxTraceBytes, "not a plain file"},
  };
  ASSERT_EQ(::symlink(path.c_str(), (folder_ + "/link.csv").c_str()), 0);
  ASSERT_EQ(::mkfifo((folder_ + "/fifo.csv").c_str(), 0600), 0);
  for (const auto& r : refused) {
    SCOPED_TRACE(r.path);
    lines.clear();
    EXPECT_FALSE(ForEachFileLine(r.path, r.bound, collect, reason));
    EXPECT_TRUE(lines.empty());
    EXPECT_TRUE(reason.starts_with(r.reason)) << reason;
  }
}

}  // namespace
}  // namespace reports
