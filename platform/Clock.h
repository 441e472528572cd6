// The one source of time for the whole program: timers, sleeps of worker threads, the channel's
// reply and cancel waits, and the simulator's physics all wait through a Clock.
//
// Two implementations exist. RealClock follows the steady clock. VirtualClock is deterministic:
// its time stands still while any participating thread runs, and jumps to the earliest pending
// deadline once every participating thread waits inside the clock (and no socket that one of them
// waits on has data). A test can so run a minute of machine time in milliseconds, and a test that
// does not advance time by waiting cannot be flaky about time.
//
// The process has one current clock (time is process-wide); tests install a VirtualClock with
// ScopedClock before they start any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace platform {

using Duration = std::chrono::nanoseconds;
using TimePoint = std::chrono::steady_clock::time_point;

// A deadline that never comes.
inline constexpr TimePoint kNever = TimePoint::max();

inline Duration Milliseconds(std::int64_t ms) {
  return std::chrono::milliseconds(ms);
}

class Clock {
 public:
  virtual ~Clock() = default;

  virtual TimePoint Now() = 0;

  // Waits until pred() holds or the deadline passes, and returns pred() as it last stood.
  // `lock` holds the std::mutex that guards what pred reads; it is released while waiting and
  // held again whenever pred runs. Whoever changes that state must call NotifyAll afterwards
  // (with or without the lock held); there is no other wake-up. pred may also read state that
  // other locks guard (several events at once): a NotifyAll after such a change is never lost.
  virtual bool WaitUntil(std::unique_lock<std::mutex>& lock, TimePoint deadline,
                         const std::function<bool()>& pred) = 0;

  // Wakes every WaitUntil of this clock so that each tests its predicate again.
  virtual void NotifyAll() = 0;

  virtual void SleepUntil(TimePoint deadline) = 0;

  // Waits until `fd` is readable (data, end of stream or error pending) or the deadline passes.
  // Returns 1 when readable, 0 at the deadline, -1 when poll itself failed.
  virtual int WaitReadable(int fd, TimePoint deadline) = 0;

  // A thread that takes part in time: while it runs, virtual time stands still. Threads of the
  // program and of the simulator enter once at their start (ClockParticipant does it). Waits of a
  // thread that never entered neither hold nor push virtual time.
  virtual void EnterParticipant() = 0;
  // Returns whether the calling thread was a participant.
  virtual bool LeaveParticipant() = 0;
  // The two halves of EnterParticipant, for a thread being started: the starting thread reserves
  // the place (so that time cannot move before the new thread gets going) and the new thread
  // adopts it. ParticipantThread does both.
  virtual void ReserveParticipant() = 0;
  virtual void AdoptParticipant() = 0;

  void SleepFor(Duration d) { SleepUntil(Deadline(d)); }
  // Now() + d, saturating at kNever; a negative d is "now".
  TimePoint Deadline(Duration d);

  // The process's current clock: a RealClock unless a test installed another.
  static Clock& Current();

 private:
  friend class ScopedClock;
  static Clock* Install(Clock* clock);
};

// Makes `clock` the current clock for its lifetime. Install before any thread that uses the clock
// starts, and end after all of them ended.
class ScopedClock {
 public:
  explicit ScopedClock(Clock& clock) : previous_(Clock::Install(&clock)) {}
  ~ScopedClock() { Clock::Install(previous_); }
  ScopedClock(const ScopedClock&) = delete;
  ScopedClock& operator=(const ScopedClock&) = delete;

 private:
  Clock* previous_;
};

// Registers the calling thread as a participant of the current clock for its scope.
class ClockParticipant {
 public:
  ClockParticipant() : clock_(Clock::Current()) { clock_.EnterParticipant(); }
  explicit ClockParticipant(Clock& clock) : clock_(clock) { clock_.EnterParticipant(); }
  ~ClockParticipant() { clock_.LeaveParticipant(); }
  ClockParticipant(const ClockParticipant&) = delete;
  ClockParticipant& operator=(const ClockParticipant&) = delete;

 private:
  Clock& clock_;
};

namespace detail {
// The end of a participant thread's own work, which Join waits for through the clock.
struct ThreadEnd {
  explicit ThreadEnd(Clock& c) : clock(c) {}
  Clock& clock;
  bool finished = false;  // under the lock of the registry of thread ends
};
// Makes `end` the one Join finds for thread `id` (a new thread may reuse an old one's id).
void RegisterThreadEnd(std::thread::id id, const std::shared_ptr<ThreadEnd>& end);
// Marks the work done and wakes a Join, then stops taking part in time.
void FinishThread(ThreadEnd& end);
}  // namespace detail

// A std::thread that takes part in the current clock from the moment it is made until `fn`
// returns. Every thread of the program and the simulator that waits on the clock is made so, and
// is ended with Join (a plain join leaves its entry for Join behind until the id is reused).
template <typename Fn>
std::thread ParticipantThread(Fn&& fn) {
  Clock& clock = Clock::Current();
  clock.ReserveParticipant();
  auto end = std::make_shared<detail::ThreadEnd>(clock);
  std::thread thread([&clock, end, fn = std::forward<Fn>(fn)]() mutable {
    clock.AdoptParticipant();
    fn();
    detail::FinishThread(*end);
  });
  detail::RegisterThreadEnd(thread.get_id(), end);
  return thread;
}

// Joins `thread`. A thread made by ParticipantThread is waited for through the clock until its
// work is done, so that it can still sleep or time out; the joiner takes part in time all along,
// and so holds time while the system ends the thread, which takes no virtual time however long
// it takes in real time. For any other thread the caller stops taking part in time while it waits.
void Join(std::thread& thread);

class RealClock final : public Clock {
 public:
  RealClock();
  ~RealClock() override;
  TimePoint Now() override;
  bool WaitUntil(std::unique_lock<std::mutex>& lock, TimePoint deadline,
                 const std::function<bool()>& pred) override;
  void NotifyAll() override;
  void SleepUntil(TimePoint deadline) override;
  int WaitReadable(int fd, TimePoint deadline) override;
  void EnterParticipant() override {}
  bool LeaveParticipant() override { return false; }
  void ReserveParticipant() override {}
  void AdoptParticipant() override {}

 private:
  struct State;
  std::unique_ptr<State> state_;
};

class VirtualClock final : public Clock {
 public:
  VirtualClock();
  ~VirtualClock() override;
  TimePoint Now() override;
  bool WaitUntil(std::unique_lock<std::mutex>& lock, TimePoint deadline,
                 const std::function<bool()>& pred) override;
  void NotifyAll() override;
  void SleepUntil(TimePoint deadline) override;
  int WaitReadable(int fd, TimePoint deadline) override;
  void EnterParticipant() override;
  bool LeaveParticipant() override;
  void ReserveParticipant() override;
  void AdoptParticipant() override;

  // Moves time forward by hand (from a thread that is not waiting), waking what became due.
  void Advance(Duration d);
  // Time elapsed since the clock was made.
  Duration Elapsed();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// A manual-reset event on the current clock: the stand-in for the system's event objects.
class Event {
 public:
  explicit Event(bool signalled = false) : signalled_(signalled) {}
  void Set();
  void Reset();
  // Releases every thread waiting at this moment; the event stays as it was.
  void Pulse();
  bool IsSet();
  // True when the event was signalled, or pulsed while this call waited, before the deadline.
  bool WaitUntil(TimePoint deadline);

 private:
  std::mutex mutex_;
  bool signalled_;
  std::uint64_t pulses_ = 0;
};

}  // namespace platform
