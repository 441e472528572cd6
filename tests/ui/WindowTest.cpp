#include "ui/Window.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <tuple>

#include "tests/ui/UiFixture.h"

namespace testing_support {
namespace {

using WindowTest = WindowFixture;

TEST_F(WindowTest, ABrowserThatConnectsLateGetsTabsFullStateAndThenOnlyChanges) {
  OnUi([&] {
    window.SetTitle("TavroTest : Connected");
    first.Doc().SetText("Serial", "A123");
    second.Doc().SetChecked("Copy", true);
  });
  auto browser = Connect();

  const auto all = browser->Messages();
  ASSERT_GE(all.size(), 4u);
  EXPECT_EQ(all[0]["tabs"][1]["src"], "/pages/second.html");
  EXPECT_EQ(all[1]["page"], -1);
  EXPECT_EQ(all[1]["el"]["title"]["v"], "TavroTest : Connected");
  EXPECT_EQ(all[2]["full"], true);
  EXPECT_EQ(all[2]["el"]["Serial"]["v"], "A123");
  EXPECT_EQ(all[3]["el"]["Copy"]["c"], true);

  auto other = Connect();
  browser->Clear();
  other->Clear();
  OnUi([&] {
    first.Doc().SetText("Serial", "A123");  // unchanged
    first.Doc().SetText("Model", "M1");
    first.Doc().SetText("Name", "N1");
  });
  OnUi();
  const auto docs = browser->OfType("doc");
  ASSERT_EQ(docs.size(), 1u) << "changes of one task go out as one batch";
  EXPECT_EQ(docs[0]["page"], 0);
  EXPECT_EQ(docs[0]["full"], false);
  EXPECT_EQ(docs[0]["el"].size(), 2u);
  EXPECT_EQ(docs[0]["el"]["Model"]["v"], "M1");
  EXPECT_EQ(other->OfType("doc"), docs) << "every browser gets the same changes";
}

TEST_F(WindowTest, AnEventGoesToTheTableOfItsPageWithTheBrowsersValueInTheDocument) {
  std::vector<std::string> calls;
  first.Events().OnClick("Go", [&](const ui::Event&) { calls.push_back("first Go"); });
  second.Events().OnClick("Go", [&](const ui::Event&) { calls.push_back("second Go"); });
  second.Events().OnChange("Raw", [&](const ui::Event& e) {
    calls.push_back("second Raw " + second.Doc().Text("Raw") + " " + e.value.value_or("?"));
  });
  bool closed = false;
  window.SetCloseHandler([&] { closed = true; });
  ui::Window::ClientId id;
  auto browser = Connect(&id);

  Receive(id, {{"t", "event"}, {"page", 1}, {"id", "Go"}, {"kind", "click"}});
  Receive(id, {{"t", "event"}, {"page", 1}, {"id", "Raw"}, {"kind", "change"}, {"value", " 12 "}});
  Receive(id, {{"t", "event"}, {"page", 0}, {"id", "Go"}, {"kind", "click"}});
  Receive(id, {{"t", "event"}, {"page", -1}, {"id", "menu-close"}, {"kind", "click"}});
  OnUi();
  EXPECT_EQ(calls, (std::vector<std::string>{"second Go", "second Raw  12   12 ", "first Go"}));
  EXPECT_TRUE(closed);
  EXPECT_TRUE(log.Messages().empty());
}

// Foreign input of every kind: each costs one log line and runs nothing; the window goes on.
TEST_F(WindowTest, MalformedOrUnknownInputIsDroppedWithOneLogLineEach) {
  int clicks = 0;
  first.Events().OnClick("Go", [&](const ui::Event&) { ++clicks; });
  ui::Window::ClientId id;
  auto browser = Connect(&id);

  const std::vector<std::string> bad = {
      "not json",
      "[1,2,3]",
      R"({"page":0,"id":"Go","kind":"click"})",
      R"({"t":"launch"})",
      R"({"t":"event","page":7,"id":"Go","kind":"click"})",
      R"({"t":"event","page":-2,"id":"Go","kind":"click"})",
      R"({"t":"event","page":0,"id":"Nope","kind":"click"})",
      R"({"t":"event","page":0,"id":"Go","kind":"dblclick"})",
      R"({"t":"event","page":0,"id":"Go","kind":"change"})",
      R"({"t":"event","page":"0","id":"Go","kind":"click"})",
      R"({"t":"event","page":0,"id":"Go","kind":"click","value":5})",
      R"({"t":"event","page":4294967296,"id":"Go","kind":"click"})",
      R"({"t":"event","page":18446744073709551615,"id":"menu-close","kind":"click"})",
      R"({"t":"shown","page":18446744073709551615})",
      R"({"t":"answer","dialog":18446744073709551615,"result":1})",
      R"({"t":"event","page":0,"id":"Go","kind":"click","x":[[[[[[1]]]]]]})",
      R"({"t":"shown","page":9})",
      R"({"t":"scroll","page":0,"id":"Unwatched","height":1,"top":0,"client":1})",
      R"({"t":"answer","dialog":99,"result":1})",
      std::string(ui::Window::kMaxMessage + 1, ' '),
  };
  for (const std::string& text : bad)
    window.Receive(id, text);
  OnUi();
  EXPECT_EQ(log.Messages().size(), bad.size());
  EXPECT_EQ(clicks, 0);

  Receive(id, {{"t", "event"}, {"page", 0}, {"id", "Go"}, {"kind", "click"}});
  OnUi();
  EXPECT_EQ(clicks, 1);
}

// A page is shown while at least one browser shows it; each browser's load of its document is
// told once; a browser that left is sent nothing more.
TEST_F(WindowTest, PagesFollowWhatTheBrowsersShowAndLoad) {
  ui::Window::ClientId a, b;
  Connect(&a);
  auto leaving = Connect(&b);
  Receive(a, {{"t", "shown"}, {"page", 0}});
  Receive(b, {{"t", "shown"}, {"page", 0}});
  Receive(a, {{"t", "loaded"}, {"page", 1}});
  Receive(b, {{"t", "loaded"}, {"page", 1}});
  Receive(a, {{"t", "loaded"}, {"page", 1}});
  OnUi();
  EXPECT_TRUE(window.PageShown(0));
  Receive(a, {{"t", "shown"}, {"page", 1}});
  OnUi();
  EXPECT_TRUE(window.PageShown(0)) << "b still shows it";
  window.Detach(b);
  OnUi();
  EXPECT_FALSE(window.PageShown(0));
  EXPECT_TRUE(window.PageShown(1));
  EXPECT_EQ(first.notices, (std::vector<std::string>{"shown", "hidden"}));
  EXPECT_EQ(second.notices, (std::vector<std::string>{"complete", "complete", "shown"}));

  const auto before = leaving->Count();
  OnUi([&] { first.Doc().SetText("A", "1"); });
  OnUi();
  EXPECT_EQ(leaving->Count(), before);
}

// A page changed while no browser showed it (a board that came back with other values) must
// reach a browser that loads it later, however many loaded it before.
TEST_F(WindowTest, EveryBrowserThatLoadsAPageHasItsDocumentBroughtUpToDate) {
  class Board : public RecordingPage {
   public:
    using RecordingPage::RecordingPage;
    void OnDocumentComplete() override { Doc().SetText("Serial", serial); }
    std::string serial = "A1";
  } board("/pages/board.html");
  int index = 0;
  OnUi([&] { index = window.AddPage("Board", board); });
  for (const std::string serial : {"A1", "B2"}) {
    OnUi([&] { board.serial = serial; });
    ui::Window::ClientId id;
    auto browser = Connect(&id);
    Receive(id, {{"t", "loaded"}, {"page", index}});
    OnUi();
    OnUi();
    bool seen = false;
    for (const json& m : browser->OfType("doc")) {
      if (m["page"] == index && m["el"].contains("Serial")) seen = m["el"]["Serial"]["v"] == serial;
    }
    EXPECT_TRUE(seen) << serial;
    window.Detach(id);
    OnUi();
  }
}

// Scroll reports are sizes in pixels: negative ones are refused before a page subtracts them.
TEST_F(WindowTest, AScrollReportOutsideItsRangeIsRefusedAndTheLastGoodOneKept) {
  OnUi([&] { first.Doc().WatchScroll("Log"); });
  ui::Window::ClientId id;
  auto browser = Connect(&id);
  const auto report = [&](std::int64_t height, std::int64_t top, std::int64_t client) {
    Receive(id, {{"t", "scroll"},
                 {"page", 0},
                 {"id", "Log"},
                 {"height", height},
                 {"top", top},
                 {"client", client}});
    OnUi();
  };
  report(900, 500, 400);
  for (const auto& [height, top, client] :
       std::vector<std::tuple<std::int64_t, std::int64_t, std::int64_t>>{
           {INT32_MAX, INT32_MIN, 10}, {-1, 0, 0}, {10, 0, -5}, {INT64_MAX, 0, 0}}) {
    report(height, top, client);
  }
  EXPECT_EQ(log.Messages().size(), 4u);
  std::optional<ui::ScrollInfo> kept;
  OnUi([&] { kept = first.Doc().Scroll("Log"); });
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->scrollHeight, 900);
  EXPECT_EQ(kept->scrollTop, 500);
  EXPECT_EQ(kept->clientHeight, 400);
}

}  // namespace
}  // namespace testing_support
