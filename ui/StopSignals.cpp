#include "ui/StopSignals.h"

#include <pthread.h>
#include <signal.h>

namespace ui {

namespace {
sigset_t StopSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}
}  // namespace

StopSignals::StopSignals(platform::TaskLoop& loop, int quitCode) {
  const sigset_t set = StopSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  thread_ = std::thread([this, &loop, quitCode, set] {
    int signal = 0;
    while (sigwait(&set, &signal) == 0) {
      if (ending_) return;
      received_ = true;
      loop.Quit(quitCode);
    }
  });
}

StopSignals::~StopSignals() {
  ending_ = true;
  pthread_kill(thread_.native_handle(), SIGTERM);
  thread_.join();
}

}  // namespace ui
