// One operator at a time, at the window: which tab holds control, what the others may still do,
// taking over, and how control ends (the test ends, its holder goes).
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/ui/UiFixture.h"
#include "ui/Window.h"

namespace testing_support {
namespace {

constexpr const char* kTabA = "0f4c2a9e-a-tab";
constexpr const char* kTabB = "7d1e55b0-b-tab";

// Two tabs on a window whose first page starts a test on "Start"; "Light" acts on the machine
// too, "Stop" is a STOP that nobody may be refused.
class ControlTest : public WindowFixture {
 protected:
  struct Tab {
    ui::Window::ClientId id = 0;
    std::shared_ptr<FakeBrowser> browser;
  };

  ControlTest() {
    window.SetRunningTestQuery([this] { return running; });
    first.Events().OnClick("Start", [this](const ui::Event&) {
      if (running.empty()) running = "X Axis Test";
      calls.push_back("Start");
    });
    first.Events().OnChange("Light", [this](const ui::Event&) { calls.push_back("Light"); });
    first.Events().OnClick(
        "Stop", [this](const ui::Event&) { calls.push_back("Stop"); }, ui::From::kAnyone);
    window.SetStopHandler([this] { calls.push_back("STOP"); });
  }

  Tab Open(const char* tabId) {
    Tab tab;
    tab.browser = Connect(&tab.id);
    Receive(tab.id, tabId ? json{{"t", "hello"}, {"tab", tabId}} : json{{"t", "beat"}});
    OnUi();
    return tab;
  }

  // The last control message a tab was sent, as "state test".
  static std::string ControlOf(const Tab& tab) {
    const auto all = tab.browser->OfType("control");
    if (all.empty()) return "none sent";
    const json& last = all.back();
    return last["state"].get<std::string>() + " " + last["test"].get<std::string>();
  }

  void Click(const Tab& tab, const char* id, const char* kind = "click") {
    Receive(tab.id, {{"t", "event"}, {"page", 0}, {"id", id}, {"kind", kind}});
    OnUi();
  }

  // A test's question on a worker thread, as the motion tests ask theirs.
  void AskFromTest(std::atomic<int>& result) {
    worker = platform::ParticipantThread([this, &result] {
      result = window.Show("Did the machine move correctly?", "TavroTest", ui::kMbYesNo);
      clock.NotifyAll();
    });
  }

  // `a` starts the test, which asks its question; the question's dialog id as `b` was told it.
  int StartAndAsk(const Tab& a, const Tab& b, std::atomic<int>& result) {
    Click(a, "Start");
    AskFromTest(result);
    return b.browser->WaitFor("dialog")["id"];
  }

  void EndTest() {
    OnUi([this] {
      running.clear();
      window.SetStopControl("");
    });
  }

  ~ControlTest() override {
    window.Shutdown();
    if (worker.joinable()) platform::Join(worker);
  }

