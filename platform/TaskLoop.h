// The user-interface thread's loop: a queue of tasks posted from any thread, and numbered
// periodic timers, all run on the one thread that calls Run. Waiting goes through the current
// Clock, so the loop runs in virtual time under test.
//
// Timers behave like the window system's: a timer is served only when no posted task is waiting,
// it never queues up missed ticks (a late timer fires once and is rescheduled a whole period after
// that moment), and timers due at the same moment fire in the order of their ids.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "platform/Clock.h"

namespace platform {

class TaskLoop {
 public:
  using Task = std::function<void()>;
  using TimerHandler = std::function<void(unsigned timerId)>;

  TaskLoop() = default;
  TaskLoop(const TaskLoop&) = delete;
  TaskLoop& operator=(const TaskLoop&) = delete;

  // Queues a task; returns false (and drops it) once the loop has ended.
  bool Post(Task task);

  // Starts or restarts timer `id` (ids are 1 and up); its first tick comes one period from now.
  // False, and no timer, for id 0, a period below 1 ms, or a loop that has ended.
  bool SetTimer(unsigned id, Duration period, TimerHandler handler);
  void KillTimer(unsigned id);

  // Runs tasks and timers on the calling thread until Quit; returns Quit's code.
  int Run();
  // Runs tasks and timers, as Run does, until `done` holds after a task or a tick (true), or
  // until Quit (false; a later Run then returns at once). For a modal wait on the loop's own
  // thread before the loop proper runs, such as a message box at start-up; not while Run or
  // another RunUntil is under way on this loop (returns false at once).
  bool RunUntil(const std::function<bool()>& done);
  // True while Run or RunUntil is under way.
  bool Running();
  // Ends Run after the task under way; callable from any thread.
  void Quit(int code);

  // True on the thread inside Run.
  bool OnLoopThread();

 private:
  struct Timer {
    Duration period;
    TimePoint due;
    TimerHandler handler;
  };
  // The next timer to fire at `now`, or 0 when none is due; the earliest due time goes to `next`.
  unsigned DueTimer(TimePoint now, TimePoint& next);
  // The loop of Run and RunUntil; `done` may be null. Returns true when `done` ended it.
  bool Loop(const std::function<bool()>* done);
  // After a quit: no more tasks or timers; returns the quit's code.
  int End();

  std::mutex mutex_;
  std::deque<Task> tasks_;
  std::map<unsigned, Timer> timers_;
  bool running_ = false;
  bool ended_ = false;
  bool quit_ = false;
  int quitCode_ = 0;
  std::uint64_t timerChanges_ = 0;  // wakes the idle loop when a timer is set anew
  std::thread::id loopThread_;
};

}  // namespace platform
