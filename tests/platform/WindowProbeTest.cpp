#include "platform/WindowProbe.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/DeviceIo.h"
#include "tests/support/TempDirs.h"

namespace platform {
namespace {

class WindowProbeTest : public ::testing::Test {
 protected:
  testing_support::TempDeviceDir devices;
};

// Keeping a window and closing it are met where the simulator poses as the application; here
// its holder dies without closing it.
TEST_F(WindowProbeTest, AHolderThatDiesTakesItsWindowWithIt) {
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
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_FALSE(FindWindowOfClass("MiravaAppFrame"));
  ::close(toChild[0]);
  ::close(fromChild[0]);
  ::close(fromChild[1]);
}

}  // namespace
}  // namespace platform
