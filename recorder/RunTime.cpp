#include "recorder/RunTime.h"

#include <chrono>

namespace recorder {

RunTime::RunTime()
    : wallStart_(std::chrono::duration_cast<std::chrono::microseconds>(
                     std::chrono::system_clock::now().time_since_epoch())
                     .count()),
      steadyStart_(platform::Clock::Current().Now()) {}

TimeUs RunTime::Now() const {
  return wallStart_ + std::chrono::duration_cast<std::chrono::microseconds>(
                          platform::Clock::Current().Now() - steadyStart_)
                          .count();
}

}  // namespace recorder
