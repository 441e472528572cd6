#include "platform/WindowProbe.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
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

// Runs `probe` in a child and answers its verdict; a probe that waits (an open of a FIFO without
// a writer) is ended by an alarm and answers '?', so a regression fails here instead of hanging
// the suite.
char InAChild(const std::function<bool()>& probe) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(10);
    std::_Exit(probe() ? 'y' : 'n');
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? static_cast<char>(WEXITSTATUS(status)) : '?';
}

// The window folder is one other programs write to. Something planted there in the window's
// place is no window: a FIFO must not hold the UI thread that probes, nor a link lead the probe
// (or a holder) to a file elsewhere.
TEST(WindowProbeTest, AFifoOrALinkInTheWindowsPlaceIsNoWindowAndNeverWaitedFor) {
  testing_support::TempDeviceDir devices;
  testing_support::ScratchDir elsewhere;
  ASSERT_EQ(::mkdir(WindowDirectory().c_str(), 0755), 0);
  const std::string place = WindowDirectory() + "/MiravaAppFrame";

  ASSERT_EQ(::mkfifo(place.c_str(), 0666), 0);
  EXPECT_EQ(InAChild([] { return FindWindowOfClass("MiravaAppFrame"); }), 'n');
  EXPECT_EQ(InAChild([] { return WindowOfClass("MiravaAppFrame").Open(); }), 'n');
  ASSERT_EQ(::unlink(place.c_str()), 0);

  // A link to a window that is held elsewhere: the probe does not follow it.
  WindowOfClass held("MiravaAppFrame", elsewhere.Path());
  ASSERT_TRUE(held.Open());
  const std::string target = elsewhere / "MiravaAppFrame";
  ASSERT_EQ(::chmod(target.c_str(), 0600), 0);
  ASSERT_EQ(::symlink(target.c_str(), place.c_str()), 0);
  EXPECT_FALSE(FindWindowOfClass("MiravaAppFrame"));
  held.Close();
  // Nor does a holder, which would otherwise lock, and loosen, a file it was never meant to own.
  EXPECT_FALSE(WindowOfClass("MiravaAppFrame").Open());
  struct stat st {};
  ASSERT_EQ(::stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
}

}  // namespace
}  // namespace platform
