// The motion tests end to end: the real main dialog with its Stage page, timers and test threads,
// the simulated board's machine underneath, all in virtual time. An operator connected as a
// browser answers the start dialogs and boxes over the window's protocol and types into the page.
// Each report (and the trace beside it) is checked against what the simulated machine did.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "app/CTavroTestDlg.h"
#include "pages/Stage.h"
#include "platform/Files.h"
#include "platform/WindowProbe.h"
#include "tests/pages/PageFixture.h"
#include "tests/support/TempDirs.h"
#include "util/Text.h"

namespace {

using namespace testing_support;
using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

// A person at a browser: every box and start dialog the window opens is answered at once by
// `answer` (OK with the Standard voltage limit, Yes to every question, unless told otherwise).
class Operator final : public ui::Connection {
 public:
  struct Shown {
    std::string kind;  // "box" or "choice"
    std::string text;  // a box's text, a choice's texts joined
    std::string buttons;
  };
  // The result to give and, for a choice, the radio picked.
  using Script = std::function<std::pair<int, int>(const Shown&)>;

  explicit Operator(ui::Window& window) : window_(window) {}

  void Connect() {
    id_ = window_.Attach(std::shared_ptr<Operator>(this, [](Operator*) {}));
    Send(json{{"t", "loaded"}, {"page", 1}});
    Send(json{{"t", "shown"}, {"page", 1}});
  }
  void Send(const json& message) { window_.Receive(id_, message.dump()); }
  void SetScript(Script script) {
    std::lock_guard lock(mutex_);
    script_ = std::move(script);
  }
  std::vector<Shown> Dialogs() {
    std::lock_guard lock(mutex_);
    return shown_;
  }

  // On the UI thread, from the window's flush.
  void Send(std::shared_ptr<const std::string> message) override {
    const json m = json::parse(*message);
    if (m["t"] != "dialog" || m["kind"] == "window") return;
    Shown s{m["kind"], "", m.value("buttons", "")};
    if (s.kind == "box") {
      s.text = m["text"];
    } else {
      for (const auto& t : m["texts"])
        s.text += t.get<std::string>();
    }
    std::pair<int, int> answer;
    {
      std::lock_guard lock(mutex_);
      shown_.push_back(s);
      answer = script_ ? script_(s) : Default(s);
    }
    Send(json{
        {"t", "answer"}, {"dialog", m["id"]}, {"result", answer.first}, {"choice", answer.second}});
  }

  static std::pair<int, int> Default(const Shown& s) {
    return {s.buttons == "yesno" ? ui::kIdYes : ui::kIdOk, 0};
  }

 private:
  ui::Window& window_;
  ui::Window::ClientId id_ = 0;
  std::mutex mutex_;
  Script script_;
  std::vector<Shown> shown_;
};

// A report as text (all of it ASCII), and the numbers that follow a label in it, in order.
std::string ReadReport(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  const std::string bytes = all.str();
  if (bytes.size() < 2 || bytes[0] != '\xFF' || bytes[1] != '\xFE') return {};
  std::u16string wide;
  for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
    wide.push_back(static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                         static_cast<unsigned char>(bytes[i + 1]) << 8));
  }
  return text::ToUtf8(wide);
}

std::vector<long> NumbersAfter(const std::string& body, const std::string& label) {
  std::vector<long> out;
  for (std::size_t at = body.find(label); at != std::string::npos; at = body.find(label, at + 1)) {
    out.push_back(std::strtol(body.c_str() + at + label.size(), nullptr, 10));
  }
  return out;
}

struct TraceRow {
  double time;
  long bias, linear, rotary, limit;
};

std::vector<TraceRow> ReadTrace(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::vector<TraceRow> rows;
  if (!std::getline(in, line)) return rows;  // the header
  while (std::getline(in, line)) {
    TraceRow r{};
    char comma;
    std::istringstream fields(line);
    fields >> r.time >> comma >> r.bias >> comma >> r.linear >> comma >> r.rotary >> comma >>
        r.limit;
    if (fields) rows.push_back(r);
  }
  return rows;
}

// What differs between the two families the tests run on.
struct Family {
  const char* profile;
  unsigned axis;  // the axis of the axis test
  const char* letter;
  double rotaryPerLinear;  // rotary counts of the axis per linear count
  bool limitStartDialog;
  bool zoomTest;
  bool platen;
};

