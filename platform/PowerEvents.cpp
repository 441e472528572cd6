#include "platform/PowerEvents.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace platform {

namespace {

// How long a bus that accepted the connection may take to answer the subscription. Start runs on
// the caller's thread at start-up, so a bus that hangs must not hold it for the library's 25 s.
constexpr std::uint64_t kSubscribeLimitUs = 3'000'000;

// logind is the only sender whose word counts; the broker checks the well-known name against the
// sending connection, so another program cannot pose as it.
constexpr char kLogind[] = "org.freedesktop.login1";
constexpr char kLogindPath[] = "/org/freedesktop/login1";
constexpr char kManager[] = "org.freedesktop.login1.Manager";

int OnPrepareForSleep(sd_bus_message* message, void* userdata, sd_bus_error*) {
  int sleeping = 0;
  // A signal of this name with other arguments is not logind's: ignore it.
  if (sd_bus_message_read(message, "b", &sleeping) < 0) return 0;
  const auto& onEvent = *static_cast<const SleepWatcher::Callback*>(userdata);
  if (onEvent) onEvent(sleeping ? kPowerEventSuspend : kPowerEventResume);
  return 0;
}

// Milliseconds until the bus's own deadline (an absolute CLOCK_MONOTONIC time in µs), -1 for none.
int PollTimeout(sd_bus* bus) {
  std::uint64_t due = UINT64_MAX;
  if (sd_bus_get_timeout(bus, &due) < 0 || due == UINT64_MAX) return -1;
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const std::uint64_t nowUs = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000u +
                              static_cast<std::uint64_t>(now.tv_nsec) / 1'000u;
  if (due <= nowUs) return 0;
  const std::uint64_t ms = (due - nowUs + 999) / 1000;
  return ms > 60'000 ? 60'000 : static_cast<int>(ms);
}

}  // namespace

SleepWatcher::SleepWatcher(Callback onEvent) : onEvent_(std::move(onEvent)) {}

SleepWatcher::~SleepWatcher() {
  Stop();
}

bool SleepWatcher::Start() {
  if (watching_) return true;
  Stop();  // the remains of a watch whose bus went away
  return Begin({});
}

bool SleepWatcher::Start(const std::string& busAddress) {
  if (watching_) return true;
  Stop();
  return Begin(busAddress);
}

bool SleepWatcher::Begin(const std::string& address) {
  sd_bus* bus = nullptr;
  int r = 0;
  if (address.empty()) {
    r = sd_bus_open_system(&bus);
  } else {
    r = sd_bus_new(&bus);
    if (r >= 0) r = sd_bus_set_address(bus, address.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
    if (r >= 0) r = sd_bus_start(bus);
  }
  if (r >= 0) r = sd_bus_set_method_call_timeout(bus, kSubscribeLimitUs);
  // The subscription waits for the broker's answer: a bus that cannot be reached, or does not let
  // us in, shows here rather than as a thread that never hears anything.
  sd_bus_slot* slot = nullptr;
  if (r >= 0) {
    r = sd_bus_match_signal(bus, &slot, kLogind, kLogindPath, kManager, "PrepareForSleep",
                            OnPrepareForSleep, &onEvent_);
  }
  const int wakeFd = r >= 0 ? ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1;
  if (wakeFd < 0) {
    sd_bus_slot_unref(slot);
    sd_bus_close_unref(bus);  // null-safe
    return false;
  }
  bus_ = bus;
  slot_ = slot;
  wakeFd_ = wakeFd;
  watching_ = true;
  thread_ = std::thread([this] { Run(); });
  return true;
}

void SleepWatcher::Stop() {
  if (thread_.joinable()) {
    const std::uint64_t one = 1;
    (void)!::write(wakeFd_, &one, sizeof one);
    thread_.join();
  }
  slot_ = sd_bus_slot_unref(slot_);
  // Nothing of ours waits to be sent, and the broker drops the subscription with the connection:
  // no flush, which could wait on a bus that stopped reading.
  bus_ = sd_bus_close_unref(bus_);
  if (wakeFd_ >= 0) ::close(wakeFd_);
  wakeFd_ = -1;
  watching_ = false;
}

void SleepWatcher::Run() {
  for (;;) {
    const int processed = sd_bus_process(bus_, nullptr);
    if (processed < 0) break;  // the connection is gone
    if (processed > 0) continue;
    const int fd = sd_bus_get_fd(bus_);
    const int events = sd_bus_get_events(bus_);
    if (fd < 0 || events < 0) break;
    pollfd fds[2] = {{fd, static_cast<short>(events), 0}, {wakeFd_, POLLIN, 0}};
    if (::poll(fds, 2, PollTimeout(bus_)) < 0 && errno != EINTR) break;
    if (fds[1].revents != 0) return;  // Stop: it clears watching_ itself
  }
  watching_ = false;
}

}  // namespace platform
