// The recorder's and the report viewer's routes as the web server calls them, without a socket:
// what each answers to good and bad queries, and that a report's download is the file as stored
// and never what a link put in its place points at.
#include "app/RecorderApi.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "motion/Reports.h"
#include "tests/support/TempDirs.h"

namespace {

using nlohmann::json;
using testing_support::ScratchDir;

struct Reply final : ui::HttpReply {
  void Head(int s, std::string_view t, std::string_view a) override {
    if (headed) return;
    headed = true;
    status = s;
    type = t;
    attachment = a;
  }
  bool Write(std::string_view chunk) override {
    body.append(chunk);
    ++chunks;
    return chunks < stopAfter;
  }
  bool headed = false;
  int status = 200;
  std::string type = "application/json", attachment, body;
  int chunks = 0;
  int stopAfter = 1 << 30;
};

std::string FileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  return all.str();
}

class RecorderApiTest : public ::testing::Test {
 protected:
  RecorderApiTest() {
    x = recorder->AddChannel({.name = "status.LinearPosition.X",
                              .unit = "counts",
                              .rateMs = 50,
                              .page = "Stage",
                              .element = "LinearX"});
  }
  Reply Ask(std::string_view path, std::string_view query) {
    Reply reply;
    api.Answer(path, query, reply);
    return reply;
  }

  ScratchDir folder;
  std::shared_ptr<recorder::Recorder> recorder = std::make_shared<recorder::Recorder>();
  recorder::RunTime time;
  RecorderApi api{recorder, time, folder.Path() + "/"};
  recorder::ChannelId x = recorder::kNoChannel;
};

TEST_F(RecorderApiTest, RoutesAreQuickFromMemoryAndLongFromFilesOrStreams) {
  EXPECT_EQ(api.Route("/channels"), ui::HttpRoute::kQuick);
  EXPECT_EQ(api.Route("/events"), ui::HttpRoute::kQuick);
  for (const char* path : {"/export", "/reports", "/report", "/report-file", "/history"})
    EXPECT_EQ(api.Route(path), ui::HttpRoute::kLong) << path;
  for (const char* path : {"/", "/shell.html", "/channels/", "/Export"})
    EXPECT_EQ(api.Route(path), ui::HttpRoute::kNone) << path;
}

TEST_F(RecorderApiTest, BadQueriesAre400WithTheirReasonAndUnknownNames404) {
  struct Case {
    const char* path;
    const char* query;
    int status;
    const char* reason;
  };
  const Case cases[] = {
      {"/export", "token=t", 400, "no channels named\n"},
      {"/export", "channels=nope", 400, "unknown channel: nope\n"},
      {"/events", "from=yesterday", 400, "bad time in from: yesterday\n"},
      {"/events", "from=5&to=4", 400, "from is after to\n"},
      {"/events", "to=%zz", 400, "bad escape in to\n"},
      {"/report", "token=t", 400, "no report named\n"},
      {"/report", "name=%2e%2e%2fetc%2fpasswd", 404, "no such report: ../etc/passwd\n"},
      {"/report-file", "name=AxisTest_X_0&ext=exe", 400, "ext must be dat or csv\n"},
      {"/report-file", "ext=dat", 400, "no report named\n"},
      {"/report-file", "name=AxisTest_X_9&ext=dat", 404, "no such file: AxisTest_X_9.dat\n"},
  };
  for (const Case& c : cases) {
    const Reply r = Ask(c.path, c.query);
    EXPECT_EQ(r.status, c.status) << c.path << "?" << c.query;
    EXPECT_EQ(r.body, c.reason) << c.path << "?" << c.query;
    EXPECT_EQ(r.type, "text/plain; charset=utf-8");
  }
}

TEST_F(RecorderApiTest, ChannelsAndEventsAreValidJsonWithScriptsKindNames) {
  const json channels = json::parse(Ask("/channels", "").body);
  ASSERT_EQ(channels.size(), 1u);
  EXPECT_EQ(channels[0]["element"], "LinearX");

  const recorder::TimeUs now = time.Now();
  recorder->Mark(recorder::EventKind::kEStopOn, now - 5'000'000);
  recorder->Mark(recorder::EventKind::kTestEnded, now - 2'000'000, "AxisTest_X_0\"\n");
  recorder->Mark(recorder::EventKind::kLinkLost, now - 1'000'000);
  const json all = json::parse(Ask("/events", "token=t").body);
  ASSERT_EQ(all["events"].size(), 3u);
  EXPECT_EQ(all["events"][0]["kind"], "estop-on");
  EXPECT_EQ(all["events"][1]["kind"], "test-ended");
  EXPECT_EQ(all["events"][1]["text"], "AxisTest_X_0\"\n");
  EXPECT_EQ(all["events"][2]["kind"], "link-lost");
  // A negative start counts back from now.
  const json recent = json::parse(Ask("/events", "from=-3").body);
  ASSERT_EQ(recent["events"].size(), 2u);
  EXPECT_EQ(recent["events"][0]["kind"], "test-ended");
}

TEST_F(RecorderApiTest, AReportFileIsItsBytesAndALinkInItsPlaceIsNotFollowed) {
  std::vector<motion::TraceSample> samples(20000, {.bias = 250, .linear = 7});
  for (std::size_t i = 0; i < samples.size(); ++i)
    samples[i].time = 0.02 * static_cast<double>(i);
  const motion::ReportOutcome report =
      motion::WriteReportFiles(folder.Path() + "/", "AxisTest_X_", "Axis: X\r\nTest\r\n", samples);
  ASSERT_TRUE(report.traceWritten) << report.reason;

  Reply dat = Ask("/report-file", "name=AxisTest_X_0&ext=dat&token=t");
  EXPECT_EQ(dat.status, 200);
  EXPECT_EQ(dat.attachment, "AxisTest_X_0.dat");
  EXPECT_EQ(dat.body, FileBytes(report.path));
  const Reply csv = Ask("/report-file", "name=AxisTest_X_0&ext=csv");
  EXPECT_EQ(csv.type, "text/csv");
  EXPECT_EQ(csv.body, FileBytes(folder / "AxisTest_X_0.csv"));

  // A download closed after the first chunk reads no further.
  Reply stopped;
  stopped.stopAfter = 1;
  api.Answer("/report-file", "name=AxisTest_X_0&ext=csv", stopped);
  ASSERT_GT(csv.chunks, 2);
  EXPECT_EQ(stopped.chunks, 1);

  // Another local user swaps the trace for a link to a file of ours.
  const std::string secret = folder / "secret.txt";
  std::ofstream(secret) << "not yours\n";
  ASSERT_EQ(::unlink((folder / "AxisTest_X_0.csv").c_str()), 0);
  ASSERT_EQ(::symlink(secret.c_str(), (folder / "AxisTest_X_0.csv").c_str()), 0);
  const Reply linked = Ask("/report-file", "name=AxisTest_X_0&ext=csv");
  EXPECT_EQ(linked.status, 404);
  EXPECT_EQ(linked.body.find("not yours"), std::string::npos);
}

}  // namespace