const Family kAutoVision{"autovision", 0, "X", 4000.0 / 5 / 2000, true, false, false};
// The first generation's Z starts its positive run from the axis's own bias.
const Family kServo{"servo", 2, "Z", 4000.0 / 2 / 2500, false, true, true};

class MotionAgainstSimulator : public PageFixture, public ::testing::WithParamInterface<Family> {
 protected:
  void SetUp() override {
    platform::SetProgramFolder(reports_.Path());
    platform::SetWindowProbe([](const std::string&) { return false; });
    Start(GetParam().profile);
    ui::SetMessageBoxPresenter(&window);  // the boxes go to the window, as in the program
    dlg = std::make_unique<CTavroTestDlg>(window, loop, &Servo(), version_);
    // The loop's first task runs once the modal run has made its pages and started its timers.
    std::atomic<bool> created{false};
    loop.Post([&] { created = true; });
    ui = platform::ParticipantThread([this] { dlg->DoModal(); });
    ASSERT_TRUE(Wait([&] { return created.load(); }, seconds(30)));
    op.Connect();
    ASSERT_TRUE(Wait([&] { return Page().PageReady && Page().Connected; }, seconds(1)));
    // The operator looks at the page for a moment before clicking: its 200 ms tick has read
    // the machine (the platen's switches among it).
    clock.SleepFor(milliseconds(400));
  }
  void TearDown() override {
    loop.Quit(ui::kIdCancel);
    platform::Join(ui);
    dlg.reset();
    ui::SetMessageBoxPresenter(nullptr);
    platform::SetProgramFolder("");
    platform::SetWindowProbe(nullptr);
    motion::AutoVisionTestState().Reset();
    motion::FirstGenerationTestState().Reset();
  }

  StageDlg& Page() { return dynamic_cast<StageDlg&>(*dlg->Page(1)); }
  motion::StageTestState& State() { return Page().TestState(); }
  void Click(const std::string& id) {
    op.Send(json{{"t", "event"}, {"page", 1}, {"id", id}, {"kind", "click"}});
  }
  void Type(const std::string& id, const std::string& value) {
    op.Send(json{{"t", "event"}, {"page", 1}, {"id", id}, {"kind", "change"}, {"value", value}});
  }
  // Sleeps in steps of 20 ms of machine time until `done` holds; false after `limit`.
  bool Wait(const std::function<bool()>& done, platform::Duration limit) {
    const auto end = clock.Now() + limit;
    while (!done()) {
      if (clock.Now() >= end) return false;
      clock.SleepFor(milliseconds(20));
    }
    return true;
  }
  // Clicks a test button and waits for the test to end; `during` runs every 20 ms meanwhile.
  bool RunTest(const std::string& button, platform::Duration limit = seconds(300),
               const std::function<void()>& during = {}) {
    const std::size_t asked = op.Dialogs().size();
    Click(button);
    if (!Wait([&] { return State().Running || op.Dialogs().size() > asked; }, seconds(1)))
      return false;
    return Wait(
        [&] {
          if (during) during();
          return !State().Running;
        },
        limit);
  }
  // The simulated machine's own word on an axis: "counts", "pos", "moving", "limit", ...
  std::string SimField(const std::string& axis, const std::string& field) {
    const std::string line = board_->Command("axis " + axis);
    const auto at = line.find(" " + field + "=");
    if (at == std::string::npos) return "?";
    const auto from = at + field.size() + 2;
    return line.substr(from, line.find(' ', from) - from);
  }
  double Sim(const std::string& axis, const std::string& field) {
    return std::strtod(SimField(axis, field).c_str(), nullptr);
  }
  std::string Report(const std::string& name) { return ReadReport(reports_ / name); }
  // Every stage axis is back under its own tuning: no motor is left driven open loop.
  void ExpectEveryAxisHandedBack() {
    for (std::uint16_t axis = 0; axis < 4; ++axis) {
      AxisPid pid;
      ASSERT_TRUE(Servo().GetAxisPid(axis, pid));
      EXPECT_TRUE(pid.Kp != 0 || pid.Ki != 0 || pid.Kd != 0) << "axis " << axis;
    }
  }

  ScratchDir reports_;
  platform::TaskLoop loop;
  ui::Window window{loop};
  Operator op{window};
  std::unique_ptr<CTavroTestDlg> dlg;
  std::thread ui;
};

