// The control commands of hardware faults that unfold at the machine: encoders that drop out or
// count the other way, end switches that bounce, a board that resets, and the fault scripts that
// string such faults together over time.
#include "sim/Control.h"
#include "sim/FaultScripts.h"
#include "sim/Simulator.h"

namespace sim {

namespace {

using Words = std::vector<std::string>;

// encoders normal|dropout|reversed: every stage axis's encoders as built, its linear scale
// standing where it reads now (the rotary counting on), or both counting the other way.
std::string RunEncoders(Board& b, const Words& a) {
  const std::string mode = a.size() == 1 ? a[0] : "";
  if (mode != "normal" && mode != "dropout" && mode != "reversed") {
    return "error: encoders takes normal, dropout or reversed";
  }
  for (Axis& x : b.machine().axes) {
    x.frozenCounts = x.LinearCounts();
    x.linearFrozen = mode == "dropout";
    x.countsReversed = mode == "reversed";
  }
  return "ok encoders " + mode;
}

std::string RunSwitches(Board& b, const Words& a) {
  if (a.size() != 1 || (a[0] != "normal" && a[0] != "bounce")) {
    return "error: switches takes normal or bounce";
  }
  b.machine().switchesBounce = a[0] == "bounce";
  return "ok switches " + a[0];
}

std::string RunReset(Board& b, const Words& a) {
  if (!a.empty()) return "error: reset takes no arguments";
  b.Restart(platform::Clock::Current().Now());
  return "ok the board restarted without its records";
}

std::string DescribeScript(const ScriptRunner::State& s) {
  if (s.name.empty()) return "ok script=none";
  return "ok script=" + s.name + " step=" + std::to_string(s.step) + "/" + std::to_string(s.steps) +
         (s.last.empty() ? "" : " last=\"" + s.last + "\"");
}

// script: which runs and how far; script NAME starts one (ending one that runs); script stop
// ends it and puts right what it left.
std::string RunScript(Simulator& sim, const Words& a) {
  if (a.empty()) return DescribeScript(sim.Script());
  if (a.size() == 1 && a[0] == "stop") {
    sim.StopScript();
    return "ok script stopped";
  }
  if (a.size() != 1 || !sim.StartScript(a[0])) {
    return "error: script takes stop or one of: " + FaultScriptNames();
  }
  return "ok script " + a[0] + " started";
}

std::string RunScripts(Simulator&, const Words&) {
  std::string answer = "ok";
  for (const FaultScript& s : FaultScripts())
    answer += std::string(" ") + s.name;
  return answer;
}

using MachineVerb = std::string (*)(Board&, const Words&);
using SimulatorVerb = std::string (*)(Simulator&, const Words&);

struct FaultVerb {
  const char* name;
  const char* usage;
  MachineVerb atMachine;  // or
  SimulatorVerb onSimulator;
};

constexpr FaultVerb kFaultVerbs[] = {
    {.name = "encoders", .usage = "encoders normal|dropout|reversed", .atMachine = RunEncoders},
    {.name = "switches", .usage = "switches normal|bounce", .atMachine = RunSwitches},
    {.name = "reset", .usage = "reset", .atMachine = RunReset},
    {.name = "script", .usage = "script [NAME|stop]", .onSimulator = RunScript},
    {.name = "scripts", .usage = "scripts", .onSimulator = RunScripts},
};

}  // namespace

bool RunFaultControl(Simulator& sim, const std::vector<std::string>& words, std::string& answer) {
  for (const FaultVerb& v : kFaultVerbs) {
    if (words[0] != v.name) continue;
    const Words args(words.begin() + 1, words.end());
    answer = v.atMachine ? sim.AtMachine([&](Board& board) { return v.atMachine(board, args); })
                         : v.onSimulator(sim, args);
    return true;
  }
  return false;
}

std::string FaultControlUsage() {
  std::string usage;
  for (const FaultVerb& v : kFaultVerbs)
    usage += std::string(" | ") + v.usage;
  return usage;
}

}  // namespace sim
