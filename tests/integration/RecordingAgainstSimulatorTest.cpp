// The recorder in the running program: the real main dialog and its pages against the simulated
// board in virtual time, a browser showing the pages, and the recorder's routes on the real web
// server. What the pages record must be what the board did, where the window shows it, within
// the budget the page plan sized; the marks must tell what happened to the link and the tests.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "motion/StageTest.h"
#include "pages/CTabDlg.h"
#include "recorder/Export.h"
#include "recorder/PagePlan.h"
#include "tests/integration/DialogRig.h"
#include "tests/ui/WsClient.h"
#include "ui/MessageBox.h"
#include "ui/WebServer.h"
#include "util/Query.h"

namespace {

using namespace testing_support;
using nlohmann::json;
using recorder::EventKind;
using std::chrono::milliseconds;
using std::chrono::seconds;

struct Family {
  const char* profile;
  bool manualVision;
  std::vector<std::string> titles;  // the tabs in order
};

// The most light channels the page plan must hold: more than the page drives.
const Family kAutoVision{
    "autovision-48",
    false,
    {"Board Information", "Stage", "Pendant", "Lights", "Readings", "Probes", "Diag Output"}};
const Family kServo{
    "servo", false, {"Board Information", "Stage", "Pendant", "Lights", "Probes", "Diag Output"}};
const Family kManualVision{
    "manualvision",
    true,
    {"Board Information", "Stage", "Lights", "Readings", "Probes", "Diag Output"}};

class RecordingAgainstSimulator : public DialogRig {
 protected:
  void Open(const Family& family) {
    OpenDialog(family.profile, family.manualVision);
    op.Connect();
    for (int page = 0; page < dlg->PageCount(); ++page)
      op.Load(page);
    op.Show(1);
  }
  void TearDown() override {
    server.Stop();
    DialogRig::TearDown();
  }

