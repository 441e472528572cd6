#include "platform/Clock.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace platform {
namespace {

using std::chrono::milliseconds;

class VirtualClockTest : public ::testing::Test {
 protected:
  VirtualClock clock;
  ScopedClock scoped{clock};
  ClockParticipant self{clock};

  std::int64_t ElapsedMs() {
    return std::chrono::duration_cast<milliseconds>(clock.Elapsed()).count();
  }
};

TEST_F(VirtualClockTest, TimeAdvancesOnlyWhenEveryParticipantWaits) {
  std::mutex m;
  std::vector<std::pair<int, std::int64_t>> woke;
  std::vector<std::thread> threads;
  for (int ms : {300, 100, 200}) {
    threads.push_back(ParticipantThread([&, ms] {
      clock.SleepFor(milliseconds(ms));
      {
        std::lock_guard lock(m);
        woke.emplace_back(ms, ElapsedMs());
      }
      clock.NotifyAll();
    }));
  }
  // This thread is not waiting in the clock, so no sleeper may wake however long this takes.
  for (int i = 0; i < 1000; ++i)
    std::this_thread::yield();
  std::unique_lock lock(m);
  EXPECT_TRUE(woke.empty());
  EXPECT_EQ(ElapsedMs(), 0);
  EXPECT_TRUE(clock.WaitUntil(lock, kNever, [&] { return woke.size() == 3; }));
  lock.unlock();
  for (auto& t : threads)
    t.join();
  const std::vector<std::pair<int, std::int64_t>> inDeadlineOrder = {
      {100, 100}, {200, 200}, {300, 300}};
  EXPECT_EQ(woke, inDeadlineOrder);
}

TEST_F(VirtualClockTest, DeadlinesSaturateAndAnUnmetWaitEndsExactlyAtItsDeadline) {
  EXPECT_EQ(clock.Deadline(Duration::max()), kNever) << "saturates instead of overflowing";
  EXPECT_EQ(clock.Deadline(milliseconds(-5)), clock.Now());
  std::mutex m;
  std::unique_lock lock(m);
  EXPECT_FALSE(clock.WaitUntil(lock, clock.Deadline(milliseconds(700)), [] { return false; }));
  EXPECT_EQ(ElapsedMs(), 700);
}

TEST_F(VirtualClockTest, WaitReadableSeesDataWithoutTimePassingAndTimesOutExactly) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
  std::thread writer = ParticipantThread([&] {
    clock.SleepFor(milliseconds(40));
    ASSERT_EQ(::write(fds[1], "x", 1), 1);
  });
  EXPECT_EQ(clock.WaitReadable(fds[0], clock.Deadline(milliseconds(5000))), 1);
  EXPECT_EQ(ElapsedMs(), 40);
  writer.join();
  char c;
  ASSERT_EQ(::read(fds[0], &c, 1), 1);

  EXPECT_EQ(clock.WaitReadable(fds[0], clock.Deadline(milliseconds(5000))), 0);
  EXPECT_EQ(ElapsedMs(), 5040);

  ::close(fds[1]);  // a hang-up counts as readable: the reader must learn of it
  EXPECT_EQ(clock.WaitReadable(fds[0], kNever), 1);
  ::close(fds[0]);
}

// A wait on state that its lock does not guard (two events at once, as the channel waits for a
// reply or a cancel): the state changes and is notified right after the predicate read it and
// before the clock sleeps. The notice must end the wait; missing it cost the channel a 5 s
// reply time-out while a motor kept running.
template <typename AClock>
bool NoticeAfterThePredicateEndsTheWait(AClock& clock, TimePoint deadline) {
  std::mutex unrelated;
  std::unique_lock lock(unrelated);
  std::atomic<bool> set{false};
  bool poked = false;
  return clock.WaitUntil(lock, deadline, [&] {
    const bool was = set.load();
    if (!poked) {  // what another thread does in that gap
      poked = true;
      set = true;
      clock.NotifyAll();
    }
    return was;
  });
}

TEST_F(VirtualClockTest, ANoticeBetweenThePredicateAndTheWaitIsNotLost) {
  EXPECT_TRUE(NoticeAfterThePredicateEndsTheWait(clock, clock.Deadline(milliseconds(5000))));
  EXPECT_EQ(ElapsedMs(), 0) << "the wait ran into its deadline";
}

// A thread that has done its work may still take a while, in real time, to end: the system has
// not run it yet. A Join must not let virtual time run meanwhile, as nothing the joiner waits for
// takes time. Here the worker's end is held open (its closure's destructor waits for a gate) until
// the main thread's wait is woken after the worker's work is done: by the notice of its end, or by
// the wait's deadline, which comes only if time ran while the joiner sat in the join.
TEST_F(VirtualClockTest, AJoinHoldsTimeWhileTheJoinedThreadEnds) {
  struct HeldEnd {
    explicit HeldEnd(std::shared_future<void> g) : gate(std::move(g)) {}
    HeldEnd(HeldEnd&&) = default;  // the moved-from copies on the starting thread do not wait
    std::shared_future<void> gate;
    ~HeldEnd() {
      if (gate.valid()) gate.wait();
    }
  };
  std::promise<void> open;
  std::once_flag opened;
  const auto letEnd = [&] { std::call_once(opened, [&] { open.set_value(); }); };
  std::mutex m;
  bool workDone = false;
  bool joined = false;
  std::int64_t joinedAtMs = -1;
  // The sleep ends only once the main thread waits below, so its work is not done before.
  std::thread worker = ParticipantThread([&, end = HeldEnd{open.get_future().share()}] {
    clock.SleepFor(milliseconds(1));
    std::lock_guard lock(m);
    workDone = true;
  });
  std::thread joiner = ParticipantThread([&] {
    Join(worker);
    std::lock_guard lock(m);
    joined = true;
    joinedAtMs = ElapsedMs();
    clock.NotifyAll();
  });
  std::unique_lock lock(m);
  const bool before = clock.WaitUntil(lock, clock.Deadline(milliseconds(1000)), [&] {
    if (workDone) letEnd();
    return joined;
  });
  lock.unlock();
  letEnd();
  Join(joiner);
  EXPECT_TRUE(before) << "time ran to the deadline while the joiner waited for the thread to end";
  EXPECT_EQ(joinedAtMs, 1);
}

TEST(RealClockTest, ANoticeBetweenThePredicateAndTheWaitIsNotLost) {
  RealClock clock;
  const auto start = clock.Now();
  EXPECT_TRUE(NoticeAfterThePredicateEndsTheWait(clock, clock.Deadline(std::chrono::seconds(60))));
  EXPECT_LT(clock.Now() - start, std::chrono::seconds(30)) << "the wait ran into its deadline";
}

TEST(RealClockTest, NotifyEndsAWaitAndAnElapsedDeadlineReturnsAtOnce) {
  RealClock clock;
  std::mutex m;
  bool flag = false;
  std::thread t([&] {
    {
      std::lock_guard lock(m);
      flag = true;
    }
    clock.NotifyAll();
  });
  std::unique_lock lock(m);
  EXPECT_TRUE(clock.WaitUntil(lock, kNever, [&] { return flag; }));
  lock.unlock();
  t.join();
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
  EXPECT_EQ(clock.WaitReadable(fds[0], clock.Now()), 0);
  ::close(fds[0]);
  ::close(fds[1]);
}

}  // namespace
}  // namespace platform
