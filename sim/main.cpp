// tavrosim: the simulated controller board as a program. It serves one device entry in real time
// until SIGINT or SIGTERM, and takes control commands on its standard input and/or a control
// socket.
#include <grp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "sim/Control.h"
#include "sim/DeviceEntry.h"
#include "sim/Panel.h"
#include "sim/Profiles.h"
#include "sim/Simulator.h"

namespace {

constexpr const char* kUsage =
    "usage: tavrosim [--profile NAME] [--dir DIR] [--entry class1:N|class2:N|HnUsbaN|HnUsbbN]\n"
    "                [--control PATH] [--stdin] [--app] [--diag-every SECONDS] [--group GROUP]\n"
    "                [--fault SCRIPT] [--panel PORT]\n"
    "       tavrosim --version\n";

// `--version` answers alone, before the other arguments are looked at.
bool AnswerVersion(int argc, char** argv) {
  if (argc != 2 || std::strcmp(argv[1], "--version") != 0) return false;
  std::printf("tavrosim %s\n", TAVRO_PRODUCT_VERSION);
  return true;
}

struct Arguments {
  sim::SimulatorOptions options;
  bool stdinControl = false;
  bool help = false;
  bool poseAsApplication = false;
  std::string faultScript;  // started once the board serves
  int panelPort = -1;       // -1: no panel; 0: a free port
};

int BadArguments(const std::string& why) {
  std::fprintf(stderr, "tavrosim: %s\n%s", why.c_str(), kUsage);
  return 2;
}

constexpr const char* kValueOptions[] = {"--profile",    "--dir",   "--entry", "--control",
                                         "--diag-every", "--group", "--fault", "--panel"};

bool TakesValue(const std::string& arg) {
  for (const char* option : kValueOptions) {
    if (arg == option) return true;
  }
  return false;
}

// A group by name or number; -1 when there is no such group.
int GroupId(const std::string& value) {
  char* end = nullptr;
  const long number = std::strtol(value.c_str(), &end, 10);
  if (!value.empty() && *end == '\0')
    return number >= 0 && number <= 0x7FFFFFFF ? static_cast<int>(number) : -1;
  std::vector<char> buffer(16384);
  group entry{};
  group* found = nullptr;
  ::getgrnam_r(value.c_str(), &entry, buffer.data(), buffer.size(), &found);
  return found ? static_cast<int>(found->gr_gid) : -1;
}

// One option that takes a value; an empty answer when it was taken, else why not.
std::string TakeValue(const std::string& arg, const std::string& value, Arguments& args) {
  if (arg == "--profile") args.options.profile = value;
  if (arg == "--dir") args.options.deviceDir = value;
  if (arg == "--entry") args.options.entry = value;
  if (arg == "--control") args.options.controlPath = value;
  if (arg == "--panel") {
    char* end = nullptr;
    const long port = std::strtol(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || port < 0 || port > 65535) {
      return "--panel takes a port from 0 (any free one) to 65535";
    }
    args.panelPort = static_cast<int>(port);
  }
  if (arg == "--fault") {
    args.faultScript = value;
    if (!sim::FindFaultScript(value)) return "--fault takes one of: " + sim::FaultScriptNames();
  }
  if (arg == "--group") {
    args.options.deviceGroup = GroupId(value);
    if (args.options.deviceGroup < 0) return "--group takes a group's name or number";
  }
  if (arg == "--diag-every") {
    char* end = nullptr;
    const double seconds = std::strtod(value.c_str(), &end);
    if (*end != '\0' || !(seconds >= 0) || seconds > 86400) {
      return "--diag-every takes seconds from 0 (never) to 86400";
    }
    args.options.diagPeriod =
        std::chrono::duration_cast<platform::Duration>(std::chrono::duration<double>(seconds));
  }
  return {};
}

// Fills `args`; returns an exit code (2) on bad arguments, 0 otherwise.
int ParseArguments(int argc, char** argv, Arguments& args) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--stdin") {
      args.stdinControl = true;
    } else if (arg == "--help" || arg == "-h") {
      args.help = true;
    } else if (arg == "--app") {
      args.poseAsApplication = true;
    } else if (!TakesValue(arg)) {
      return BadArguments("unknown argument '" + arg + "'");
    } else if (!hasValue) {
      return BadArguments(arg + " needs a value");
    } else if (const std::string why = TakeValue(arg, argv[++i], args); !why.empty()) {
      return BadArguments(why);
    }
  }
  std::string why;
  if (!sim::FindProfile(args.options.profile)) {
    return BadArguments("unknown profile '" + args.options.profile + "' (" + sim::ProfileNames() +
                        ")");
  }
  if (sim::DeviceEntryPath("/", args.options.entry, why).empty()) return BadArguments(why);
  if (::isatty(STDIN_FILENO)) args.stdinControl = true;
  return 0;
}

