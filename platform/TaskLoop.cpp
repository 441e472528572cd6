#include "platform/TaskLoop.h"

namespace platform {

bool TaskLoop::Post(Task task) {
  {
    std::lock_guard lock(mutex_);
    if (ended_) return false;
    tasks_.push_back(std::move(task));
  }
  Clock::Current().NotifyAll();
  return true;
}

bool TaskLoop::SetTimer(unsigned id, Duration period, TimerHandler handler) {
  if (id == 0 || period < std::chrono::milliseconds(1)) return false;
  Clock& clock = Clock::Current();
  const TimePoint due = clock.Deadline(period);
  {
    std::lock_guard lock(mutex_);
    if (ended_) return false;
    timers_[id] = Timer{period, due, std::move(handler)};
    ++timerChanges_;
  }
  clock.NotifyAll();
  return true;
}

void TaskLoop::KillTimer(unsigned id) {
  std::lock_guard lock(mutex_);
  timers_.erase(id);
}

void TaskLoop::Quit(int code) {
  {
    std::lock_guard lock(mutex_);
    if (!quit_) quitCode_ = code;
    quit_ = true;
  }
  Clock::Current().NotifyAll();
}

bool TaskLoop::OnLoopThread() {
  std::lock_guard lock(mutex_);
  return running_ && loopThread_ == std::this_thread::get_id();
}

unsigned TaskLoop::DueTimer(TimePoint now, TimePoint& next) {
  next = kNever;
  unsigned firing = 0;
  TimePoint firingDue = kNever;
  for (auto& [id, timer] : timers_) {
    // std::map iterates by id, so on equal due times the lowest id wins.
    if (timer.due <= now && timer.due < firingDue) {
      firing = id;
      firingDue = timer.due;
    }
    if (timer.due < next) next = timer.due;
  }
  return firing;
}

int TaskLoop::Run() {
  Loop(nullptr);
  return End();
}

int TaskLoop::End() {
  std::lock_guard lock(mutex_);
  ended_ = true;
  tasks_.clear();
  return quitCode_;
}

bool TaskLoop::RunUntil(const std::function<bool()>& done) {
  {
    std::lock_guard lock(mutex_);
    if (running_) return false;
  }
  if (Loop(&done)) return true;
  End();
  return false;
}

bool TaskLoop::Running() {
  std::lock_guard lock(mutex_);
  return running_;
}

bool TaskLoop::Loop(const std::function<bool()>* done) {
  Clock& clock = Clock::Current();
  std::unique_lock lock(mutex_);
  running_ = true;
  loopThread_ = std::this_thread::get_id();
  bool finished = done != nullptr && (*done)();
  while (!quit_ && !finished) {
    if (!tasks_.empty()) {
      Task task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      finished = done != nullptr && (*done)();
      lock.lock();
      continue;
    }
    TimePoint next;
    const unsigned id = DueTimer(clock.Now(), next);
    if (id != 0) {
      Timer& timer = timers_[id];
      const TimePoint now = clock.Now();
      timer.due += timer.period;
      if (timer.due <= now) timer.due = now + timer.period;
      TimerHandler handler = timer.handler;
      lock.unlock();
      handler(id);
      finished = done != nullptr && (*done)();
      lock.lock();
      continue;
    }
    const std::uint64_t seen = timerChanges_;
    clock.WaitUntil(lock, next, [&] { return quit_ || !tasks_.empty() || timerChanges_ != seen; });
  }
  running_ = false;
  return finished;
}

}  // namespace platform
