#include "sim/Simulator.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>

#include "platform/DeviceIo.h"
#include "sim/Control.h"
#include "sim/DeviceEntry.h"

namespace sim {

namespace {

// A zero-length datagram and the peer's end both make recv return 0; only the end leaves the
// socket hung up.
bool PeerHungUp(int fd) {
  pollfd p{fd, POLLIN | POLLRDHUP, 0};
  return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

constexpr std::size_t kMaxControlLine = 4096;

void SendLine(int fd, const std::string& text) {
  const std::string out = text + "\n";
  [[maybe_unused]] const ssize_t sent = ::send(fd, out.data(), out.size(), MSG_NOSIGNAL);
}

}  // namespace

Simulator::Simulator(SimulatorOptions options)
    : options_(std::move(options)),
      device_(SOCK_SEQPACKET, [this](int fd) { ServeDevice(fd); },
              {.mode = 0660, .group = options_.deviceGroup}),
      control_(SOCK_STREAM, [this](int fd) { ServeControl(fd); }, {.mode = 0600}),
      script_([this](const std::string& line) { return Command(line); },
              [this](double mm) {
                return AtMachine([mm](Board& b) {
                         return b.machine().DrivenFurtherThan(mm) ? "yes" : "no";
                       }) == "yes";
              }) {}

Simulator::~Simulator() {
  Stop();
}

bool Simulator::PoseAsApplication(bool on, std::string* error) {
  std::lock_guard lifecycle(lifecycle_);
  if (!on) {
    appWindow_.reset();
    return true;
  }
  if (appWindow_) return true;
  std::string dir;
  if (const char* env = std::getenv("TAVRO_WINDOW_DIR"); !env || !*env) {
    dir = (options_.deviceDir.empty() ? platform::DeviceDirectory() : options_.deviceDir) +
          "/.windows";
  }
  auto window = std::make_unique<platform::WindowOfClass>("MiravaAppFrame", dir);
  if (!window->Open()) {
    if (error) *error = "the measuring application's window is held by another program";
    return false;
  }
  appWindow_ = std::move(window);
  return true;
}

bool Simulator::PosingAsApplication() const {
  std::lock_guard lifecycle(lifecycle_);
  return appWindow_ != nullptr;
}

bool Simulator::Start(std::string* error) {
  std::lock_guard lifecycle(lifecycle_);
  std::string why;
  const std::string name = ProfileName();
  const Profile* profile = FindProfile(name);
  if (!profile) why = "unknown profile '" + name + "' (" + ProfileNames() + ")";
  const std::string dir =
      options_.deviceDir.empty() ? platform::DeviceDirectory() : options_.deviceDir;
  if (why.empty()) entryPath_ = DeviceEntryPath(dir, options_.entry, why);
  if (why.empty()) {
    std::lock_guard lock(boardMutex_);
    board_ =
        std::make_unique<Board>(*profile, options_.diagPeriod, platform::Clock::Current().Now());
  }
  if (why.empty() && !device_.Listen(entryPath_, why)) why = "device entry: " + why;
  if (why.empty() && !options_.controlPath.empty() && !control_.Listen(options_.controlPath, why)) {
    why = "control socket: " + why;
    device_.Close();
  }
  if (!why.empty() && error) *error = why;
  return why.empty();
}

void Simulator::Stop() {
  // The script and the control connections go first and without the lifecycle lock: either may be
  // inside an unplug, which takes that lock.
  script_.Stop(false);
  control_.Close();
  std::lock_guard lifecycle(lifecycle_);
  device_.Close();
}

bool Simulator::Unplug() {
  std::lock_guard lifecycle(lifecycle_);
  if (!device_.Listening()) return false;
  device_.Close();
  return true;
}

bool Simulator::Replug(std::string* error) {
  std::lock_guard lifecycle(lifecycle_);
  std::string why = "the simulator is not started";
  const bool ok = board_ && device_.Listen(entryPath_, why);
  if (!ok && error) *error = why;
  return ok;
}

bool Simulator::SetProfile(const std::string& name) {
  const Profile* profile = FindProfile(name);
  if (!profile) return false;
  std::lock_guard lock(boardMutex_);
  if (board_) {
    board_->SetProfile(*profile, platform::Clock::Current().Now());
  } else {
    options_.profile = name;
  }
  return true;
}

int Simulator::AddFault(const FaultRule& rule) {
  std::lock_guard lock(boardMutex_);
  return faults_.Add(rule);
}

bool Simulator::ClearFault(int id) {
  std::lock_guard lock(boardMutex_);
  return faults_.Remove(id);
}

void Simulator::ClearFaults() {
  std::lock_guard lock(boardMutex_);
  faults_.Clear();
}

std::vector<FaultRule> Simulator::Faults() const {
  std::lock_guard lock(boardMutex_);
  return faults_.Rules();
}

void Simulator::QueueDiagText(const std::string& text) {
  std::lock_guard lock(boardMutex_);
  if (board_) board_->QueueDiagText(text);
}

void Simulator::SetDescribes(bool on) {
  std::lock_guard lock(boardMutex_);
  driver_.describes = on;
}

std::string Simulator::AtMachine(const std::function<std::string(Board&)>& act) {
  std::lock_guard lock(boardMutex_);
  if (!board_) return "error: no board";
  board_->Advance(platform::Clock::Current().Now());
  return act(*board_);
}

bool Simulator::StartScript(const std::string& name) {
  const FaultScript* script = FindFaultScript(name);
  if (script) script_.Start(*script);
  return script != nullptr;
}

void Simulator::StopScript() {
  script_.Stop(true);
}

ScriptRunner::State Simulator::Script() const {
  return script_.Current();
}

void Simulator::Quit() {
  if (options_.onQuit) options_.onQuit();
}

bool Simulator::Plugged() const {
  return device_.Listening();
}

std::string Simulator::EntryPath() const {
  return entryPath_;
}

std::string Simulator::ProfileName() const {
  std::lock_guard lock(boardMutex_);
  return board_ ? board_->profile().name : options_.profile;
}

Profile Simulator::CurrentProfile() const {
  std::lock_guard lock(boardMutex_);
  if (board_) return board_->profile();
  const Profile* p = FindProfile(options_.profile);
  return p ? *p : Profile{};
}

Traffic Simulator::TrafficSeen() const {
  std::lock_guard lock(boardMutex_);
  return traffic_;
}

SimulatorStatus Simulator::Status() const {
  SimulatorStatus s;
  s.entryPath = entryPath_;
  s.plugged = device_.Listening();
  s.connections = device_.Connections();
  std::lock_guard lock(boardMutex_);
  s.profile = board_ ? board_->profile().name : options_.profile;
  s.faultRules = faults_.Rules().size();
  s.requests = traffic_.total;
  s.pendingDiagBytes = board_ ? board_->PendingDiagBytes() : 0;
  s.describes = driver_.describes;
  return s;
}

std::string Simulator::Command(const std::string& line) {
  return RunControlCommand(*this, line);
}

void Simulator::ServeDevice(int fd) {
  platform::Clock& clock = platform::Clock::Current();
  // One byte more than the largest datagram, so that an oversized one shows as such.
  std::vector<std::uint8_t> buffer(kMaxDatagramBytes + 1);
  for (;;) {
    if (clock.WaitReadable(fd, platform::kNever) < 0) return;
    const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n < 0 || (n == 0 && PeerHungUp(fd))) return;
    Outcome out;
    {
      std::lock_guard lock(boardMutex_);
      const platform::TimePoint now = clock.Now();
      board_->Advance(now);
      out = AnswerDatagram(*board_, faults_, traffic_,
                           wire::Bytes(buffer.data(), static_cast<std::size_t>(n)), now, driver_);
    }
    if (!out.send) continue;
    if (out.delay > platform::Duration::zero() && !device_.SleepUntil(clock.Deadline(out.delay))) {
      return;
    }
    if (::send(fd, out.datagram.data(), out.datagram.size(), MSG_NOSIGNAL) < 0) return;
  }
}

void Simulator::ServeControl(int fd) {
  platform::Clock& clock = platform::Clock::Current();
  std::string pending;
  char chunk[512];
  for (;;) {
    if (clock.WaitReadable(fd, platform::kNever) < 0) return;
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) return;
    pending.append(chunk, static_cast<std::size_t>(n));
    for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
      AnswerControlLine(fd, pending.substr(0, end));
      pending.erase(0, end + 1);
    }
    if (pending.size() > kMaxControlLine) {
      SendLine(fd, "error: line longer than " + std::to_string(kMaxControlLine) + " bytes");
      pending.clear();
    }
  }
}

void Simulator::AnswerControlLine(int fd, std::string line) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
  SendLine(fd, RunControlCommand(*this, line));
}

}  // namespace sim