  bool Connected() {
    bool connected = false;
    OnUi([&] { connected = dlg->IsConnected(); });
    return connected;
  }
  std::vector<recorder::Event> Events() {
    return dlg->Recording().Events(0, std::numeric_limits<recorder::TimeUs>::max());
  }
  // A GET of the routes over the real server.
  std::string Get(const std::string& pathAndQuery) {
    if (!serving) {
      server.SetApi(dlg->Api());
      serving = server.Start(0);
    }
    const char sep = pathAndQuery.find('?') == std::string::npos ? '?' : '&';
    return HttpExchange(server.Port(), "GET " + pathAndQuery + sep + "token=" + server.Token() +
                                           " HTTP/1.0\r\nHost: 127.0.0.1:" +
                                           std::to_string(server.Port()) + "\r\n\r\n");
  }
  static std::string Body(const std::string& response) {
    const auto at = response.find("\r\n\r\n");
    return at == std::string::npos ? std::string() : response.substr(at + 4);
  }
  ui::WebServer server{window, {}};
  bool serving = false;
};

class RecordingOfEveryFamily : public RecordingAgainstSimulator,
                               public ::testing::WithParamInterface<const Family*> {};

// Every page's channels: where the window shows them, and together within the plan the budget
// was sized by (no more channels of a rate and kind than the plan has).
TEST_P(RecordingOfEveryFamily, ChannelsAreShownWhereTheySayAndFitThePlan) {
  const Family& family = *GetParam();
  Open(family);
  ASSERT_EQ(dlg->PageCount(), static_cast<int>(family.titles.size()));
  std::vector<recorder::ChannelInfo> channels;
  std::vector<std::set<std::string>> ids(family.titles.size());
  OnUi([&] {
    channels = dlg->Recording().Channels();
    for (std::size_t tab = 0; tab < ids.size(); ++tab) {
      for (const auto& [id, state] : dlg->Page(static_cast<int>(tab))->Doc().Snapshot().elements)
        ids[tab].insert(id);
    }
  });
  EXPECT_GE(channels.size(), &family == &kAutoVision ? 130u : 30u);
  std::map<std::pair<std::uint32_t, recorder::ValueKind>, unsigned> used, planned;
  for (const recorder::PlannedChannels& p : recorder::kPagePlan)
    planned[{p.rateMs, p.kind}] += p.count;
  for (const recorder::ChannelInfo& c : channels) {
    SCOPED_TRACE(c.name);
    ++used[{c.rateMs, c.kind}];
    const auto tab = std::find(family.titles.begin(), family.titles.end(), c.page);
    ASSERT_NE(tab, family.titles.end()) << c.page;
    if (c.name == "motion.Bias") continue;  // no element shows it
    EXPECT_TRUE(ids[static_cast<std::size_t>(tab - family.titles.begin())].count(c.element))
        << c.page << " has no element " << c.element;
  }
  for (const auto& [key, count] : used) {
    EXPECT_LE(count, planned[key]) << "rate " << key.first << " kind " << int(key.second);
  }
  EXPECT_LE(dlg->Recording().BytesUsed(),
            recorder::PlanBytes(dlg->Recording().Limits(), recorder::kPagePlan));
}

INSTANTIATE_TEST_SUITE_P(Families, RecordingOfEveryFamily,
                         ::testing::Values(&kAutoVision, &kServo, &kManualVision),
                         [](const auto& param) {
                           std::string name = param.param->profile;
                           name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                           return name;
                         });

// Positions the simulator reports come out of /export at the poll's rate, over the real server.
TEST_F(RecordingAgainstSimulator, AnAxisMovedOnTheBoardShowsInTheExportWhereTheBoardPutIt) {
  Open(kAutoVision);
  // Times on the recorder's axis: virtual time goes on while the server answers in real time.
  const std::string from = query::FormatTime(dlg->RunNow());
  std::vector<long> placed;
  for (const char* mm : {"20", "60.5", "35"}) {
    Control(std::string("place x ") + mm);
    placed.push_back(static_cast<long>(Sim("x", "counts")));
    clock.SleepFor(seconds(1));
  }
  const std::string to = query::FormatTime(dlg->RunNow());
  const std::string response =
      Get("/export?channels=status.LinearPosition.X&from=" + from + "&to=" + to);
  ASSERT_EQ(response.substr(0, 15), "HTTP/1.0 200 OK");
  std::istringstream rows(Body(response));
  std::string line;
  std::getline(rows, line);
  EXPECT_EQ(line, "time,status.LinearPosition.X");
  // Each position the board reported, in the order it was put there, each for about a second
  // of 50 ms polls.
  std::vector<long> seen;
  std::vector<int> runs;
  double previous = 0;
  while (std::getline(rows, line)) {
    const auto comma = line.find(',');
    ASSERT_NE(comma, std::string::npos) << line;
    const double time = std::stod(line.substr(0, comma));
    if (previous > 0) {
      EXPECT_NEAR(time - previous, 0.05, 0.001) << line;
    }
    previous = time;
    const long value = std::stol(line.substr(comma + 1));
    if (seen.empty() || seen.back() != value) {
      seen.push_back(value);
      runs.push_back(0);
    }
    ++runs.back();
  }
  ASSERT_GE(seen.size(), 3u);
  EXPECT_EQ(std::vector<long>(seen.end() - 3, seen.end()), placed);
  EXPECT_NEAR(runs[runs.size() - 2], 20, 1);
  EXPECT_NEAR(runs.back(), 20, 1);

  // The same channel as JSON over the route.
  const json j = json::parse(
      Body(Get("/export?channels=status.LinearPosition.X&format=json&from=" + from + "&to=" + to)));
  EXPECT_EQ(j["columns"], json({"time", "status.LinearPosition.X"}));
  ASSERT_FALSE(j["rows"].empty());
  EXPECT_EQ(j["rows"].back()[1], placed.back());
  // /channels lists it where the Stage page shows it.
  const json list = json::parse(Body(Get("/channels")));
  const auto x = std::find_if(list.begin(), list.end(),
                              [](const json& c) { return c["name"] == "status.LinearPosition.X"; });
  ASSERT_NE(x, list.end());
  EXPECT_EQ((*x)["page"], "Stage");
  EXPECT_EQ((*x)["element"], "LinearX");
  EXPECT_EQ((*x)["rate_ms"], 50);
}

// The link lost and back, an e-stop, a test with its operator's answer and its report: marked in
// the order they happened, and served by /events.
TEST_F(RecordingAgainstSimulator, MarksTellWhatHappenedToTheLinkTheMachineAndTheTests) {
  Open(kAutoVision);
  clock.SleepFor(milliseconds(400));
  Control("unplug");
  ASSERT_TRUE(Wait([&] { return !Connected(); }, seconds(1)));
  Control("replug");
  ASSERT_TRUE(Wait([&] { return Connected(); }, seconds(3)));
  Control("estop on");
  clock.SleepFor(milliseconds(200));
  Control("estop off");
  clock.SleepFor(milliseconds(400));

  const std::size_t before = Events().size();
  op.Click(1, "XAxisTest");
  ASSERT_TRUE(Wait([&] { return motion::AutoVisionTestState().Running != 0; }, seconds(1)));
  ASSERT_TRUE(Wait([&] { return motion::AutoVisionTestState().Running == 0; }, seconds(300)));
  clock.SleepFor(milliseconds(100));

  std::vector<std::pair<std::string, std::string>> marks;
  for (const recorder::Event& e : Events())
    marks.emplace_back(recorder::EventName(e.kind), e.text);
  ASSERT_GE(marks.size(), before + 3);
  EXPECT_EQ(std::vector(marks.begin(), marks.begin() + 4),
            (std::vector<std::pair<std::string, std::string>>{
                {"link-lost", ""}, {"link-back", ""}, {"estop-on", ""}, {"estop-off", ""}}));
  EXPECT_EQ(marks[before], std::make_pair(std::string("test-started"), std::string("X Axis Test")));
  EXPECT_EQ(marks.back(), std::make_pair(std::string("test-ended"), std::string("AxisTest_X_0")));
  // The start dialog's OK and the voltage picked, between the two.
  EXPECT_EQ(marks[before + 1].first, "answer");
  EXPECT_EQ(marks[before + 1].second.substr(0, 4), "OK: ");

  // The run's bias on the 20 ms tick: driven both ways.
  const std::string csv =
      Body(Get("/export?channels=motion.Bias&to=" + query::FormatTime(dlg->RunNow())));
  long lowest = 0, highest = 0;
  std::istringstream rows(csv);
  std::string line;
  std::getline(rows, line);
  while (std::getline(rows, line)) {
    const std::string value = line.substr(line.find(',') + 1);
    if (value.empty()) continue;
    lowest = std::min(lowest, std::stol(value));
    highest = std::max(highest, std::stol(value));
  }
  EXPECT_LT(lowest, -200);
  EXPECT_GT(highest, 200);

  const json events =
      json::parse(Body(Get("/events?from=0&to=" + query::FormatTime(dlg->RunNow()))));
  ASSERT_EQ(events["events"].size(), marks.size());
  // Scripts get the kinds as one word each.
  EXPECT_EQ(events["events"][2]["kind"], "estop-on");
  EXPECT_EQ(events["events"].back()["kind"], "test-ended");
  EXPECT_EQ(events["events"].back()["text"], "AxisTest_X_0");
}

}  // namespace
