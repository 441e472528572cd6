// The main dialog with its Stage page against the simulated board, in virtual time, with an
// operator connected as a browser who answers every start dialog and box: for tests that run the
// motion tests end to end and read what their reports say.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "app/CTavroTestDlg.h"
#include "pages/Stage.h"
#include "platform/Files.h"
#include "platform/WindowProbe.h"
#include "tests/pages/PageFixture.h"
#include "tests/support/TempDirs.h"
#include "util/Text.h"

namespace testing_support {

// A person at a browser: every box and start dialog the window opens is answered at once, OK
// (with the Standard voltage limit) and Yes to every question, unless a script says otherwise.
class MotionOperator final : public ui::Connection {
 public:
  struct Shown {
    std::string kind;  // "box" or "choice"
    std::string text;  // a box's text, a choice's texts joined
    std::string buttons;
  };
  // The result to give and, for a choice, the radio picked.
  using Script = std::function<std::pair<int, int>(const Shown&)>;

  explicit MotionOperator(ui::Window& window) : window_(window) {}

  void Connect() {
    id_ = window_.Attach(std::shared_ptr<MotionOperator>(this, [](MotionOperator*) {}));
    Send(nlohmann::json{{"t", "loaded"}, {"page", 1}});
    Send(nlohmann::json{{"t", "shown"}, {"page", 1}});
  }
  void Send(const nlohmann::json& message) { window_.Receive(id_, message.dump()); }
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
    const nlohmann::json m = nlohmann::json::parse(*message);
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
      answer = script_ ? script_(s) : std::pair{s.buttons == "yesno" ? ui::kIdYes : ui::kIdOk, 0};
    }
    Send(nlohmann::json{
        {"t", "answer"}, {"dialog", m["id"]}, {"result", answer.first}, {"choice", answer.second}});
  }

 private:
  ui::Window& window_;
  ui::Window::ClientId id_ = 0;
  std::mutex mutex_;
  Script script_;
  std::vector<Shown> shown_;
};

// A report as text (UTF-16LE with its mark in the file; all of it ASCII here), empty when there is
// no such report.
inline std::string ReadReportText(const std::string& path) {
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

// The numbers that follow `label` in `body`, in order.
inline std::vector<long> NumbersAfterLabel(const std::string& body, const std::string& label) {
  std::vector<long> out;
  for (std::size_t at = body.find(label); at != std::string::npos; at = body.find(label, at + 1))
    out.push_back(std::strtol(body.c_str() + at + label.size(), nullptr, 10));
  return out;
}

// The real main dialog of a servo board of `profile`, its Stage page shown to the operator.
class MotionSession : public PageFixture {
 protected:
  void Open(const std::string& profile) {
    platform::SetProgramFolder(reports_.Path());
    platform::SetWindowProbe([](const std::string&) { return false; });
    Start(profile);
    ui::SetMessageBoxPresenter(&window);  // the boxes go to the window, as in the program
    dlg = std::make_unique<CTavroTestDlg>(window, loop, &Servo(), version_);
    // The loop's first task runs once the modal run has made its pages and started its timers.
    std::atomic<bool> created{false};
    loop.Post([&] { created = true; });
    ui = platform::ParticipantThread([this] { dlg->DoModal(); });
    ASSERT_TRUE(Wait([&] { return created.load(); }, std::chrono::seconds(30)));
    op.Connect();
    ASSERT_TRUE(
        Wait([&] { return Page().PageReady && Page().Connected; }, std::chrono::seconds(1)));
    // The operator looks at the page for a moment before clicking: its 200 ms tick has read it.
    clock.SleepFor(std::chrono::milliseconds(400));
  }
  void TearDown() override {
    if (!dlg) return;
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
    op.Send(nlohmann::json{{"t", "event"}, {"page", 1}, {"id", id}, {"kind", "click"}});
  }
  // Sleeps in steps of 20 ms of machine time until `done` holds; false after `limit`.
  bool Wait(const std::function<bool()>& done, platform::Duration limit) {
    const auto end = clock.Now() + limit;
    while (!done()) {
      if (clock.Now() >= end) return false;
      clock.SleepFor(std::chrono::milliseconds(20));
    }
    return true;
  }
  // Clicks a test button and waits for the test to end.
  bool RunTest(const std::string& button, platform::Duration limit = std::chrono::seconds(300)) {
    const std::size_t asked = op.Dialogs().size();
    Click(button);
    if (!Wait([&] { return State().Running || op.Dialogs().size() > asked; },
              std::chrono::seconds(1))) {
      return false;
    }
    return Wait([&] { return !State().Running; }, limit);
  }
  // The simulated machine's own word on an axis: "pos", "counts", "loop", ...
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
  std::string Report(const std::string& name) { return ReadReportText(reports_ / name); }
  bool ReportExists(const std::string& name) { return platform::FileExists(reports_ / name); }

  ScratchDir reports_;
  platform::TaskLoop loop;
  ui::Window window{loop};
  MotionOperator op{window};
  std::unique_ptr<CTavroTestDlg> dlg;
  std::thread ui;
};

}  // namespace testing_support
