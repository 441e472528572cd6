// A manual-reset event that can also be pulsed: the end of a non-modal message is a set, and a
// click that leaves the message open is a pulse, which wakes the threads waiting at that moment
// and leaves the event as it was. Waits go through platform::Clock, so they run in virtual time
// under test.
#pragma once

#include <cstdint>
#include <mutex>

#include "platform/Clock.h"

namespace Utility {

class DoneEvent {
 public:
  DoneEvent() = default;
  DoneEvent(const DoneEvent&) = delete;
  DoneEvent& operator=(const DoneEvent&) = delete;

  void Set();
  void Reset();
  // Releases every thread waiting now; the event stays unsignalled.
  void Pulse();
  bool IsSet();
  // True when the event was set, or pulsed while this call waited, before the deadline.
  bool WaitUntil(platform::TimePoint deadline);

 private:
  std::mutex mutex_;
  bool signalled_ = false;
  std::uint64_t pulses_ = 0;
};

}  // namespace Utility
