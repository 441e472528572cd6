// The message window through its handle, against the real window and fake browsers: what shows,
// in what order, which results and events come back, and the file access warnings built on it.
#include <sys/stat.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "config/FileAccessWarnings.h"
#include "config/Folders.h"
#include "platform/Files.h"
#include "tests/config/ConfigFiles.h"
#include "tests/ui/UiFixture.h"
#include "ui/MessageWindow.h"
#include "util/MessageInteraction.h"

namespace {

using namespace Utility;
using testing_support::FakeBrowser;
using testing_support::json;

std::array<TextOrId, 8> Buttons(std::vector<TextOrId> values) {
  std::array<TextOrId, 8> out{};
  for (std::size_t i = 0; i < values.size() && i < out.size(); ++i)
    out[i] = values[i];
  return out;
}

class MessageWindowTest : public testing_support::WindowFixture {
 protected:
  MessageWindowTest() {
    // The monitor override comes from the shared folder: keep it out of the real one.
    ::mkdir((scratch / "base").c_str(), 0777);
    platform::SetCommonDataBase(scratch / "base");
    config::ForgetFolderMemories();
    OnUi([this] { SetMessageWindowHost(&loop, &window); });
    browser = Connect(&client);
  }
  ~MessageWindowTest() override {
    OnUi([] { SetMessageWindowHost(nullptr, nullptr); });
    config::ForgetFolderMemories();
    platform::SetCommonDataBase("");
  }

  // Creates a message on the UI thread, so that every call `then` makes on the handle is queued
  // before the window exists.
  std::shared_ptr<MessageInteractionIFace> Create(
      const TextOrId& text, std::uint64_t flags, std::vector<TextOrId> buttons,
      const std::function<void(MessageInteractionIFace&)>& then = {}) {
    std::shared_ptr<MessageInteractionIFace> m;
    OnUi([&] {
      m = CreateMessage("Title", text, {}, flags, nullptr, Buttons(std::move(buttons)));
      if (then) then(*m);
    });
    Settle();  // the window's creation and its first changes
    return m;
  }

  // Lets the UI thread run what the handle queued, and the window send what that changed.
  void Settle() {
    OnUi();
    OnUi();
  }

  // The window as the browser was last told it.
  json Shown() {
    const auto windows = browser->OfType("dialog");
    return windows.empty() ? json() : windows.back();
  }
  void Click(int result) {
    Receive(client, {{"t", "answer"}, {"dialog", Shown()["id"]}, {"result", result}});
    Settle();
  }
  bool Closed() { return !browser->OfType("closeDialog").empty(); }

  config_test::ScratchDir scratch;
  ui::Window::ClientId client = 0;
  std::shared_ptr<FakeBrowser> browser;
};

TEST_F(MessageWindowTest, CallsMadeBeforeTheWindowExistsTakeEffectInOrderWhenItIsMade) {
  auto m = Create("first", kMsgProgressBar, {"OK", 0u, "Cancel"}, [](MessageInteractionIFace& h) {
    h.SetText("second", 0, 0);
    h.SetTitle("Later");
    h.SetProgress(0.25);
    h.SetText("third", 0, 0);
    h.SetButtonCheck(1, 1);
  });
  const json w = Shown();
  EXPECT_EQ(w["title"], "Later");
  EXPECT_EQ(w["text"], "third");
  EXPECT_EQ(w["progress"], 50);
  // A button value of 0 is left out; the rest close up.
  EXPECT_EQ(w["buttons"], json::parse(R"(["OK","Cancel"])"));
  EXPECT_EQ(w["checks"], json::parse("[false,true]"));
  EXPECT_EQ(m->GetButtonCheck(1), 1);
  EXPECT_EQ(m->GetButtonCheck(8), 0);
  EXPECT_EQ(m->GetResult(), -1);
}

TEST_F(MessageWindowTest, AClickEndsTheMessageOnceAndRunsTheCallbackOnTheUiThread) {
  struct Seen {
    int calls = 0;
    int result = 0;
    bool onUi = false;
  } seen;
  auto m = Create("text", 0, {"Yes", "No"});
  m->SetDoneCallback(
      [](std::shared_ptr<MessageInteractionIFace> handle, void* arg) {
        auto* s = static_cast<Seen*>(arg);
        ++s->calls;
        s->result = handle->GetResult();
        s->onUi = RunOnUiThread([] {}, true, true);  // direct sends work only on the UI thread
      },
      &seen);
  Click(1);
  Settle();
  EXPECT_TRUE(m->GetDoneEvent().IsSet());
  EXPECT_TRUE(Closed());
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.result, 1);
  EXPECT_TRUE(seen.onUi);
  EXPECT_EQ(m->TakeResult(), 1);
  EXPECT_EQ(m->TakeResult(), -1);
  // A message that is over keeps its result; Close changes nothing, and a late callback runs.
  m->Close();
  m->SetDoneCallback(
      [](std::shared_ptr<MessageInteractionIFace>, void* arg) { ++static_cast<Seen*>(arg)->calls; },
      &seen);
  Settle();
  EXPECT_EQ(seen.calls, 2);
  EXPECT_EQ(m->GetResult(), -1);
}

