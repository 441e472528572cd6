#include "platform/TaskLoop.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

namespace platform {
namespace {

using std::chrono::milliseconds;

class TaskLoopTest : public ::testing::Test {
 protected:
  VirtualClock clock;
  ScopedClock scoped{clock};
  ClockParticipant self{clock};
  TaskLoop loop;

  std::int64_t ElapsedMs() {
    return std::chrono::duration_cast<milliseconds>(clock.Elapsed()).count();
  }
};

TEST_F(TaskLoopTest, FourTimersTickAtTheirRatesAndInIdOrderWhenDueTogether) {
  EXPECT_FALSE(loop.SetTimer(0, milliseconds(20), [](unsigned) {})) << "a timer needs an id";
  EXPECT_FALSE(loop.SetTimer(1, milliseconds(0), [](unsigned) {})) << "and a period";
  std::vector<std::pair<std::int64_t, unsigned>> ticks;
  auto record = [&](unsigned id) {
    ticks.emplace_back(ElapsedMs(), id);
    if (ElapsedMs() >= 1000 && id == 4) loop.Quit(7);
  };
  loop.SetTimer(1, milliseconds(20), record);
  loop.SetTimer(2, milliseconds(50), record);
  loop.SetTimer(3, milliseconds(200), record);
  loop.SetTimer(4, milliseconds(1000), record);
  EXPECT_EQ(loop.Run(), 7);

  std::map<unsigned, int> counts;
  std::vector<unsigned> atOneSecond;
  for (auto& [t, id] : ticks) {
    ++counts[id];
    if (t == 1000) atOneSecond.push_back(id);
  }
  EXPECT_EQ(counts, (std::map<unsigned, int>{{1, 50}, {2, 20}, {3, 5}, {4, 1}}));
  EXPECT_EQ(atOneSecond, (std::vector<unsigned>{1, 2, 3, 4}));
}

TEST_F(TaskLoopTest, RunUntilServesTheLoopForAModalWaitAndLeavesItUsable) {
  int ticks = 0;
  EXPECT_TRUE(loop.SetTimer(1, milliseconds(20), [&](unsigned) { ++ticks; }));
  EXPECT_TRUE(loop.RunUntil([&] { return ticks == 3; }));
  EXPECT_EQ(ElapsedMs(), 60);
  EXPECT_FALSE(loop.Running());
  EXPECT_TRUE(loop.RunUntil([] { return true; })) << "a wait already over returns at once";
  EXPECT_EQ(ElapsedMs(), 60);

  // The loop proper runs afterwards; a nested modal wait inside it is refused.
  bool nested = true;
  loop.Post([&] {
    nested = loop.RunUntil([] { return false; });
    loop.Quit(4);
  });
  EXPECT_EQ(loop.Run(), 4);
  EXPECT_FALSE(nested);
}

TEST_F(TaskLoopTest, AQuitFromAnotherThreadEndsAModalWaitAndTheLoopForGood) {
  std::thread quitter = ParticipantThread([&] {
    clock.SleepFor(milliseconds(100));
    loop.Quit(3);
  });
  EXPECT_FALSE(loop.RunUntil([] { return false; }));
  quitter.join();
  EXPECT_EQ(ElapsedMs(), 100);
  EXPECT_EQ(loop.Run(), 3);
  EXPECT_FALSE(loop.Post([] {}));
  EXPECT_FALSE(loop.SetTimer(2, milliseconds(20), [](unsigned) {}));
}

TEST_F(TaskLoopTest, PostedTasksRunFirstAndInOrder) {
  std::string order;
  loop.SetTimer(1, milliseconds(10), [&](unsigned) {
    order += "T";
    loop.KillTimer(1);
    loop.Quit(0);
  });
  std::thread poster = ParticipantThread([&] {
    loop.Post([&] { order += "a"; });
    loop.Post([&] {
      order += "b";
      clock.SleepFor(milliseconds(30));  // makes the timer due while tasks are still queued
    });
    loop.Post([&] { order += "c"; });
  });
  poster.join();
  loop.Run();
  EXPECT_EQ(order, "abcT");
}

TEST_F(TaskLoopTest, ABusyLoopDoesNotReplayMissedTicks) {
  std::vector<std::int64_t> at;
  loop.SetTimer(2, milliseconds(50), [&](unsigned) {
    at.push_back(ElapsedMs());
    if (at.size() == 1) clock.SleepFor(milliseconds(180));  // a slow handler
    if (at.size() == 3) loop.Quit(0);
  });
  loop.Run();
  EXPECT_EQ(at, (std::vector<std::int64_t>{50, 230, 280}));
}

TEST_F(TaskLoopTest, ATimerSetWhileIdleIsHonouredEarly) {
  std::int64_t firedAt = -1;
  loop.SetTimer(4, milliseconds(1000), [&](unsigned) { loop.Quit(0); });
  std::thread setter = ParticipantThread([&] {
    clock.SleepFor(milliseconds(100));
    loop.SetTimer(1, milliseconds(20), [&](unsigned) {
      firedAt = ElapsedMs();
      loop.KillTimer(1);
    });
  });
  loop.Run();
  setter.join();
  EXPECT_EQ(firedAt, 120);
}

}  // namespace
}  // namespace platform
