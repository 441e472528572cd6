#include "util/DoneEvent.h"

namespace Utility {

void DoneEvent::Set() {
  {
    std::lock_guard lock(mutex_);
    signalled_ = true;
  }
  platform::Clock::Current().NotifyAll();
}

void DoneEvent::Reset() {
  std::lock_guard lock(mutex_);
  signalled_ = false;
}

void DoneEvent::Pulse() {
  {
    std::lock_guard lock(mutex_);
    ++pulses_;
  }
  platform::Clock::Current().NotifyAll();
}

bool DoneEvent::IsSet() {
  std::lock_guard lock(mutex_);
  return signalled_;
}

bool DoneEvent::WaitUntil(platform::TimePoint deadline) {
  std::unique_lock lock(mutex_);
  const std::uint64_t seen = pulses_;
  return platform::Clock::Current().WaitUntil(lock, deadline,
                                              [&] { return signalled_ || pulses_ != seen; });
}

}  // namespace Utility
