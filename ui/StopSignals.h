// Ends the UI loop on SIGINT or SIGTERM, the way the window's Close does. Make it on the main
// thread before any other thread starts: it blocks the two signals for the whole process and
// takes them on a thread of its own (sigwait), so no handler runs at an unsafe moment.
#pragma once

#include <atomic>
#include <thread>

#include "platform/TaskLoop.h"

namespace ui {

class StopSignals {
 public:
  StopSignals(platform::TaskLoop& loop, int quitCode);
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // Whether SIGINT or SIGTERM has come (any thread).
  bool Received() const { return received_; }

 private:
  std::atomic<bool> ending_{false};
  std::atomic<bool> received_{false};
  std::thread thread_;
};

}  // namespace ui
