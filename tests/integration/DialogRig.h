// The real main dialog of a profile on the simulated board, run modally on its own UI thread in
// virtual time, its boxes going to the browsers as in the program, and an operator at a browser.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "app/CTavroTestDlg.h"
#include "motion/StageTest.h"
#include "platform/Files.h"
#include "platform/WindowProbe.h"
#include "sim/Board.h"
#include "tests/pages/PageFixture.h"
#include "tests/support/TempDirs.h"
#include "ui/MessageBox.h"

namespace testing_support {

using nlohmann::json;

// A person at a browser: every box and start dialog the window opens is answered at once by the
// script (OK with the Standard voltage limit, Yes to every question, unless told otherwise), or
// left standing when the script says so (result 0).
class Operator final : public ui::Connection {
 public:
  struct Shown {
    int id = 0;
    std::string kind;  // "box" or "choice"
    std::string text;  // a box's text, a choice's texts joined
    std::string buttons;
  };
  // The result to give and, for a choice, the radio picked; a result of 0 leaves it open.
  using Script = std::function<std::pair<int, int>(const Shown&)>;

  explicit Operator(ui::Window& window) : window_(window) {}

  void Connect() {
    // The window may send the full state (and a box to answer) before Attach returns.
    std::lock_guard lock(attach_);
    id_ = window_.Attach(std::shared_ptr<Operator>(this, [](Operator*) {}));
  }
  void Load(int page) { Send(json{{"t", "loaded"}, {"page", page}}); }
  void Show(int page) { Send(json{{"t", "shown"}, {"page", page}}); }
  void Click(int page, const std::string& id) {
    Send(json{{"t", "event"}, {"page", page}, {"id", id}, {"kind", "click"}});
  }
  // The tab goes: its connection closes.
  void Disconnect() {
    window_.Detach(id_);
    id_ = 0;
  }
  bool Connected() const { return id_ != 0; }
  void Send(const json& message) {
    if (id_ != 0) window_.Receive(id_, message.dump());
  }
  // A sign of life, as the shell's script sends twice a second. A page that hangs sends none.
  void Beat() {
    if (alive) Send(json{{"t", "beat"}});
  }
  void Answer(int dialog, int result, int choice = 0) {
    Send(json{{"t", "answer"}, {"dialog", dialog}, {"result", result}, {"choice", choice}});
  }
  void SetScript(Script script) {
    std::lock_guard lock(mutex_);
    script_ = std::move(script);
  }
  std::vector<Shown> Dialogs() {
    std::lock_guard lock(mutex_);
    return shown_;
  }
  // The dialogs opened and not yet closed.
  std::vector<Shown> Open() {
    std::lock_guard lock(mutex_);
    return open_;
  }

  // On the UI thread, from the window's flush.
  void Send(std::shared_ptr<const std::string> message) override {
    { std::lock_guard lock(attach_); }  // the id is known before anything is answered
    const json m = json::parse(*message);
    if (m["t"] == "closeDialog") {
      std::lock_guard lock(mutex_);
      std::erase_if(open_, [&](const Shown& s) { return s.id == m["id"].get<int>(); });
      return;
    }
    if (m["t"] != "dialog" || m["kind"] == "window") return;
    Shown s{m["id"], m["kind"], "", m.value("buttons", "")};
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
      open_.push_back(s);
      answer = script_ ? script_(s) : Default(s);
    }
    if (answer.first != 0) Answer(s.id, answer.first, answer.second);
  }

  static std::pair<int, int> Default(const Shown& s) {
    return {s.buttons == "yesno" ? ui::kIdYes : ui::kIdOk, 0};
  }

  std::atomic<bool> alive{true};

 private:
  ui::Window& window_;
  std::mutex attach_;
  std::atomic<ui::Window::ClientId> id_{0};
  std::mutex mutex_;
  Script script_;
  std::vector<Shown> shown_;
  std::vector<Shown> open_;
};

class DialogRig : public PageFixture {
 protected:
  // `beforeDialog` runs once the board is up and before the dialog is made. Returns once the
  // modal run has made its pages and started its timers.
  void OpenDialog(const std::string& profile, bool manualVision,
                  const std::function<void()>& beforeDialog = {}) {
    platform::SetProgramFolder(reports_.Path());
    platform::SetWindowProbe([](const std::string&) { return false; });
    Start(profile);
    if (beforeDialog) beforeDialog();
    ui::SetMessageBoxPresenter(&window);
    if (manualVision) {
      dlg = std::make_unique<CTavroTestManualVisionDlg>(window, loop, &Manual(), version_);
    } else {
      dlg = std::make_unique<CTavroTestDlg>(window, loop, &Servo(), version_);
    }
    // The loop's first task runs once the modal run is under way.
    std::atomic<bool> created{false};
    loop.Post([&] { created = true; });
    ui = platform::ParticipantThread([this] { dlg->DoModal(); });
    for (int step = 0; step < 1500 && !created; ++step)
      clock.SleepFor(std::chrono::milliseconds(20));
    ASSERT_TRUE(created) << "the modal run never started";
  }
  // The modal run ends as the window's Close ends it; returns once the pages are gone.
  void CloseProgram() {
    loop.Quit(ui::kIdCancel);
    platform::Join(ui);
    dlg.reset();
  }
  void TearDown() override {
    if (ui.joinable()) CloseProgram();
    dlg.reset();
    ui::SetMessageBoxPresenter(nullptr);
    platform::SetProgramFolder("");
    platform::SetWindowProbe(nullptr);
    motion::AutoVisionTestState().Reset();
    motion::FirstGenerationTestState().Reset();
  }
  // Runs `look` on the UI thread, which owns the dialog, its pages and their documents, and
  // waits for it.
  void OnUi(const std::function<void()>& look) {
    std::atomic<bool> done{false};
    loop.Post([&] {
      look();
      done = true;
    });
    while (!done)
      clock.SleepFor(std::chrono::milliseconds(1));
  }

  // Sleeps in steps of 20 ms of machine time until `done` holds; false after `limit`. The
  // operator shows signs of life meanwhile, and `each` runs at every step (the last included).
  bool Wait(const std::function<bool()>& done, platform::Duration limit) {
    const auto end = clock.Now() + limit;
    for (;;) {
      if (each) each();
      if (done()) return true;
      if (clock.Now() >= end) return false;
      op.Beat();
      clock.SleepFor(std::chrono::milliseconds(20));
    }
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
  ScratchDir reports_;
  platform::TaskLoop loop;
  ui::Window window{loop};
  Operator op{window};
  std::unique_ptr<CTavroTestDlgBase> dlg;
  std::thread ui;
  std::function<void()> each;  // runs at every step of Wait
};

}  // namespace testing_support
