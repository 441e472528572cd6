#include "platform/Clock.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <list>
#include <map>
#include <thread>
#include <vector>

namespace platform {

namespace {

std::atomic<Clock*> g_installed{nullptr};

// Milliseconds for poll(): rounded up so that a wait never ends before its deadline; -1 for none.
int PollTimeout(TimePoint now, TimePoint deadline) {
  if (deadline == kNever) return -1;
  if (deadline <= now) return 0;
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
  return ms > 1'000'000 ? 1'000'000 : static_cast<int>(ms);
}

bool Readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) > 0;
}

// One eventfd per thread, used to break a thread out of poll() when virtual time reaches its
// deadline. Made on first use, closed when the thread ends.
class WakeFd {
 public:
  WakeFd() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
  ~WakeFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  WakeFd(const WakeFd&) = delete;
  WakeFd& operator=(const WakeFd&) = delete;
  int fd() const { return fd_; }
  void Drain() const {
    std::uint64_t v;
    while (::read(fd_, &v, sizeof v) > 0) {
    }
  }
  static void Signal(int fd) {
    const std::uint64_t one = 1;
    [[maybe_unused]] auto n = ::write(fd, &one, sizeof one);
  }

 private:
  int fd_;
};

WakeFd& ThreadWakeFd() {
  thread_local WakeFd wake;
  return wake;
}

// Which clocks the calling thread takes part in (a thread may enter the same clock twice).
std::vector<const Clock*>& ThreadParticipation() {
  thread_local std::vector<const Clock*> clocks;
  return clocks;
}

bool ThreadParticipates(const Clock* clock) {
  const auto& v = ThreadParticipation();
  return std::find(v.begin(), v.end(), clock) != v.end();
}

}  // namespace

namespace {

// The ends of the participant threads not yet joined with Join, by thread.
struct ThreadEnds {
  std::mutex mutex;
  std::map<std::thread::id, std::shared_ptr<detail::ThreadEnd>> byThread;
};

ThreadEnds& Ends() {
  static ThreadEnds ends;
  return ends;
}

}  // namespace

void detail::RegisterThreadEnd(std::thread::id id, const std::shared_ptr<ThreadEnd>& end) {
  std::lock_guard lock(Ends().mutex);
  Ends().byThread[id] = end;
}

void detail::FinishThread(ThreadEnd& end) {
  {
    std::lock_guard lock(Ends().mutex);
    end.finished = true;
  }
  end.clock.NotifyAll();
  end.clock.LeaveParticipant();
}

void Join(std::thread& thread) {
  if (!thread.joinable()) return;
  std::shared_ptr<detail::ThreadEnd> end;
  {
    std::lock_guard lock(Ends().mutex);
    const auto it = Ends().byThread.find(thread.get_id());
    if (it != Ends().byThread.end()) {
      end = std::move(it->second);
      Ends().byThread.erase(it);
    }
  }
  if (end) {
    // Waiting through the clock lets the thread sleep or time out to its end. Once its work is
    // done the joiner runs again, and holds time while the system ends the thread.
    std::unique_lock lock(Ends().mutex);
    end->clock.WaitUntil(lock, kNever, [&] { return end->finished; });
    lock.unlock();
    thread.join();
    return;
  }
  // Not a participant thread: it may wait on time that only the other participants can move.
  Clock& clock = Clock::Current();
  const bool participated = clock.LeaveParticipant();
  thread.join();
  if (participated) clock.EnterParticipant();
}

TimePoint Clock::Deadline(Duration d) {
  const TimePoint now = Now();
  if (d <= Duration::zero()) return now;
  if (d >= kNever - now) return kNever;
  return now + d;
}

Clock& Clock::Current() {
  static RealClock real;
  Clock* installed = g_installed.load(std::memory_order_acquire);
  return installed ? *installed : real;
}

Clock* Clock::Install(Clock* clock) {
  return g_installed.exchange(clock, std::memory_order_acq_rel);
}

// ---------------------------------------------------------------------------------------------
// RealClock: every waiter of WaitUntil sleeps on one condition variable; NotifyAll bumps a
// generation so that a notification between the predicate test and the wait is never lost, even
// one about state that `lock` does not guard (a wait on several events at once).

struct RealClock::State {
  std::mutex mutex;
  std::condition_variable cv;
  std::uint64_t generation = 0;
};

