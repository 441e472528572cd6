// The sleep watcher against a message bus of the test's own, on which the test plays logind.
#include "platform/PowerEvents.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TempDirs.h"

namespace platform {
namespace {

using std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr char kDaemon[] = "/usr/bin/dbus-daemon";
constexpr auto kPatience = 10s;  // for anything the bus should do in milliseconds

// A dbus-daemon in a temporary folder that lets every client own any name.
class PrivateBus {
 public:
  PrivateBus() {
    std::ofstream(dir_ / "bus.conf")
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><listen>unix:path="
        << dir_.Path()
        << "/bus</listen><auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
           "<allow own=\"*\"/></policy></busconfig>\n";
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return;
    const std::string config = "--config-file=" + (dir_ / "bus.conf");
    pid_ = ::fork();
    if (pid_ == 0) {  // nothing that allocates from here on
      if (out[1] == 3) {
        ::fcntl(3, F_SETFD, 0);
      } else {
        ::dup2(out[1], 3);  // the copy is not closed on exec
      }
      // Its complaints (a file limit it may not raise here) are noise.
      const int null = ::open("/dev/null", O_WRONLY);
      if (null >= 0) ::dup2(null, 2);
      ::execl(kDaemon, "dbus-daemon", "--nofork", "--print-address=3", config.c_str(),
              static_cast<char*>(nullptr));
      std::_Exit(127);
    }
    ::close(out[1]);
    pollfd ready{out[0], POLLIN, 0};
    char buffer[512];
    if (pid_ > 0 && ::poll(&ready, 1, 10'000) == 1) {
      const ssize_t n = ::read(out[0], buffer, sizeof buffer);
      if (n > 0) address_.assign(buffer, static_cast<std::size_t>(n));
    }
    ::close(out[0]);
    while (!address_.empty() && address_.back() == '\n')
      address_.pop_back();
  }
  ~PrivateBus() { Kill(); }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  void Kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  const std::string& Address() const { return address_; }

 private:
  testing_support::ScratchDir dir_;
  std::string address_;
  pid_t pid_ = -1;
};

// A client of the test's bus; with `name` it owns that name first.
class Client {
 public:
  Client(const std::string& address, const char* name) {
    if (sd_bus_new(&bus_) < 0) return;
    sd_bus_set_address(bus_, address.c_str());
    sd_bus_set_bus_client(bus_, 1);
    if (sd_bus_start(bus_) < 0 || (name && sd_bus_request_name(bus_, name, 0) < 0)) {
      bus_ = sd_bus_flush_close_unref(bus_);
    }
  }
  ~Client() { sd_bus_flush_close_unref(bus_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool Connected() const { return bus_ != nullptr; }

  void Emit(const char* path, const char* interface, const char* member, bool value) {
    ASSERT_GE(sd_bus_emit_signal(bus_, path, interface, member, "b", static_cast<int>(value)), 0);
  }
  void Emit(bool value) {
    Emit("/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForSleep", value);
  }
  void EmitText(const char* text) {
    ASSERT_GE(sd_bus_emit_signal(bus_, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                 "PrepareForSleep", "s", text),
              0);
  }
  // A round trip to the broker: everything this client sent before has been routed.
  void Settle() {
    sd_bus_message* reply = nullptr;
    ASSERT_GE(sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "GetId", nullptr, &reply, ""),
              0);
    sd_bus_message_unref(reply);
  }

 private:
  sd_bus* bus_ = nullptr;
};

// What the watcher's thread handed on.
class Events {
 public:
  // The events once there are `count` of them, else what came within the patience.
  std::vector<unsigned> Await(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return events_.size() >= count; });
    return events_;
  }
  SleepWatcher::Callback Sink() {
    return [this](unsigned event) {
      std::lock_guard lock(mutex_);
      events_.push_back(event);
      changed_.notify_all();
    };
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<unsigned> events_;
};

class SleepWatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access(kDaemon, X_OK) != 0) GTEST_SKIP() << "no dbus-daemon to play the system bus";
    bus_ = std::make_unique<PrivateBus>();
    ASSERT_FALSE(bus_->Address().empty()) << "dbus-daemon did not start";
  }
  std::unique_ptr<PrivateBus> bus_;
};