TEST_P(MotionAgainstSimulator, AxisTestMovesAboutTenMillimetresEachWayAsTheReportAndTraceSay) {
  const Family& f = GetParam();
  const std::string axis = f.letter == std::string("X") ? "x" : "z";
  const std::int32_t k = Page().CountsPerMm(f.axis);
  ASSERT_GT(k, 0);
  const double startCounts = Sim(axis, "counts");
  ASSERT_TRUE(RunTest(std::string(f.letter) + "AxisTest"));

  const std::string name = std::string("AxisTest_") + f.letter + "_0";
  const std::string body = Report(name + ".dat");
  ASSERT_FALSE(body.empty());
  const auto initial = NumbersAfter(body, "Initial: ");
  const auto final = NumbersAfter(body, "Final: ");
  const auto change = NumbersAfter(body, "Change: ");
  ASSERT_EQ(change.size(), 4u);  // linear and rotary, negative and positive
  // The ramp stops at the first sample beyond 10 mm; the start dialog promises 10-15 mm.
  EXPECT_LT(change[0], -10 * k);
  EXPECT_GT(change[0], -15 * k);
  EXPECT_GT(change[2], 10 * k);
  EXPECT_LT(change[2], 15 * k);
  // Both encoders saw the same move through the screw.
  EXPECT_NEAR(change[1], change[0] * f.rotaryPerLinear, 0.01 * 10 * k);
  EXPECT_NEAR(change[3], change[2] * f.rotaryPerLinear, 0.01 * 10 * k);
  EXPECT_NEAR(initial[0], startCounts, k / 100.0);
  // Handed back, the axis coasts to rest within a tenth of a millimetre.
  ASSERT_TRUE(Wait([&] { return Sim(axis, "moving") == 0; }, seconds(3)));
  EXPECT_NEAR(final[2], Sim(axis, "counts"), k / 10.0) << "the machine stands where reported";
  const auto volts = NumbersAfter(body, "Starting Voltage: ");
  ASSERT_EQ(volts.size(), 2u);
  EXPECT_GT(volts[0], 200) << "beyond the dead band";
  EXPECT_EQ(body.find("VOLTAGE LIMIT"), std::string::npos);
  EXPECT_EQ(NumbersAfter(body, "Manually Stopped: No").size(), 2u);
  EXPECT_EQ(NumbersAfter(body, "Correct Distance: Yes").size(), 2u);
  ExpectEveryAxisHandedBack();

  // The trace: 20 ms rows, the negative drive before the positive, the axis never out of the
  // range it travelled.
  const auto rows = ReadTrace(reports_ / (name + ".csv"));
  ASSERT_GT(rows.size(), 100u);
  std::size_t lastNegative = 0, firstPositive = rows.size();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (i > 0) {
      EXPECT_NEAR(rows[i].time - rows[i - 1].time, 0.02, 0.0015) << i;
    }
    if (rows[i].bias < -200) lastNegative = i;
    if (rows[i].bias > 200 && firstPositive == rows.size()) firstPositive = i;
    EXPECT_NEAR(rows[i].linear, startCounts, 16.0 * k) << "row " << i;
  }
  EXPECT_LT(lastNegative, firstPositive);
  EXPECT_LT(firstPositive, rows.size());
}

TEST_P(MotionAgainstSimulator, AnEStopMidRampEndsEachRunAsAManualStop) {
  const Family& f = GetParam();
  const std::string axis = f.letter == std::string("X") ? "x" : "z";
  const std::int32_t k = Page().CountsPerMm(f.axis);
  bool pressed = false;
  ASSERT_TRUE(RunTest(std::string(f.letter) + "AxisTest", seconds(300), [&] {
    if (!pressed && Sim(axis, "moving") == 1) {
      pressed = true;
      Control("estop on");
    }
  }));
  ASSERT_TRUE(pressed);
  const std::string body = Report(std::string("AxisTest_") + f.letter + "_0.dat");
  const auto change = NumbersAfter(body, "Change: ");
  ASSERT_EQ(change.size(), 4u);
  EXPECT_GT(change[0], -2 * k) << "stopped soon after it began to move";
  EXPECT_EQ(change[2], 0) << "the e-stop still stands: the positive run stops at its first look";
  EXPECT_EQ(NumbersAfter(body, "Manually Stopped: Yes").size(), 2u);
  EXPECT_EQ(body.find("VOLTAGE LIMIT"), std::string::npos);
  Control("estop off");
  ExpectEveryAxisHandedBack();
}