RealClock::RealClock() : state_(std::make_unique<State>()) {}
RealClock::~RealClock() = default;

TimePoint RealClock::Now() {
  return std::chrono::steady_clock::now();
}

bool RealClock::WaitUntil(std::unique_lock<std::mutex>& lock, TimePoint deadline,
                          const std::function<bool()>& pred) {
  for (;;) {
    // The generation is taken before the predicate runs: a change made (and notified) by a
    // thread that does not hold `lock` between the test and the wait must still end the wait.
    std::uint64_t seen;
    {
      std::lock_guard guard(state_->mutex);
      seen = state_->generation;
    }
    if (pred()) return true;
    if (Now() >= deadline) return false;
    std::unique_lock guard(state_->mutex);
    lock.unlock();
    const auto changed = [&] { return state_->generation != seen; };
    if (deadline == kNever) {
      state_->cv.wait(guard, changed);
    } else {
      state_->cv.wait_until(guard, deadline, changed);
    }
    guard.unlock();
    lock.lock();
  }
}

void RealClock::NotifyAll() {
  {
    std::lock_guard guard(state_->mutex);
    ++state_->generation;
  }
  state_->cv.notify_all();
}

void RealClock::SleepUntil(TimePoint deadline) {
  if (deadline == kNever) {
    // Nothing ends such a sleep; keep the thread parked for good rather than spin.
    std::unique_lock guard(state_->mutex);
    state_->cv.wait(guard, [] { return false; });
  }
  std::this_thread::sleep_until(deadline);
}

int RealClock::WaitReadable(int fd, TimePoint deadline) {
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    const int n = ::poll(&p, 1, PollTimeout(Now(), deadline));
    if (n > 0) return 1;
    if (n < 0 && errno != EINTR) return -1;
    if (n == 0 && Now() >= deadline) return 0;
  }
}

// ---------------------------------------------------------------------------------------------
// VirtualClock. Every wait registers a Waiter. `waiting` counts the participants that are inside
// a wait and have not been woken yet; when it reaches `participants`, nothing can happen any more
// without time passing, so time jumps to the earliest deadline. A waiter is marked woken (and
// stops counting as waiting) by whoever wakes it, before it actually runs, so that time cannot
// jump again in the gap between the wake-up and the thread getting the processor.

struct VirtualClock::State {
  enum class Kind { kCondition, kSleep, kReadable };
  struct Waiter {
    Kind kind;
    TimePoint deadline;
    int fd = -1;
    int wakeFd = -1;
    bool counted = false;
    bool woken = false;
  };

  std::mutex mutex;
  std::condition_variable cv;
  TimePoint now = TimePoint{} + std::chrono::hours(1);
  std::uint64_t generation = 0;
  int participants = 0;
  int waiting = 0;
  std::list<Waiter*> waiters;

  void Wake(Waiter& w) {
    if (w.woken) return;
    w.woken = true;
    if (w.counted) --waiting;
    if (w.kind == Kind::kReadable) WakeFd::Signal(w.wakeFd);
  }

  void Add(Waiter& w) {
    waiters.push_back(&w);
    if (w.counted) ++waiting;
  }

  void Remove(Waiter& w) {
    if (!w.woken && w.counted) --waiting;
    w.woken = true;
    waiters.remove(&w);
  }

  // Called with `mutex` held whenever a participant may have stopped running.
  void MaybeAdvance() {
    if (waiting < participants) return;
    TimePoint earliest = kNever;
    for (Waiter* w : waiters) {
      if (w->woken) continue;
      // Data on a socket that a waiter watches wakes that waiter without any help from time.
      if (w->kind == Kind::kReadable && Readable(w->fd)) return;
      earliest = std::min(earliest, w->deadline);
    }
    if (earliest == kNever) return;
    if (earliest > now) now = earliest;
    for (Waiter* w : waiters) {
      if (!w->woken && w->deadline <= now) Wake(*w);
    }
    cv.notify_all();
  }
};

VirtualClock::VirtualClock() : state_(std::make_unique<State>()) {}
VirtualClock::~VirtualClock() = default;

TimePoint VirtualClock::Now() {
  std::lock_guard guard(state_->mutex);
  return state_->now;
}

Duration VirtualClock::Elapsed() {
  return Now() - (TimePoint{} + std::chrono::hours(1));
}

