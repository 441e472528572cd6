// The simulated controller board as one object: a board of a chosen profile, served at a device
// entry like a real board's driver, with fault injection and a control language. Integration
// tests use it in-process; the tavrosim program wraps it.
//
//   sim::Simulator sim({.profile = "autovision", .deviceDir = tmp});
//   sim.Start();
//   sim.Command("fault refuse 0x2B count=1");
//   sim.Command("unplug");
//   sim.Stop();
//
// Every thread it starts is a participant of the clock that is current at Start, so install a
// VirtualClock (ScopedClock) before Start and keep it until Stop. All methods are thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/WindowProbe.h"
#include "sim/Board.h"
#include "sim/Driver.h"
#include "sim/FaultScripts.h"
#include "sim/Faults.h"
#include "sim/UnixServer.h"

namespace sim {

struct SimulatorOptions {
  std::string profile = "autovision";
  std::string deviceDir;           // empty: the host's device directory ($TAVRO_DEVICE_DIR, ...)
  std::string entry = "class1:0";  // see DeviceEntry.h
  std::string controlPath;         // a stream socket for the control language; empty: none
  // The group the device entry's group bits are for: the measuring application's, which shares
  // the board with TavroTest. -1: the serving user's own. The entry is 0660 and the control
  // socket 0600, so no other user can reach the board or its controls.
  int deviceGroup = -1;
  // How often the board prints a diagnostic line by itself; zero: never.
  platform::Duration diagPeriod = std::chrono::seconds(5);
  // What the control command "quit" does; without it "quit" is refused.
  std::function<void()> onQuit;
};

struct SimulatorStatus {
  std::string profile;
  std::string entryPath;
  bool plugged = false;
  std::size_t connections = 0;
  std::size_t faultRules = 0;
  std::uint32_t requests = 0;
  std::size_t pendingDiagBytes = 0;
  bool describes = true;
};

class Simulator {
 public:
  explicit Simulator(SimulatorOptions options = {});
  ~Simulator();  // Stop()
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  // Serves the entry (and the control socket, if any). False with a reason when the profile or
  // entry is unknown or a socket cannot be served; nothing is left running then.
  bool Start(std::string* error = nullptr);
  // Ends every thread and removes the sockets. Harmless when not started.
  void Stop();

  // One line of the control language (see README.md); returns the one-line answer, which
  // begins with "ok" or "error:".
  std::string Command(const std::string& line);

  // Typed forms of the control commands.
  bool Unplug();                              // false when already unplugged
  bool Replug(std::string* error = nullptr);  // false when it cannot serve again
  bool SetProfile(const std::string& name);   // false for an unknown name
  int AddFault(const FaultRule& rule);        // returns the rule's id
  bool ClearFault(int id);
  void ClearFaults();
  std::vector<FaultRule> Faults() const;
  void QueueDiagText(const std::string& text);  // exactly this text, no line end added
  // Whether the driver answers the describe request, or fails it as an older driver would.
  void SetDescribes(bool on);
  // Runs `act` on the board, brought up to the clock's now, under the board's lock: what a person
  // does at the machine. Returns what `act` returns.
  std::string AtMachine(const std::function<std::string(Board&)>& act);
  void Quit();  // runs onQuit, if given
  // Starts the fault script of that name (ending one that runs); false for an unknown name.
  bool StartScript(const std::string& name);
  // Ends the fault script that runs and puts right what it left.
  void StopScript();
  ScriptRunner::State Script() const;
  // Poses as the running measuring application (holds a window of its class), or stops. The
  // window is seen by programs whose window folder is this board's: $TAVRO_WINDOW_DIR, else the
  // folder ".windows" in the device folder. False when the window cannot be held.
  bool PoseAsApplication(bool on, std::string* error = nullptr);
  bool PosingAsApplication() const;

  bool CanQuit() const { return static_cast<bool>(options_.onQuit); }
  bool Plugged() const;
  std::string EntryPath() const;
  std::string ProfileName() const;
  SimulatorStatus Status() const;
  Traffic TrafficSeen() const;
  // A copy of the board's profile as it stands (live fields included).
  Profile CurrentProfile() const;

 private:
  void ServeDevice(int fd);
  void ServeControl(int fd);
  void AnswerControlLine(int fd, std::string line);

  SimulatorOptions options_;
  std::unique_ptr<platform::WindowOfClass> appWindow_;  // guarded by lifecycle_
  std::string entryPath_;
  mutable std::mutex lifecycle_;  // Start, Stop, Unplug and Replug one at a time
  mutable std::mutex boardMutex_;
  std::unique_ptr<Board> board_;  // guarded by boardMutex_, like faults_ and traffic_
  FaultTable faults_;
  Traffic traffic_;
  DriverSettings driver_;
  UnixServer device_;
  UnixServer control_;
  ScriptRunner script_;
};

}  // namespace sim
