#include "sim/FaultScripts.h"

#include <chrono>

#include "platform/Clock.h"

namespace sim {

namespace {

// How often a step that waits for an axis to move looks at the machine.
constexpr auto kLookEvery = std::chrono::milliseconds(10);

}  // namespace

const std::vector<FaultScript>& FaultScripts() {
  static const std::vector<FaultScript> scripts = {
      {.name = "bounce-limit",
       .summary = "the end switches chatter over the last 5 mm before them",
       .steps = {{{.action = "switches bounce"}}},
       .undo = {"switches normal"}},
      {.name = "encoder-dropout",
       .summary = "the linear scales stand still while the rotary encoders count on",
       .steps = {{{.action = "encoders dropout"}}},
       .undo = {"encoders normal"}},
      {.name = "signs-flipped",
       .summary = "the linear and rotary encoders count the other way",
       .steps = {{{.action = "encoders reversed"}}},
       .undo = {"encoders normal"}},
      {.name = "stall-mid-move",
       .summary = "2 mm into a test's drive, something blocks the axis 1 mm ahead",
       .steps = {{{.when = StepWhen::kMoved, .amount = 2, .action = "stall ahead 1"}}},
       .undo = {"unstall all"}},
      {.name = "estop-mid-move",
       .summary = "1 mm into a test's drive, the e-stop is pressed and stays",
       .steps = {{{.when = StepWhen::kMoved, .amount = 1, .action = "estop on"}}},
       .undo = {"estop off"}},
      {.name = "link-drop",
       .summary = "1 mm into a test's drive, the USB link goes for 3 s",
       .steps = {{{.when = StepWhen::kMoved, .amount = 1, .action = "unplug"},
                  {.when = StepWhen::kAfter, .amount = 3, .action = "replug"}}},
       .undo = {"replug"}},
      {.name = "board-reset",
       .summary = "1 mm into a test's drive, the board resets and forgets the records it was given",
       .steps = {{{.when = StepWhen::kMoved, .amount = 1, .action = "unplug"},
                  {.action = "reset"},
                  {.when = StepWhen::kAfter, .amount = 1, .action = "replug"}}},
       .undo = {"replug"}},
  };
  return scripts;
}

const FaultScript* FindFaultScript(const std::string& name) {
  for (const FaultScript& s : FaultScripts()) {
    if (name == s.name) return &s;
  }
  return nullptr;
}

std::string FaultScriptNames() {
  std::string names;
  for (const FaultScript& s : FaultScripts())
    names += (names.empty() ? "" : " ") + std::string(s.name);
  return names;
}

ScriptRunner::ScriptRunner(std::function<std::string(const std::string&)> control,
                           std::function<bool(double)> moved)
    : control_(std::move(control)), moved_(std::move(moved)) {}

ScriptRunner::~ScriptRunner() {
  Stop(false);
}

void ScriptRunner::Start(const FaultScript& script) {
  Stop(true);
  std::lock_guard lock(mutex_);
  stopping_ = false;
  script_ = &script;
  std::size_t steps = 0;
  while (steps < script.steps.size() && script.steps[steps].action)
    ++steps;
  state_ = {.name = script.name, .step = 0, .steps = steps, .last = {}};
  thread_ = platform::ParticipantThread([this, &script] { Run(script); });
}

void ScriptRunner::Stop(bool undo) {
  const FaultScript* script = nullptr;
  {
    std::lock_guard lock(mutex_);
    if (!thread_.joinable()) return;
    stopping_ = true;
    script = script_;
  }
  platform::Clock::Current().NotifyAll();
  platform::Join(thread_);
  std::lock_guard lock(mutex_);
  script_ = nullptr;
  state_.name.clear();
  if (!undo) return;
  for (const char* line : script->undo) {
    if (line) control_(line);
  }
}

ScriptRunner::State ScriptRunner::Current() const {
  std::lock_guard lock(mutex_);
  return state_;
}

void ScriptRunner::Run(const FaultScript& script) {
  for (std::size_t i = 0; i < script.steps.size() && script.steps[i].action; ++i) {
    if (!WaitFor(script.steps[i])) return;
    const std::string answer = control_(script.steps[i].action);
    std::lock_guard lock(mutex_);
    state_.step = i + 1;
    state_.last = answer;
  }
}

bool ScriptRunner::WaitFor(const ScriptStep& step) {
  platform::Clock& clock = platform::Clock::Current();
  std::unique_lock lock(mutex_);
  const auto stopped = [this] { return stopping_; };
  switch (step.when) {
    case StepWhen::kAtOnce:
      return !stopping_;
    case StepWhen::kAfter:
      return !clock.WaitUntil(lock,
                              clock.Deadline(std::chrono::duration_cast<platform::Duration>(
                                  std::chrono::duration<double>(step.amount))),
                              stopped);
    case StepWhen::kMoved:
      while (!stopping_) {
        lock.unlock();
        const bool moved = moved_(step.amount);
        lock.lock();
        if (moved) return !stopping_;
        clock.WaitUntil(lock, clock.Deadline(kLookEvery), stopped);
      }
      return false;
  }
  return false;
}

}  // namespace sim
