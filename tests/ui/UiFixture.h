// What the window tests share: virtual time, a UI thread running the loop, a window with two
// recording pages, and fake browsers that keep what the window sends them.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/Clock.h"
#include "platform/TaskLoop.h"
#include "tests/support/Recorders.h"
#include "ui/Window.h"

namespace testing_support {

using nlohmann::json;

// A browser as the window sees it: everything sent to it, parsed.
class FakeBrowser : public ui::Connection {
 public:
  void Send(std::shared_ptr<const std::string> message) override {
    {
      std::lock_guard lock(mutex_);
      messages_.push_back(json::parse(*message));
    }
    platform::Clock::Current().NotifyAll();
  }
  std::vector<json> Messages() {
    std::lock_guard lock(mutex_);
    return messages_;
  }
  std::size_t Count() { return Messages().size(); }
  // Messages of type `t` so far.
  std::vector<json> OfType(const std::string& t) {
    std::vector<json> out;
    for (const json& m : Messages()) {
      if (m["t"] == t) out.push_back(m);
    }
    return out;
  }
  // Waits for the first message of type `t` after `from` messages. A minute of machine time
  // (which passes at once when every thread waits) fails the test instead of hanging it.
  json WaitFor(const std::string& t, std::size_t from = 0) {
    std::unique_lock lock(mutex_);
    json found;
    platform::Clock& clock = platform::Clock::Current();
    clock.WaitUntil(lock, clock.Now() + std::chrono::minutes(1), [&] {
      for (std::size_t i = from; i < messages_.size() && found.is_null(); ++i) {
        if (messages_[i]["t"] == t) found = messages_[i];
      }
      return !found.is_null();
    });
    if (found.is_null()) ADD_FAILURE() << "no message \"" << t << "\" after " << from;
    return found;
  }
  void Clear() {
    std::lock_guard lock(mutex_);
    messages_.clear();
  }

 private:
  std::mutex mutex_;
  std::vector<json> messages_;
};

class RecordingPage : public ui::HtmlPage {
 public:
  explicit RecordingPage(const std::string& path) : HtmlPage(path) {}
  void OnDocumentComplete() override { notices.push_back("complete"); }
  void OnShowWindow(bool shown) override { notices.push_back(shown ? "shown" : "hidden"); }
  void OnCancel() override { notices.push_back("cancel"); }
  std::vector<std::string> notices;  // UI thread
};

class WindowFixture : public ::testing::Test {
 protected:
  WindowFixture() {
    window.AddPage("First", first);
    window.AddPage("Second", second);
    ui = platform::ParticipantThread([this] { loop.Run(); });
  }
  ~WindowFixture() override {
    window.Shutdown();
    loop.Quit(0);
    platform::Join(ui);
  }

  // Runs `fn` on the UI thread and waits until it (and every task posted before) has run.
  void OnUi(const std::function<void()>& fn = [] {}) {
    std::mutex m;
    bool done = false;
    loop.Post([&] {
      fn();
      {
        std::lock_guard lock(m);
        done = true;
      }
      clock.NotifyAll();
    });
    std::unique_lock lock(m);
    clock.WaitUntil(lock, platform::kNever, [&] { return done; });
  }

  // A browser that has connected and received its full state.
  std::shared_ptr<FakeBrowser> Connect(ui::Window::ClientId* id = nullptr) {
    auto browser = std::make_shared<FakeBrowser>();
    const auto client = window.Attach(browser);
    if (id) *id = client;
    OnUi();
    return browser;
  }

  void Receive(ui::Window::ClientId client, const json& message) {
    window.Receive(client, message.dump());
  }

  platform::VirtualClock clock;
  platform::ScopedClock scoped{clock};
  platform::ClockParticipant self{clock};
  LogRecorder log;
  platform::TaskLoop loop;
  RecordingPage first{"/pages/first.html"};
  RecordingPage second{"/pages/second.html"};
  ui::Window window{loop};
  std::thread ui;
};

}  // namespace testing_support