// The board goes away while the bias climbs: the position the test sees freezes, so the ramp
// climbs on to its limit and the operator is warned; the window goes on (the UI thread never
// waits for the test) and the test still ends with its report.
TEST_P(MotionAgainstSimulator, ALinkLostMidRampClimbsToTheLimitAndWarns) {
  const Family& f = GetParam();
  const std::string axis = f.letter == std::string("X") ? "x" : "z";
  bool unplugged = false;
  ASSERT_TRUE(RunTest(std::string(f.letter) + "AxisTest", seconds(600), [&] {
    if (!unplugged && Sim(axis, "moving") == 1) {
      unplugged = true;
      Control("unplug");
    }
  }));
  ASSERT_TRUE(unplugged);
  const auto shown = op.Dialogs();
  EXPECT_TRUE(std::any_of(shown.begin(), shown.end(), [](const Operator::Shown& s) {
    return s.text.find("VOLTAGE LIMIT REACHED") != std::string::npos;
  })) << "the operator is warned";
  const std::string body = Report(std::string("AxisTest_") + f.letter + "_0.dat");
  ASSERT_FALSE(body.empty());
  EXPECT_NE(body.find("VOLTAGE LIMIT"), std::string::npos) << body;
  Control("replug");
}

TEST_P(MotionAgainstSimulator, LimitTestFindsTheSwitchesWhereTheExtentsPutThemAndCentres) {
  const Family& f = GetParam();
  const std::int32_t k = Page().CountsPerMm(1);
  const AxisExtents extents = Page().Extents();
  // The switches sit a millimetre outside the expected limits.
  const long negative = static_cast<std::int32_t>(extents.Extent3[1]) - k;
  const long positive = static_cast<std::int32_t>(extents.Extent4[1]) + k;
  ASSERT_TRUE(RunTest("YLimitTest"));

  const std::string body = Report("LimitTest_Y_0.dat");
  ASSERT_FALSE(body.empty());
  EXPECT_EQ(body.find("DIDN'T REGISTER"), std::string::npos);
  EXPECT_EQ(body.find("VOLTAGE LIMIT"), std::string::npos);
  const auto limits = NumbersAfter(body, "tive: ");  // Negative, Positive; linear then rotary
  ASSERT_GE(limits.size(), 4u);
  EXPECT_NEAR(limits[0], negative, k / 10.0);
  EXPECT_NEAR(limits[1], positive, k / 10.0);
  EXPECT_NEAR(limits[3] - limits[2], (positive - negative) * 4000.0 / 5 / k, 40);
  for (long v : NumbersAfter(body, "Min: "))
    EXPECT_GT(v, 200) << "moving voltages";
  {
    std::string keep = reports_ / "LimitTest_Y_0.csv";
    std::system(("cp '" + keep + "' /tmp/limit_servo.csv").c_str());
    std::fprintf(stderr, "REPORT %s\n", body.c_str());
  }
  // Centred: back near the middle of the travel, with its own tuning in force.
  EXPECT_NEAR(Sim("y", "counts"), (negative + positive) / 2.0, 10.0 * k);
  EXPECT_EQ(SimField("y", "limit"), "none");
  ExpectEveryAxisHandedBack();
  const auto choices = op.Dialogs();
  ASSERT_FALSE(choices.empty());
  EXPECT_EQ(choices.front().kind == "choice", f.limitStartDialog);
  EXPECT_EQ(choices.back().text.rfind("Y Axis Limits", 0), 0u) << choices.back().text;
}

TEST_P(MotionAgainstSimulator, AnAxisStalledShortOfItsSwitchEndsItsSeekThereAndSaysSo) {
  const std::int32_t k = Page().CountsPerMm(1);
  Control("stall y 30");  // the axis stands at 100 mm: the obstacle is met going down
  ASSERT_TRUE(RunTest("YLimitTest"));
  const std::string body = Report("LimitTest_Y_0.dat");
  ASSERT_FALSE(body.empty());
  EXPECT_NE(body.find("DIDN'T REGISTER HITTING NEGATIVE LIMIT"), std::string::npos) << body;
  EXPECT_EQ(body.find("DIDN'T REGISTER HITTING POSITIVE LIMIT"), std::string::npos);
  const auto limits = NumbersAfter(body, "tive: ");
  ASSERT_GE(limits.size(), 2u);
  EXPECT_NEAR(limits[0], 30.0 * k, k / 10.0) << "where the obstacle stood";
  EXPECT_NEAR(limits[1], static_cast<std::int32_t>(Page().Extents().Extent4[1]) + k, k / 10.0);
  ExpectEveryAxisHandedBack();
}