TEST_F(MessageWindowTest, ResultsOfTheCloseBoxOfCloseAndOfALostHost) {
  auto boxed = Create("a", kMsgSystemMenu, {"OK"});
  Click(ui::kWindowClosed);
  EXPECT_EQ(boxed->GetResult(), -2);
  EXPECT_TRUE(boxed->GetDoneEvent().IsSet());

  // Without a close box or keyboard handling the close answer is refused.
  auto plain = Create("b", 0, {"OK"});
  Click(ui::kWindowClosed);
  EXPECT_FALSE(plain->GetDoneEvent().IsSet());
  plain->Close();  // from this, a worker thread
  Settle();
  EXPECT_EQ(plain->GetResult(), -1);
  EXPECT_TRUE(plain->GetDoneEvent().IsSet());
  EXPECT_EQ(browser->OfType("closeDialog").size(), 2u);

  auto orphan = Create("c", 0, {"OK"});
  OnUi([] { SetMessageWindowHost(nullptr, nullptr); });
  EXPECT_EQ(orphan->GetResult(), -3);
  EXPECT_TRUE(orphan->GetDoneEvent().IsSet());
  // Without a host a message is made but never shows, and its handle still works.
  auto unseen = CreateMessage("t", "x", {}, 0, nullptr, Buttons({"OK"}));
  unseen->SetText("y", 0, 0);
  unseen->Close();
  EXPECT_EQ(unseen->GetResult(), -1);
  EXPECT_FALSE(RunOnUiThread([] {}, false, false));
}

TEST_F(MessageWindowTest, AClickThatKeepsTheMessageOpenPulsesTheEvent) {
  auto m = Create("running", kMsgKeepOpen, {"Pause", "Stop"});
  bool woken = false;
  auto waiter =
      platform::ParticipantThread([&] { woken = m->GetDoneEvent().WaitUntil(platform::kNever); });
  // Virtual time moves only when every participant waits: the waiter is then in its wait.
  clock.SleepUntil(clock.Now() + std::chrono::milliseconds(1));
  Click(0);
  platform::Join(waiter);
  EXPECT_TRUE(woken);
  EXPECT_FALSE(m->GetDoneEvent().IsSet());
  EXPECT_FALSE(Closed());
  EXPECT_EQ(m->TakeResult(), 0);

  // Taking the flag away makes the next click final.
  m->SetFlags(kMsgKeepOpen, 0);
  Settle();
  Click(1);
  EXPECT_TRUE(m->GetDoneEvent().IsSet());
  EXPECT_TRUE(Closed());
}

TEST_F(MessageWindowTest, ProgressIsCutToTheBarAndOnlyChangesAreSent) {
  auto m = Create("copying", kMsgProgressBar, {"Stop"});
  m->SetProgress(1.5);
  Settle();
  EXPECT_EQ(Shown()["progress"], 200);
  EXPECT_EQ(Connect()->OfType("dialog").back()["progress"], 200) << "a late browser's state";
  const std::size_t before = browser->Count();
  m->SetProgress(1.0);          // the same position
  m->SetText("copying", 0, 0);  // the same text
  Settle();
  EXPECT_EQ(browser->Count(), before);
  m->SetProgress(-0.5);
  Settle();
  EXPECT_EQ(Shown()["progress"], 0);
  m->SetProgress(0.1234);
  Settle();
  EXPECT_EQ(Shown()["progress"], 24);
}

TEST_F(MessageWindowTest, ButtonsCanBeHiddenDisabledAndPressedFromThePendant) {
  auto m = Create("t", MsgButtonHidden(1), {"A", "B", "C"}, [](MessageInteractionIFace& h) {
    h.EnableButton(2, false);
    h.EnableButton(-1011, false);  // out of range: nothing
    h.EnableButton(10, false);
    h.BindPendantButton(7, 0);
    h.BindPendantButton(8, 2);
  });
  EXPECT_EQ(Shown()["shown"], json::parse("[true,false,true]"));
  EXPECT_EQ(Shown()["enabled"], json::parse("[true,true,false]"));
  Click(2);                             // disabled: refused by the window
  OnUi([] { PressPendantButton(8); });  // bound to the disabled button
  EXPECT_FALSE(m->GetDoneEvent().IsSet());
  OnUi([] { PressPendantButton(7); });
  EXPECT_EQ(m->GetResult(), 0);
  EXPECT_TRUE(m->GetDoneEvent().IsSet());
}

// The browser's viewport is the work area; a new text lays the window out again.
TEST_F(MessageWindowTest, ALongTextFillsTheViewportHeightAndAShortOneIsCentredAgain) {
  Receive(client, {{"t", "viewport"}, {"width", 1000}, {"height", 600}});
  std::string text;
  for (int i = 0; i < 200; ++i)
    text += "line " + std::to_string(i) + "\n";
  auto m = Create(text, 0, {"OK"});
  EXPECT_EQ(Shown()["layout"]["window"][3], 600);

  m->SetText("short", 0, 0);
  Settle();
  const json placed = Shown()["layout"]["window"];
  EXPECT_LT(placed[3].get<int>(), 200);
  EXPECT_NEAR(placed[1].get<int>() + placed[3].get<int>() / 2, 300, 1);
}