bool VirtualClock::WaitUntil(std::unique_lock<std::mutex>& lock, TimePoint deadline,
                             const std::function<bool()>& pred) {
  State& s = *state_;
  for (;;) {
    // As with the real clock: the generation before the predicate, so that no notice is lost.
    std::uint64_t seen;
    {
      std::lock_guard guard(s.mutex);
      seen = s.generation;
    }
    if (pred()) return true;
    std::unique_lock guard(s.mutex);
    if (s.now >= deadline) return false;
    if (s.generation != seen) continue;  // noticed meanwhile: test again before time may move
    lock.unlock();
    State::Waiter w{State::Kind::kCondition, deadline};
    w.counted = ThreadParticipates(this);
    s.Add(w);
    s.MaybeAdvance();
    s.cv.wait(guard, [&] { return w.woken || s.generation != seen; });
    s.Remove(w);
    guard.unlock();
    lock.lock();
  }
}

void VirtualClock::NotifyAll() {
  State& s = *state_;
  {
    std::lock_guard guard(s.mutex);
    ++s.generation;
    for (State::Waiter* w : s.waiters) {
      if (w->kind == State::Kind::kCondition) s.Wake(*w);
    }
  }
  s.cv.notify_all();
}

void VirtualClock::SleepUntil(TimePoint deadline) {
  State& s = *state_;
  std::unique_lock guard(s.mutex);
  while (s.now < deadline) {
    State::Waiter w{State::Kind::kSleep, deadline};
    w.counted = ThreadParticipates(this);
    s.Add(w);
    s.MaybeAdvance();
    s.cv.wait(guard, [&] { return w.woken; });
    s.Remove(w);
  }
}

int VirtualClock::WaitReadable(int fd, TimePoint deadline) {
  State& s = *state_;
  WakeFd& wake = ThreadWakeFd();
  for (;;) {
    std::unique_lock guard(s.mutex);
    if (Readable(fd)) return 1;
    if (s.now >= deadline) return 0;
    wake.Drain();
    State::Waiter w{State::Kind::kReadable, deadline, fd, wake.fd()};
    w.counted = ThreadParticipates(this);
    s.Add(w);
    s.MaybeAdvance();
    guard.unlock();

    pollfd p[2] = {{fd, POLLIN, 0}, {wake.fd(), POLLIN, 0}};
    int n;
    do {
      n = ::poll(p, 2, -1);
    } while (n < 0 && errno == EINTR);

    guard.lock();
    s.Remove(w);
    if (n < 0) return -1;
  }
}

void VirtualClock::EnterParticipant() {
  ThreadParticipation().push_back(this);
  std::lock_guard guard(state_->mutex);
  ++state_->participants;
}

void VirtualClock::ReserveParticipant() {
  std::lock_guard guard(state_->mutex);
  ++state_->participants;
}

void VirtualClock::AdoptParticipant() {
  ThreadParticipation().push_back(this);
}

bool VirtualClock::LeaveParticipant() {
  auto& v = ThreadParticipation();
  const auto it = std::find(v.begin(), v.end(), this);
  if (it == v.end()) return false;
  v.erase(it);
  std::lock_guard guard(state_->mutex);
  --state_->participants;
  state_->MaybeAdvance();
  return true;
}

void VirtualClock::Advance(Duration d) {
  State& s = *state_;
  {
    std::lock_guard guard(s.mutex);
    s.now += d;
    for (State::Waiter* w : s.waiters) {
      if (!w->woken && w->deadline <= s.now) s.Wake(*w);
    }
  }
  s.cv.notify_all();
}

// ---------------------------------------------------------------------------------------------

void Event::Set() {
  {
    std::lock_guard guard(mutex_);
    signalled_ = true;
  }
  Clock::Current().NotifyAll();
}

void Event::Reset() {
  std::lock_guard guard(mutex_);
  signalled_ = false;
}

void Event::Pulse() {
  {
    std::lock_guard guard(mutex_);
    ++pulses_;
  }
  Clock::Current().NotifyAll();
}

bool Event::IsSet() {
  std::lock_guard guard(mutex_);
  return signalled_;
}

bool Event::WaitUntil(TimePoint deadline) {
  std::unique_lock lock(mutex_);
  const std::uint64_t seen = pulses_;
  return Clock::Current().WaitUntil(lock, deadline, [&] { return signalled_ || pulses_ != seen; });
}

}  // namespace platform
