#include "platform/WindowProbe.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "platform/DeviceIo.h"
#include "tests/support/TempDirs.h"

namespace platform {
namespace {

// Keeping a window and closing it are met where the simulator poses as the application; here
// its holder dies without closing it, as a crashed application would.
TEST(WindowProbeTest, AHolderThatDiesTakesItsWindowWithIt) {
  testing_support::TempDeviceDir devices;
  int toChild[2];
  int fromChild[2];
  ASSERT_EQ(::pipe(toChild), 0);
  ASSERT_EQ(::pipe(fromChild), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(toChild[1]);  // or the read below never sees the parent hang up
    WindowOfClass app("MiravaAppFrame");
    const char ready = app.Open() ? 'y' : 'n';
    (void)!::write(fromChild[1], &ready, 1);
    char go;
    (void)!::read(toChild[0], &go, 1);  // until the parent hangs up
    std::_Exit(0);                      // without closing: the kernel drops the lock
  }
  char ready = 0;
  ASSERT_EQ(::read(fromChild[0], &ready, 1), 1);
  EXPECT_EQ(ready, 'y');
  EXPECT_TRUE(FindWindowOfClass("MiravaAppFrame"));
  ::close(toChild[1]);
  ::waitpid(child, nullptr, 0);
  EXPECT_FALSE(FindWindowOfClass("MiravaAppFrame"));
  for (int fd : {toChild[0], fromChild[0], fromChild[1]})
    ::close(fd);
}

// A program that looks for the window at the moment its holder opens it must not make that open
// fail: the simulator's "app on" answered an error whenever TavroTest's probe ran just then.
TEST(WindowProbeTest, ProbingAtTheSameTimeNeverMakesAHolderFailToOpen) {
  testing_support::TempDeviceDir devices;
  constexpr int kRounds = 5000;
  std::atomic<bool> done{false};
  std::thread prober([&] {
    while (!done.load())
      FindWindowOfClass("MiravaAppFrame");
  });
  int refused = 0;
  int unseen = 0;
  for (int round = 0; round < kRounds; ++round) {
    WindowOfClass app("MiravaAppFrame");
    if (!app.Open()) {
      ++refused;
      continue;
    }
    if (!FindWindowOfClass("MiravaAppFrame")) ++unseen;
  }
  done = true;
  prober.join();
  EXPECT_EQ(refused, 0) << "of " << kRounds << " opens";
  EXPECT_EQ(unseen, 0) << "a held window the probe missed";
  EXPECT_FALSE(FindWindowOfClass("MiravaAppFrame"));
}

}  // namespace
}  // namespace platform
