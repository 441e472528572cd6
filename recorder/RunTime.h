// The run's time axis for the recorder: the wall time when the run began plus the steady time
// since, so that a wall clock set back during the run cannot step the recorded times back. The
// steady part comes from platform::Clock, so tests run it in virtual time.
#pragma once

#include "platform/Clock.h"
#include "recorder/Recorder.h"

namespace recorder {

class RunTime {
 public:
  RunTime();
  TimeUs Now() const;

 private:
  TimeUs wallStart_;
  platform::TimePoint steadyStart_;
};

}  // namespace recorder
