// Catches what the program shows and logs, for tests to look at.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "config/ErrorLog.h"
#include "ui/MessageBox.h"

namespace testing_support {

struct ShownBox {
  std::string text;
  std::string title;
  unsigned style;
};

class MessageBoxRecorder : public ui::MessageBoxPresenter {
 public:
  MessageBoxRecorder() { ui::SetMessageBoxPresenter(this); }
  ~MessageBoxRecorder() override { ui::SetMessageBoxPresenter(nullptr); }
  int Show(const std::string& text, const std::string& title, unsigned style) override {
    std::lock_guard lock(mutex_);
    boxes_.push_back({text, title, style});
    return ui::kIdOk;
  }
  std::vector<ShownBox> Boxes() {
    std::lock_guard lock(mutex_);
    return boxes_;
  }

 private:
  std::mutex mutex_;
  std::vector<ShownBox> boxes_;
};

// Keeps the messages of the log entries (the text after the prefix's "): ").
class LogRecorder {
 public:
  LogRecorder() {
    errorlog::SetErrorLogSink([this](const std::string& entry) {
      std::lock_guard lock(mutex_);
      entries_.push_back(entry);
    });
  }
  ~LogRecorder() { errorlog::SetErrorLogSink(nullptr); }
  std::vector<std::string> Entries() {
    std::lock_guard lock(mutex_);
    return entries_;
  }
  std::vector<std::string> Messages() {
    std::vector<std::string> out;
    for (auto& e : Entries()) {
      const auto at = e.find("): ");
      out.push_back(at == std::string::npos ? e : e.substr(at + 3));
    }
    return out;
  }
  // The source file name of each entry: the prefix's text between the thread's "), " and the
  // line number's "(".
  std::vector<std::string> Sources() {
    std::vector<std::string> out;
    for (auto& e : Entries()) {
      const auto thread = e.find("(0x");
      const auto from = thread == std::string::npos ? thread : e.find("), ", thread);
      if (from == std::string::npos) {
        out.push_back(e);
        continue;
      }
      out.push_back(e.substr(from + 3, e.find('(', from + 3) - (from + 3)));
    }
    return out;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> entries_;
};

}  // namespace testing_support

#include <gtest/gtest.h>

#include "platform/Clock.h"
#include "tests/support/ScriptedBoard.h"

namespace testing_support {

// What every test of the link needs: virtual time with the test's thread taking part, a private
// device folder, and the boxes and log entries the code under test produced.
class LinkFixture : public ::testing::Test {
 protected:
  platform::VirtualClock clock;
  platform::ScopedClock scoped{clock};
  platform::ClockParticipant self{clock};
  TempDeviceDir dir;
  MessageBoxRecorder boxes;
  LogRecorder log;

  std::int64_t ElapsedMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock.Elapsed()).count();
  }
};

}  // namespace testing_support
