// The stand-in for the power broadcast a window gets when the computer goes to sleep and wakes:
// logind announces both on the system bus as PrepareForSleep(true) before the sleep and
// PrepareForSleep(false) after it, and SleepWatcher turns them into the broadcast's two events.
//
// A computer without a system bus (a container, a minimal install) simply gets no notices: Start
// says false and stays quiet, and the program goes on without them.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

struct sd_bus;
struct sd_bus_slot;

namespace platform {

// The power broadcast's events as SleepWatcher hands them on.
inline constexpr unsigned kPowerEventSuspend = 4;  // the computer is about to sleep
inline constexpr unsigned kPowerEventResume = 7;   // it woke again

class SleepWatcher {
 public:
  using Callback = std::function<void(unsigned event)>;

  // `onEvent` gets kPowerEventSuspend or kPowerEventResume. It runs on the watcher's own thread,
  // one call at a time and never after Stop has returned; a user-interface caller posts to its
  // loop from it. It must not call Start or Stop on its own watcher.
  explicit SleepWatcher(Callback onEvent);
  ~SleepWatcher();  // stops
  SleepWatcher(const SleepWatcher&) = delete;
  SleepWatcher& operator=(const SleepWatcher&) = delete;

  // Subscribes on the system bus ($DBUS_SYSTEM_BUS_ADDRESS, else the standard socket) and starts
  // the watcher's thread. False, without a word to anyone, when there is no bus to reach or it
  // does not take the subscription within a few seconds. True at once while already watching.
  bool Start();
  // The same on the bus at `busAddress`, in D-Bus address form ("unix:path=/tmp/x/bus"); empty
  // means the system bus.
  bool Start(const std::string& busAddress);

  // Ends the subscription and joins the thread; returns promptly. Safe to call any number of
  // times, before Start, and after the bus went away. Start and Stop are called from one thread.
  void Stop();

  // True from a successful Start until Stop, or until the bus connection is lost: a bus that went
  // away ends the watch for good, and no notices come after it.
  bool Watching() const { return watching_.load(); }

 private:
  // Connects, subscribes and starts the thread; `address` empty means the system bus.
  bool Begin(const std::string& address);
  void Run();

  Callback onEvent_;
  sd_bus* bus_ = nullptr;        // only the thread touches it between Begin and the join
  sd_bus_slot* slot_ = nullptr;  // the subscription
  int wakeFd_ = -1;              // an eventfd that tells the thread to end
  std::thread thread_;
  std::atomic<bool> watching_{false};
};

}  // namespace platform
