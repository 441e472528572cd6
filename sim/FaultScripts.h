// Scripted hardware faults: named scenarios that unfold over time, for training and for the tool's
// own fault tests. Each is a few steps, and each step waits for its moment (at once, once a test
// has driven an axis some way, or some seconds after the step before) and then does what a
// control line says, in the one control language of the simulator. Stopping a script runs its
// undo lines, which put right what the script left (a replug, the encoders as built, e-stop off).
//
//   bounce-limit     the end switches chatter over the last 5 mm before them
//   encoder-dropout  the linear scales stand still while the rotary encoders count on
//   signs-flipped    both encoders count the other way
//   stall-mid-move   2 mm into a test's drive, something blocks the axis 1 mm ahead
//   estop-mid-move   1 mm into a test's drive, the e-stop is pressed (and stays)
//   link-drop        1 mm into a test's drive, the USB link goes for 3 s
//   board-reset      1 mm into a test's drive, the board resets: the link goes for 1 s and the
//                    board comes back without the records it was given
#pragma once

#include <array>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim {

enum class StepWhen {
  kAtOnce,  // as soon as the step before is done
  kMoved,   // once a stage axis that a test drives has moved `amount` mm since its loop opened
  kAfter,   // `amount` seconds after the step before
};

struct ScriptStep {
  StepWhen when = StepWhen::kAtOnce;
  double amount = 0;
  const char* action = nullptr;  // a control line
};

struct FaultScript {
  const char* name;
  const char* summary;              // one line, for help and the panel
  std::array<ScriptStep, 3> steps;  // up to the first without an action
  std::array<const char*, 2> undo;  // control lines; null: none
};

const std::vector<FaultScript>& FaultScripts();
const FaultScript* FindFaultScript(const std::string& name);
std::string FaultScriptNames();  // blank-separated

// Runs one fault script at a time on a thread of its own, which takes part in the current clock.
class ScriptRunner {
 public:
  // `control` runs a control line; `moved` says whether a test has driven an axis `mm` far.
  ScriptRunner(std::function<std::string(const std::string&)> control,
               std::function<bool(double mm)> moved);
  ~ScriptRunner();  // Stop(false)
  ScriptRunner(const ScriptRunner&) = delete;
  ScriptRunner& operator=(const ScriptRunner&) = delete;

  // Starts `script`, stopping (and undoing) one that runs.
  void Start(const FaultScript& script);
  // Ends the script that runs, if any; with `undo`, its undo lines are run after its thread ended.
  void Stop(bool undo);

  struct State {
    std::string name;      // empty: none runs or ran
    std::size_t step = 0;  // the step it waits for (== steps: done)
    std::size_t steps = 0;
    std::string last;  // the last step's answer
  };
  State Current() const;

 private:
  void Run(const FaultScript& script);
  // Waits for the moment of `step`; false when stopped first.
  bool WaitFor(const ScriptStep& step);

  std::function<std::string(const std::string&)> control_;
  std::function<bool(double)> moved_;
  mutable std::mutex mutex_;
  bool stopping_ = false;
  const FaultScript* script_ = nullptr;
  State state_;
  std::thread thread_;
};

}  // namespace sim