TEST_P(MotionAgainstSimulator, PlatenCyclesAreCountedAndAStuckPlatenFailsItsCycle) {
  const Family& f = GetParam();
  const std::uint32_t movesBefore = board_->TrafficSeen().commands[0x4C];
  Type("PlatenCount", "3");
  ASSERT_TRUE(RunTest("PlatenTest"));
  if (!f.platen) {
    ASSERT_EQ(op.Dialogs().size(), 1u);
    EXPECT_EQ(op.Dialogs()[0].text, "Platen is not connected to the machine.");
    EXPECT_FALSE(platform::FileExists(reports_ / "PlatenTest_0.dat"));
    return;
  }
  EXPECT_EQ(board_->TrafficSeen().commands[0x4C] - movesBefore, 6u) << "three cycles, two moves";
  std::string body = Report("PlatenTest_0.dat");
  EXPECT_EQ(body.rfind("Platen test completed cycle 3.\r\n", 0), 0u) << body;
  const auto open = NumbersAfter(body, "Max: ");
  ASSERT_EQ(open.size(), 2u);
  EXPECT_NEAR(open[0], 80 * 500, 50) << "80 mm at 500 counts a mm";
  EXPECT_NEAR(open[1], 0, 50);
  EXPECT_NE(body.find("\r\n3\t"), std::string::npos);
  EXPECT_EQ(body.find("\r\n4\t"), std::string::npos);
  EXPECT_EQ(body.find("50000"), std::string::npos) << "every end was measured";
  EXPECT_EQ(SimField("platen", "limit"), "low") << "a completed test ends closed";

  // Stuck half way through the second opening: that cycle fails, its row has no closed end.
  const std::uint32_t second = board_->TrafficSeen().commands[0x4C] + 3;
  bool stuck = false;
  ASSERT_TRUE(RunTest("PlatenTest", seconds(300), [&] {
    if (!stuck && board_->TrafficSeen().commands[0x4C] >= second) {
      clock.SleepFor(milliseconds(1000));
      stuck = true;
      Control("platen stick");
    }
  }));
  body = Report("PlatenTest_1.dat");
  EXPECT_EQ(body.rfind("Platen test failed in the middle of cycle 2.\r\n", 0), 0u) << body;
  EXPECT_NE(body.find("\r\n2\t"), std::string::npos);
  const auto lastRow = body.substr(body.find("\r\n2\t") + 2);
  EXPECT_EQ(std::count(lastRow.begin(), lastRow.end(), '\t'), 1) << lastRow;
  EXPECT_EQ(op.Dialogs().back().text.rfind("Platen test failed in the middle of cycle 2.", 0), 0u);
  Control("platen free");
}

TEST_P(MotionAgainstSimulator, TheZoomTestRunsOnlyWhereThePageHasIt) {
  const Family& f = GetParam();
  if (!f.zoomTest) {
    Click("ZoomAxisTest");
    EXPECT_FALSE(Wait([&] { return State().Running != 0; }, seconds(1)));
    EXPECT_TRUE(op.Dialogs().empty());
    return;
  }
  const double start = Sim("zoom", "counts");
  ASSERT_TRUE(RunTest("ZoomAxisTest"));
  const std::string body = Report("AxisTest_Zoom_0.dat");
  const auto change = NumbersAfter(body, "Change: ");
  ASSERT_EQ(change.size(), 2u);
  // 3000 counts is the target; the start dialog promises 3000-4000.
  EXPECT_LT(change[0], -3000);
  EXPECT_GT(change[0], -4000);
  EXPECT_GT(change[1], 3000);
  EXPECT_LT(change[1], 4000);
  EXPECT_NEAR(Sim("zoom", "counts"), start + change[0] + change[1], 5);
  const auto shown = op.Dialogs();
  bool askedNegative = false;
  for (const auto& d : shown)
    askedNegative |=
        d.text.find("the NEGATIVE (lower magnification) direction.") != std::string::npos;
  EXPECT_TRUE(askedNegative);
  ExpectEveryAxisHandedBack();
}

INSTANTIATE_TEST_SUITE_P(Families, MotionAgainstSimulator, ::testing::Values(kAutoVision, kServo),
                         [](const auto& test) { return std::string(test.param.profile); });

}  // namespace