void PrintServing(sim::Simulator& simulator, const Arguments& args) {
  const sim::Profile p = simulator.CurrentProfile();
  const std::string name = sim::ToNarrow(p.version.firmwareName);
  std::string control;
  if (!args.options.controlPath.empty()) control += ", control at " + args.options.controlPath;
  if (args.stdinControl) control += ", control on stdin";
  if (!args.faultScript.empty()) control += ", fault script " + args.faultScript;
  std::printf("tavrosim: serving profile %s (%s %.2f, protocol %u) at %s%s\n", p.name.c_str(),
              name.c_str(), static_cast<double>(p.version.firmwareVersion),
              static_cast<unsigned>(p.version.protocolVersion), simulator.EntryPath().c_str(),
              control.c_str());
  std::fflush(stdout);
}

bool StartPanel(sim::Panel& panel, int port) {
  std::string why;
  if (port < 0 || panel.Start(static_cast<std::uint16_t>(port), &why)) return true;
  std::fprintf(stderr, "tavrosim: %s\n", why.c_str());
  return false;
}

// As TavroTest prints where its window is: the address with the token every request needs.
void PrintPanel(const sim::Panel& panel) {
  std::printf("tavrosim panel: %s\n", panel.Url().c_str());
  std::fflush(stdout);
}

// Answers the complete lines read from standard input; false at its end.
bool ServeStdin(sim::Simulator& simulator, std::string& pending) {
  char chunk[512];
  const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
  if (n <= 0) return false;
  pending.append(chunk, static_cast<std::size_t>(n));
  for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
    std::string line = pending.substr(0, end);
    pending.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find_first_not_of(" \t") == std::string::npos) continue;
    std::printf("%s\n", simulator.Command(line).c_str());
    std::fflush(stdout);
  }
  return true;
}

// Runs until SIGINT or SIGTERM (which "quit" raises too). Both are blocked in every thread and
// read from a signalfd, which waits together with standard input in one epoll set.
int Run(sim::Simulator& simulator, bool stdinControl, int signals) {
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = signals;
  ::epoll_ctl(epoll, EPOLL_CTL_ADD, signals, &ev);
  ev.data.fd = STDIN_FILENO;
  if (stdinControl) ::epoll_ctl(epoll, EPOLL_CTL_ADD, STDIN_FILENO, &ev);
  std::string pending;
  platform::Clock& clock = platform::Clock::Current();
  for (bool running = true; running;) {
    if (clock.WaitReadable(epoll, platform::kNever) < 0) break;
    epoll_event ready[2];
    const int n = ::epoll_wait(epoll, ready, 2, 0);
    for (int i = 0; i < n; ++i) {
      if (ready[i].data.fd == signals) running = false;
      if (ready[i].data.fd == STDIN_FILENO && !ServeStdin(simulator, pending)) {
        ::epoll_ctl(epoll, EPOLL_CTL_DEL, STDIN_FILENO, nullptr);  // stdin ended; keep serving
      }
    }
  }
  ::close(epoll);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (AnswerVersion(argc, argv)) return 0;
  Arguments args;
  if (const int code = ParseArguments(argc, argv, args); code != 0) return code;
  if (args.help) {
    std::printf("%sprofiles: %s\n", kUsage, sim::ProfileNames().c_str());
    return 0;
  }
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &mask, nullptr);  // before any thread starts
  ::signal(SIGPIPE, SIG_IGN);  // a reader of stdout that went away must not end the board
  const int signals = ::signalfd(-1, &mask, SFD_CLOEXEC);

  args.options.onQuit = [] { ::kill(::getpid(), SIGTERM); };
  sim::Simulator simulator(args.options);
  std::string why;
  if (!simulator.Start(&why)) {
    std::fprintf(stderr, "tavrosim: %s\n", why.c_str());
    return 1;
  }
  if (args.poseAsApplication && !simulator.PoseAsApplication(true, &why)) {
    std::fprintf(stderr, "tavrosim: %s\n", why.c_str());
    return 1;
  }
  if (!args.faultScript.empty()) simulator.StartScript(args.faultScript);
  sim::Panel panel(simulator);
  if (!StartPanel(panel, args.panelPort)) return 1;
  PrintServing(simulator, args);
  if (args.panelPort >= 0) PrintPanel(panel);
  const int code = Run(simulator, args.stdinControl, signals);
  panel.Stop();  // before the board it works
  simulator.Stop();
  ::close(signals);
  return code;
}