  std::string running;  // UI thread
  std::vector<std::string> calls;
  std::thread worker;
};

TEST_F(ControlTest, TheTabWhoseClickStartsATestHoldsControlUntilTheTestEnds) {
  Tab a = Open(kTabA);
  Tab b = Open(kTabB);
  EXPECT_EQ(ControlOf(a), "free ");
  EXPECT_EQ(ControlOf(b), "free ");

  Click(a, "Start");
  EXPECT_EQ(window.ControlHolder(), kTabA);
  EXPECT_EQ(ControlOf(a), "yours X Axis Test");
  EXPECT_EQ(ControlOf(b), "other X Axis Test");
  Tab late = Open(nullptr);
  EXPECT_EQ(ControlOf(late), "other X Axis Test") << "a tab that comes later is told at once";

  EndTest();
  EXPECT_EQ(window.ControlHolder(), "");
  EXPECT_EQ(ControlOf(a), "free ");
  EXPECT_EQ(ControlOf(b), "free ");
  Click(b, "Start");
  EXPECT_EQ(window.ControlHolder(), kTabB) << "any tab may start the next test";
  EXPECT_EQ(ControlOf(a), "other X Axis Test");
}

// While A runs a test, each input of B's either acts or is refused, and a refused one is told
// with the test's name and changes nothing.
TEST_F(ControlTest, AWatcherMayStopButNotActOrAnswerTheTestsQuestions) {
  Tab a = Open(kTabA);
  Tab b = Open(kTabB);
  std::atomic<int> answer{0};
  const int box = StartAndAsk(a, b, answer);
  OnUi([this] { window.ShowBoxAsync("Just a notice", "TavroTest", ui::kMbOk, {}); });
  const int notice = b.browser->OfType("dialog").back()["id"];
  OnUi([this] { window.SetStopControl("X Axis Test"); });
  calls.clear();

  struct Step {
    const char* what;
    json message;
    bool refused;
    const char* call;  // what ran, "" nothing
  };
  const Step steps[] = {
      {"a test button",
       {{"t", "event"}, {"page", 0}, {"id", "Start"}, {"kind", "click"}},
       true,
       ""},
      {"a change that acts",
       {{"t", "event"}, {"page", 0}, {"id", "Light"}, {"kind", "change"}, {"value", "9"}},
       true,
       ""},
      {"the page's STOP",
       {{"t", "event"}, {"page", 0}, {"id", "Stop"}, {"kind", "click"}},
       false,
       "Stop"},
      {"the title bar's STOP",
       {{"t", "event"}, {"page", -1}, {"id", "stop-test"}, {"kind", "click"}},
       false,
       "STOP"},
      {"the test's question", {{"t", "answer"}, {"dialog", box}, {"result", ui::kIdNo}}, true, ""},
      {"a box that is not the test's",
       {{"t", "answer"}, {"dialog", notice}, {"result", ui::kIdOk}},
       false,
       ""},
  };
  for (const Step& step : steps) {
    const std::size_t before = b.browser->OfType("refused").size();
    calls.clear();
    Receive(b.id, step.message);
    OnUi();
    const auto refused = b.browser->OfType("refused");
    const bool told = refused.size() > before;
    if (told) {
      EXPECT_EQ(refused.back()["text"], "Test run from another window") << step.what;
      EXPECT_EQ(refused.back()["test"], "X Axis Test") << step.what;
    }
    EXPECT_EQ(calls,
              step.call[0] ? std::vector<std::string>{step.call} : std::vector<std::string>{})
        << step.what;
  }
  EXPECT_EQ(b.browser->OfType("refused")[2]["dialog"], box) << "names the dialog it refused";
  EXPECT_EQ(first.Doc().Text("Light"), "") << "a refused change is not taken into the document";
  EXPECT_EQ(answer, 0) << "the question is still open";
  Receive(b.id, {{"t", "cancel"}, {"page", 0}});
  Receive(b.id, {{"t", "shown"}, {"page", 0}});
  Receive(b.id, {{"t", "cancel"}, {"page", 0}});
  OnUi();
  EXPECT_EQ(first.notices.back(), "cancel") << "Escape stops from any tab";

  Receive(a.id, {{"t", "answer"}, {"dialog", box}, {"result", ui::kIdYes}});
  platform::Join(worker);
  EXPECT_EQ(answer, ui::kIdYes) << "the operator answers";
  EXPECT_TRUE(a.browser->OfType("refused").empty());
}

TEST_F(ControlTest, ATakeOverNamesTheTestAndLeavesTheFormerHolderWatching) {
  Tab a = Open(kTabA);
  Tab b = Open(kTabB);
  std::atomic<int> answer{0};
  const int box = StartAndAsk(a, b, answer);

  Receive(b.id, {{"t", "take"}, {"test", "Y Axis Test"}});
  OnUi();
  EXPECT_EQ(window.ControlHolder(), kTabA) << "a test that does not run is not taken";
  Receive(a.id, {{"t", "take"}, {"test", "X Axis Test"}});
  OnUi();
  EXPECT_EQ(window.ControlHolder(), kTabA);

  Receive(b.id, {{"t", "take"}, {"test", "X Axis Test"}});
  OnUi();
  EXPECT_EQ(window.ControlHolder(), kTabB);
  EXPECT_EQ(ControlOf(b), "yours X Axis Test");
  EXPECT_EQ(ControlOf(a), "other X Axis Test");

  Receive(a.id, {{"t", "answer"}, {"dialog", box}, {"result", ui::kIdNo}});
  Click(a, "Light", "change");
  EXPECT_EQ(a.browser->OfType("refused").size(), 2u) << "the former holder is refused";
  EXPECT_TRUE(calls.empty() || calls.back() == "Start");
  Receive(b.id, {{"t", "answer"}, {"dialog", box}, {"result", ui::kIdYes}});
  platform::Join(worker);
  EXPECT_EQ(answer, ui::kIdYes);

  EndTest();
  Receive(b.id, {{"t", "take"}, {"test", "X Axis Test"}});
  OnUi();
  EXPECT_EQ(window.ControlHolder(), "") << "nothing to take once the test has ended";
}

// The holder's tab goes: a reload keeps control, a tab closed for a second or hung for two
// loses it, once. While the holder is there, others' signs of life do not count for it.
TEST_F(ControlTest, AHolderThatGoesReleasesControlAndAReloadDoesNot) {
  const auto dropped = [this] {
    bool d = false;
    OnUi([&] {
      d = window.DropLostHolder(platform::Milliseconds(1000), platform::Milliseconds(2000));
    });
    return d;
  };
  Tab a = Open(kTabA);
  Tab b = Open(kTabB);
  Click(a, "Start");

  window.Detach(a.id);
  OnUi();
  clock.Advance(platform::Milliseconds(400));
  a = Open(kTabA);  // a reload: a new connection of the same tab
  EXPECT_FALSE(dropped());
  EXPECT_EQ(a.browser->OfType("control").size(), 1u) << "never shown another's control";
  EXPECT_EQ(ControlOf(a), "yours X Axis Test");

  // Hung: still connected, silent, while b beats.
  for (int i = 0; i < 4; ++i) {
    clock.Advance(platform::Milliseconds(500));
    Receive(b.id, {{"t", "beat"}});
    OnUi();
    EXPECT_EQ(dropped(), i == 3) << "after " << (i + 1) * 500 << " ms";
  }
  EXPECT_EQ(window.ControlHolder(), "");
  EXPECT_EQ(ControlOf(b), "free ");
  EXPECT_FALSE(dropped()) << "once";

  // Closed: no connection of the holder's tab for a second.
  OnUi([this] { running.clear(); });
  Click(b, "Start");
  ASSERT_EQ(window.ControlHolder(), kTabB);
  window.Detach(b.id);
  OnUi();
  clock.Advance(platform::Milliseconds(999));
  EXPECT_FALSE(dropped());
  clock.Advance(platform::Milliseconds(1));
  EXPECT_TRUE(dropped());
  EXPECT_EQ(ControlOf(a), "free ");
}

// The id is the tab's own word for this rule and nothing else: one that could pass for a
// connection of its own, or any other shape, is refused, and a connection names itself once.
TEST_F(ControlTest, OnlyAFirstWellFormedHelloNamesATab) {
  Tab a = Open(kTabA);
  Click(a, "Start");

  const std::vector<json> bad = {
      {{"t", "hello"}, {"tab", "#1"}},
      {{"t", "hello"}, {"tab", "short"}},
      {{"t", "hello"}, {"tab", std::string(65, 'a')}},
      {{"t", "hello"}, {"tab", "0f4c2a9e a tab"}},
      {{"t", "hello"}, {"tab", 12345678}},
  };
  for (const json& hello : bad) {
    Tab other;
    other.browser = Connect(&other.id);
    EXPECT_TRUE(other.browser->OfType("control").empty()) << "told nothing before it speaks";
    Receive(other.id, hello);
    OnUi();
    Click(other, "Light", "change");
    EXPECT_EQ(other.browser->OfType("refused").size(), 1u) << hello.dump();
    EXPECT_EQ(ControlOf(other), "other X Axis Test") << hello.dump();
  }
  const std::size_t logged = log.Messages().size();
  EXPECT_EQ(logged, bad.size());

  Tab b = Open(kTabB);
  Receive(b.id, {{"t", "hello"}, {"tab", kTabA}});
  OnUi();
  EXPECT_EQ(ControlOf(b), "other X Axis Test") << "a second hello does not rename a connection";
  EXPECT_EQ(log.Messages().size(), logged + 1);
}

}  // namespace
}  // namespace testing_support
