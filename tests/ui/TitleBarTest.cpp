// What the window does for a test that runs: the Escape key of the page in front, the title
// bar's STOP control, and the time since the last browser went away.
#include <gtest/gtest.h>

#include "tests/ui/UiFixture.h"
#include "ui/Window.h"

namespace testing_support {
namespace {

using TitleBarTest = WindowFixture;

// Each cancel goes to the page the sending browser shows, or nowhere (one log line).
TEST_F(TitleBarTest, EscapeReachesOnlyThePageInFrontOfTheSendingBrowser) {
  ui::Window::ClientId a, b;
  Connect(&a);
  Connect(&b);
  Receive(a, {{"t", "shown"}, {"page", 1}});
  Receive(b, {{"t", "shown"}, {"page", 0}});
  OnUi();
  first.notices.clear();
  second.notices.clear();

  struct Step {
    const char* what;
    std::string text;
    bool fromA;
    int firstCancels;
    int secondCancels;
    int logLines;
  };
  const Step steps[] = {
      {"a's page", R"({"t":"cancel","page":1})", true, 0, 1, 0},
      {"b's page", R"({"t":"cancel","page":0})", false, 1, 1, 0},
      {"a page a does not show", R"({"t":"cancel","page":0})", true, 1, 1, 1},
      {"the shell", R"({"t":"cancel","page":-1})", true, 1, 1, 2},
      {"past the last page", R"({"t":"cancel","page":2})", true, 1, 1, 3},
      {"far out of range", R"({"t":"cancel","page":2147483647})", true, 1, 1, 4},
      {"page as text", R"({"t":"cancel","page":"1"})", true, 1, 1, 5},
      {"no page", R"({"t":"cancel"})", true, 1, 1, 6},
      {"page out of int", R"({"t":"cancel","page":4294967297})", true, 1, 1, 7},
  };
  for (const Step& step : steps) {
    window.Receive(step.fromA ? a : b, step.text);
    OnUi();
    const auto count = [](const RecordingPage& p) {
      return std::count(p.notices.begin(), p.notices.end(), "cancel");
    };
    EXPECT_EQ(count(first), step.firstCancels) << step.what;
    EXPECT_EQ(count(second), step.secondCancels) << step.what;
    EXPECT_EQ(log.Messages().size(), static_cast<std::size_t>(step.logLines)) << step.what;
  }

  window.Detach(a);
  OnUi();
  window.Receive(a, R"({"t":"cancel","page":1})");
  OnUi();
  EXPECT_EQ(std::count(second.notices.begin(), second.notices.end(), "cancel"), 1)
      << "a browser that left cancels nothing";
}

// The control is state of the shell: every browser sees it change, and one that comes later is
// told it with the full state. A click runs the handler only while the control is up.
TEST_F(TitleBarTest, StopControlFollowsTheRunningTestAndAClickStopsWithoutAQuestion) {
  int stops = 0;
  OnUi([&] { window.SetStopHandler([&] { ++stops; }); });
  ui::Window::ClientId id;
  auto browser = Connect(&id);
  const json initial = browser->OfType("doc").at(0);
  EXPECT_EQ(initial["el"]["stop-test"]["s"], "none") << "hidden before any test";

  const json click = {{"t", "event"}, {"page", -1}, {"id", "stop-test"}, {"kind", "click"}};
  Receive(id, click);
  OnUi();
  EXPECT_EQ(stops, 0) << "a click on a control no test shows stops nothing";

  browser->Clear();
  OnUi([&] { window.SetStopControl("X Axis Test"); });
  OnUi();
  const auto shown = browser->OfType("doc");
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0]["el"]["stop-test"]["s"], "");
  EXPECT_EQ(shown[0]["el"]["stop-test-name"]["v"], "X Axis Test");

  auto late = Connect();
  const json full = late->OfType("doc").at(0);
  EXPECT_EQ(full["el"]["stop-test"]["s"], "");
  EXPECT_EQ(full["el"]["stop-test-name"]["v"], "X Axis Test");

  Receive(id, click);
  OnUi();
  EXPECT_EQ(stops, 1);
  EXPECT_TRUE(browser->OfType("dialog").empty()) << "no confirmation";

  OnUi([&] { window.SetStopControl(""); });
  Receive(id, click);
  OnUi();
  EXPECT_EQ(stops, 1) << "a late click after the test ended";
  EXPECT_EQ(late->OfType("doc").back()["el"]["stop-test"]["s"], "none");
}

TEST_F(TitleBarTest, NoBrowserForCountsFromTheLastBrowserThatWentAway) {
  const auto absent = [&] {
    platform::Duration d{};
    OnUi([&] { d = window.NoBrowserFor(); });
    return d;
  };
  clock.Advance(platform::Milliseconds(300));
  EXPECT_GE(absent(), platform::Milliseconds(300)) << "counted from the window's making";

  ui::Window::ClientId a, b;
  Connect(&a);
  Connect(&b);
  clock.Advance(platform::Milliseconds(5000));
  EXPECT_EQ(absent(), platform::Duration::zero());
  window.Detach(a);
  OnUi();
  clock.Advance(platform::Milliseconds(5000));
  EXPECT_EQ(absent(), platform::Duration::zero()) << "one browser is still there";

  window.Detach(b);
  OnUi();
  clock.Advance(platform::Milliseconds(700));
  EXPECT_EQ(absent(), platform::Milliseconds(700));
  window.Detach(b);  // twice: the server may report a gone browser again
  OnUi();
  EXPECT_EQ(absent(), platform::Milliseconds(700));
  Connect();
  EXPECT_EQ(absent(), platform::Duration::zero());
}

}  // namespace
}  // namespace testing_support