TEST_F(MessageWindowTest, AnEmptyTextMakesAWindowWithoutATextControl) {
  auto icon = std::make_shared<MessageIcon>(MessageIcon{"warning", 32, 32});
  std::shared_ptr<MessageInteractionIFace> m;
  OnUi([&] {
    m = CreateMessage("t", "", {}, 0, icon, Buttons({"OK"}));
    m->SetText("ignored: there is no text control", 0, 0);
  });
  Settle();
  const json w = Shown();
  EXPECT_EQ(w["text"], "");
  EXPECT_EQ(w["icon"], "warning");
  EXPECT_EQ(w["layout"]["text"][2], 0);
}

TEST_F(MessageWindowTest, AResizableWindowPlacesItsControlsForTheUsersSize) {
  auto m = Create("some text", kMsgSizingBorder, {"OK"});
  const json before = Shown()["layout"];
  Receive(client, {{"t", "resize"}, {"dialog", Shown()["id"]}, {"width", 500}, {"height", 300}});
  Settle();
  const json after = Shown()["layout"];
  EXPECT_EQ(after["window"][2], 500 + 2 * kShellBorder);
  EXPECT_GT(after["buttons"][0][1].get<int>(), before["buttons"][0][1].get<int>());
  // A fixed window refuses a new size.
  auto fixed = Create("x", 0, {"OK"});
  const json was = Shown();
  Receive(client, {{"t", "resize"}, {"dialog", was["id"]}, {"width", 900}, {"height", 300}});
  Settle();
  EXPECT_EQ(Shown(), was);
}

TEST_F(MessageWindowTest, TheMonitorOverrideNarrowsTheWorkArea) {
  const std::string common = scratch / "base/Halvern Corporation/Mirava for Windows";
  std::filesystem::create_directories(common);
  config_test::WriteBytes(common + "/Mirava.ini",
                          config_test::Utf16("[Monitor]\r\nOverride X=800\r\nOverride Y=0\r\n"));
  config::ForgetFolderMemories();
  Rect area;
  OnUi([&] { area = GetWorkArea(0); });
  EXPECT_EQ(area, (Rect{0, 0, 800, 800}));
}

TEST_F(MessageWindowTest, RunOnUiThreadSendsFromAWorkerAndRefusesADirectSend) {
  int ran = 0;
  EXPECT_TRUE(RunOnUiThread([&] { ++ran; }, true, false));
  EXPECT_EQ(ran, 1);  // the send waited for the call
  EXPECT_FALSE(RunOnUiThread([&] { ++ran; }, true, true));
  EXPECT_TRUE(RunOnUiThread([&] { ++ran; }, false, true));
  Settle();
  EXPECT_EQ(ran, 2);
}

// --- The file access warnings -------------------------------------------------------------------

std::shared_ptr<config::FileAccessInfo> Failure(const std::string& path, int kind) {
  auto info = std::make_shared<config::FileAccessInfo>();
  info->path = path;
  info->errorText = "Permission denied";
  info->accessKind = kind;
  return info;
}

TEST_F(MessageWindowTest, FileAccessWarningsCollectFailuresInOneWindowUntilDismissedOrGone) {
  {
    FileAccessWarnings warnings;
    config::ReportFileAccessError("/x/a.ini", "Permission denied", 0);
    Settle();
    warnings.Report(Failure("/x/a.ini", 0));  // the same failure again
    warnings.Report(Failure("/x/b.ini", 2));
    warnings.Report(Failure("/x/c.ini", 1));
    Settle();
    const std::string expected =
        "Could not open for reading: '/x/a.ini'. Permission denied\r\n\r\n"
        "Could not open for writing or reading: '/x/b.ini'. Permission denied\r\n\r\n"
        "Could not open for writing (the file can be read): '/x/c.ini'. Permission denied\r\n";
    EXPECT_EQ(warnings.MessageText(), expected);
    EXPECT_EQ(Shown()["text"], expected);
    EXPECT_EQ(Shown()["title"], "File Access Warning");
    EXPECT_EQ(Shown()["buttons"], json::parse(R"(["OK"])"));
    EXPECT_TRUE(Shown()["selectable"]);
    EXPECT_TRUE(Shown()["keyboard"]);

    Click(0);
    EXPECT_EQ(warnings.MessageText(), "");
    // Once dismissed, the same failure is told again, in a new window.
    warnings.Report(Failure("/x/a.ini", 0));
    Settle();
    EXPECT_EQ(Shown()["text"], "Could not open for reading: '/x/a.ini'. Permission denied\r\n");
    EXPECT_NE(Shown()["id"], browser->OfType("dialog").front()["id"]);
  }
  Settle();
  EXPECT_EQ(browser->OfType("closeDialog").size(), 2u) << "the second goes with the warnings";
}

}  // namespace