TEST_F(SleepWatcherTest, LogindsSleepAndWakeBecomeSuspendAndResumeAndLookAlikesAreIgnored) {
  Events events;
  SleepWatcher watcher(events.Sink());
  ASSERT_TRUE(watcher.Start(bus_->Address()));
  EXPECT_TRUE(watcher.Watching());
  EXPECT_TRUE(watcher.Start(bus_->Address())) << "already watching";
  Client logind(bus_->Address(), "org.freedesktop.login1");
  Client stranger(bus_->Address(), nullptr);
  ASSERT_TRUE(logind.Connected());
  ASSERT_TRUE(stranger.Connected());

  // The look-alikes go first (the stranger's routed before logind's), so any that got through
  // would be seen before the real ones.
  stranger.Emit(true);
  stranger.Settle();
  logind.Emit("/org/freedesktop/login1", "org.freedesktop.login1.Session", "PrepareForSleep", true);
  logind.Emit("/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForShutdown",
              true);
  logind.Emit("/org/freedesktop/login1/session/c1", "org.freedesktop.login1.Manager",
              "PrepareForSleep", true);
  logind.EmitText("true");
  logind.Emit(true);
  logind.Emit(false);
  EXPECT_EQ(events.Await(2), (std::vector<unsigned>{kPowerEventSuspend, kPowerEventResume}));
}

TEST_F(SleepWatcherTest, StopIsPromptAndTheWatchCanStartAgainOnTheSystemBus) {
  Events events;
  SleepWatcher watcher(events.Sink());
  watcher.Stop();  // before any Start
  ASSERT_TRUE(watcher.Start(bus_->Address()));
  const auto before = steady_clock::now();
  watcher.Stop();  // the thread waits on the bus with no deadline of its own
  EXPECT_LT(steady_clock::now() - before, 1s);
  EXPECT_FALSE(watcher.Watching());
  watcher.Stop();

  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus_->Address().c_str(), 1);
  const bool started = watcher.Start();
  ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  ASSERT_TRUE(started);
  Client logind(bus_->Address(), "org.freedesktop.login1");
  logind.Emit(false);
  EXPECT_EQ(events.Await(1), (std::vector<unsigned>{kPowerEventResume}));
}

TEST_F(SleepWatcherTest, ABusThatGoesAwayEndsTheWatchQuietly) {
  SleepWatcher watcher([](unsigned) {});
  ASSERT_TRUE(watcher.Start(bus_->Address()));
  bus_->Kill();
  // A watcher that spun on the dead socket instead of noticing the hang-up would stay Watching.
  const auto deadline = steady_clock::now() + kPatience;
  while (watcher.Watching() && steady_clock::now() < deadline)
    std::this_thread::yield();
  EXPECT_FALSE(watcher.Watching());
  watcher.Stop();

  PrivateBus next;
  ASSERT_FALSE(next.Address().empty());
  EXPECT_TRUE(watcher.Start(next.Address())) << "a new bus gives a new watch";
}

TEST(SleepWatcherNoBusTest, NoBusIsAQuietFalseAtOnce) {
  const std::string missing = "unix:path=/tmp/tavro-no-such-bus-" + std::to_string(::getpid());
  SleepWatcher watcher([](unsigned) {});
  ::testing::internal::CaptureStderr();
  const auto before = steady_clock::now();
  EXPECT_FALSE(watcher.Start(missing));
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", missing.c_str(), 1);
  EXPECT_FALSE(watcher.Start());
  ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  EXPECT_LT(steady_clock::now() - before, 1s);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "no bus is no error";
  EXPECT_FALSE(watcher.Watching());
}

}  // namespace
}  // namespace platform
