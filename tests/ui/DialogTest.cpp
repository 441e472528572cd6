#include <gtest/gtest.h>

#include <atomic>

#include "tests/ui/UiFixture.h"

namespace testing_support {
namespace {

using DialogTest = WindowFixture;

json Answer(int dialog, int result, int choice = 0) {
  return {{"t", "answer"}, {"dialog", dialog}, {"result", result}, {"choice", choice}};
}

TEST_F(DialogTest, OnTheUiThreadABoxAnswersCautiouslyAtOnceOrLaterThroughACallback) {
  ui::Window::ClientId id;
  auto browser = Connect(&id);
  int yesNo = 0, okCancel = 0, ok = 0;
  OnUi([&] {
    yesNo = window.Show("q", "t", ui::kMbYesNo);
    okCancel = window.Show("q", "t", ui::kMbOkCancel);
    ok = window.Show("SetTimer failed", "Error", ui::kMbOk | ui::kMbIconStop);
  });
  EXPECT_EQ(yesNo, ui::kIdNo);
  EXPECT_EQ(okCancel, ui::kIdCancel);
  EXPECT_EQ(ok, ui::kIdOk);
  const auto boxes = browser->OfType("dialog");
  ASSERT_EQ(boxes.size(), 3u);
  EXPECT_EQ(boxes[2]["stop"], true);

  // UI code that needs the answer takes it asynchronously; an answer the box does not offer is
  // refused, and only the first of two browsers' answers counts.
  int answered = 0;
  OnUi([&] { window.ShowBoxAsync("Sure?", "t", ui::kMbYesNo, [&](int r) { answered = r; }); });
  const int box = browser->WaitFor("dialog", browser->Count() - 1)["id"];
  Receive(id, Answer(box, ui::kIdOk));
  Receive(id, Answer(box, ui::kIdCancel));
  OnUi();
  EXPECT_EQ(answered, 0);
  EXPECT_EQ(log.Messages().size(), 2u);
  Receive(id, Answer(box, ui::kIdNo));
  Receive(id, Answer(box, ui::kIdYes));
  OnUi();
  EXPECT_EQ(answered, ui::kIdNo);
  EXPECT_EQ(log.Messages().size(), 3u);
}

// The worker waits, the UI thread goes on, and the full state of a browser that comes after the
// first one left carries the open box.
TEST_F(DialogTest, AWorkersBoxWaitsForAnAnswerFromWhicheverBrowserIsThere) {
  ui::Window::ClientId a;
  auto gone = Connect(&a);
  std::atomic<int> result{0};
  std::thread worker = platform::ParticipantThread([&] {
    result = window.Show("Did the machine move correctly?", "TavroTest", ui::kMbYesNo);
    clock.NotifyAll();
  });
  const json shown = gone->WaitFor("dialog");
  EXPECT_EQ(shown["kind"], "box");
  EXPECT_EQ(shown["buttons"], "yesno");
  window.Detach(a);

  ui::Window::ClientId b;
  auto next = Connect(&b);  // runs a task on the UI thread
  const auto boxes = next->OfType("dialog");
  ASSERT_EQ(boxes.size(), 1u);
  EXPECT_EQ(boxes[0]["text"], "Did the machine move correctly?");
  EXPECT_EQ(result, 0);
  Receive(b, Answer(boxes[0]["id"], ui::kIdYes));
  platform::Join(worker);
  EXPECT_EQ(result, ui::kIdYes);
  EXPECT_EQ(next->WaitFor("closeDialog")["id"], boxes[0]["id"]);
}

TEST_F(DialogTest, AChoiceDialogGivesTheTickedOptionAtOkAndTheFirstAtCancel) {
  ui::Window::ClientId id;
  auto browser = Connect(&id);
  const ui::ChoiceDialog dialog{"Dialog",
                                {"Position will begin moving."},
                                "Voltage Limit",
                                {"Standard", "High", "No Limit"},
                                0};
  ui::ChoiceResult picked{0, 0}, cancelled{0, 0};
  std::thread worker = platform::ParticipantThread([&] {
    picked = window.ShowChoice(dialog);
    cancelled = window.ShowChoice(dialog);
  });
  const json shown = browser->WaitFor("dialog");
  const std::size_t mark = browser->Count();
  EXPECT_EQ(shown["kind"], "choice");
  EXPECT_EQ(shown["options"][2], "No Limit");
  Receive(id, Answer(shown["id"], ui::kIdOk, 3));  // no such option
  Receive(id, Answer(shown["id"], ui::kIdOk, 2));
  const json again = browser->WaitFor("dialog", mark);
  Receive(id, Answer(again["id"], ui::kIdCancel, 1));
  platform::Join(worker);
  EXPECT_EQ(picked.result, ui::kIdOk);
  EXPECT_EQ(picked.choice, 2);
  EXPECT_EQ(cancelled.result, ui::kIdCancel);
  EXPECT_EQ(cancelled.choice, 0);
  EXPECT_EQ(log.Messages().size(), 1u);
}

TEST_F(DialogTest, ShutdownReleasesABlockedWorkerWithTheCautiousAnswer) {
  auto browser = Connect();
  std::atomic<int> result{0};
  std::thread worker =
      platform::ParticipantThread([&] { result = window.Show("q", "t", ui::kMbOkCancel); });
  browser->WaitFor("dialog");
  window.Shutdown();
  platform::Join(worker);
  EXPECT_EQ(result, ui::kIdCancel);

  std::thread late =
      platform::ParticipantThread([&] { result = window.Show("q", "t", ui::kMbYesNo); });
  platform::Join(late);
  EXPECT_EQ(result, ui::kIdNo);
}

// Start-up: the window exists but the loop does not run yet. A box on the UI thread then waits
// modally, serving the loop, so that a browser can answer it; a quit (SIGINT) ends the wait.
TEST(StartUpBoxTest, WaitsOnTheUiThreadUntilABrowserAnswersOrTheRunIsEnded) {
  platform::VirtualClock clock;
  platform::ScopedClock scoped{clock};
  platform::ClockParticipant self{clock};
  LogRecorder log;
  platform::TaskLoop loop;
  ui::Window window(loop);
  auto browser = std::make_shared<FakeBrowser>();

  std::thread late = platform::ParticipantThread([&] {
    clock.SleepFor(std::chrono::seconds(30));  // the user opens the page half a minute later
    const auto id = window.Attach(browser);
    const json box = browser->WaitFor("dialog");
    EXPECT_EQ(box["text"], "Could not open the device.");
    window.Receive(id, Answer(box["id"], ui::kIdOk).dump());
  });
  EXPECT_EQ(window.Show("Could not open the device.", "Error", ui::kMbOk | ui::kMbIconStop),
            ui::kIdOk);
  platform::Join(late);
  EXPECT_FALSE(loop.Running());

  const std::size_t seen = browser->Count();
  std::thread signal = platform::ParticipantThread([&] {
    browser->WaitFor("dialog", seen);
    loop.Quit(ui::kIdCancel);
  });
  EXPECT_EQ(window.Show("Go on?", "TavroTest", ui::kMbYesNo), ui::kIdNo);
  platform::Join(signal);
  EXPECT_EQ(loop.Run(), ui::kIdCancel) << "the ended run does not start again";
  window.Shutdown();
}

// Any browser can open boxes by clicking (the about box). Thousands of clicks must not open
// thousands of boxes that every later browser is sent; past the limit a box is answered
// cautiously, unseen, and an answered box makes room again.
TEST_F(DialogTest, OpenBoxesAreBoundedAndOneTooManyIsAnsweredCautiouslyUnlessATestOrTheWindowAsks) {
  ui::Window::ClientId id;
  auto clicker = Connect(&id);
  const std::size_t clicks = ui::Window::kMaxOpenBoxes + 20;
  for (std::size_t i = 0; i < clicks; ++i)
    Receive(id, {{"t", "event"}, {"page", -1}, {"id", "menu-about"}, {"kind", "click"}});
  int yesNo = 0;
  ui::ChoiceResult choice{0, 0};
  OnUi([&] {
    window.ShowBoxAsync("Sure?", "t", ui::kMbYesNo, [&](int r) { yesNo = r; });
    window.ShowChoiceAsync({.title = "Speed", .options = {"Standard", "High"}, .initial = 1},
                           [&](ui::ChoiceResult r) { choice = r; });
  });
  OnUi();
  EXPECT_EQ(yesNo, ui::kIdNo);
  EXPECT_EQ(choice.result, ui::kIdCancel);
  EXPECT_EQ(choice.choice, 1);
  EXPECT_EQ(log.Messages().size(), 1u);

  auto late = Connect();
  const auto open = late->OfType("dialog");
  ASSERT_EQ(open.size(), ui::Window::kMaxOpenBoxes);

  // A test's question is never answered for the operator: past the cap it opens all the same,
  // and its thread gets the operator's answer.
  std::atomic<int> asked{0};
  const std::size_t seen = late->Count();  // before the question can arrive
  std::thread worker = platform::ParticipantThread([&] {
    asked = window.Show("Did the machine move correctly?", "TavroTest", ui::kMbYesNo);
    clock.NotifyAll();
  });
  const json question = late->WaitFor("dialog", seen);
  EXPECT_EQ(question["text"], "Did the machine move correctly?");
  Receive(id, Answer(question["id"], ui::kIdYes));
  platform::Join(worker);
  EXPECT_EQ(asked, ui::kIdYes);

  // Nor is the window's own question, Close during a test: a window full of boxes must not keep
  // the operator from ending the program.
  int closing = 0;
  const std::size_t before = late->Count();
  OnUi([&] { window.AskAsync("Stop it?", "Close", [&](int r) { closing = r; }); });
  const json ask = late->WaitFor("dialog", before);
  ASSERT_TRUE(ask.is_object());
  EXPECT_EQ(ask["text"], "Stop it?");
  Receive(id, Answer(ask["id"], ui::kIdYes));
  OnUi();
  EXPECT_EQ(closing, ui::kIdYes);

  Receive(id, Answer(open[0]["id"], ui::kIdOk));
  OnUi([&] { window.ShowBoxAsync("Sure?", "t", ui::kMbYesNo, [&](int r) { yesNo = r; }); });
  EXPECT_EQ(late->WaitFor("dialog", late->Count() - 1)["text"], "Sure?");
}

}  // namespace
}  // namespace testing_support
