// The control language of the simulator: one command per line, one answer per line. Answers
// begin with "ok" (and what was done or asked) or with "error:" and the reason. The same language
// is spoken in-process (Simulator::Command), on tavrosim's standard input and on its control
// socket; README.md lists the commands.
#pragma once

#include <string>
#include <vector>

namespace sim {

class Simulator;

// Runs one line against `sim` and returns the answer, without a line end.
std::string RunControlCommand(Simulator& sim, const std::string& line);

// The commands of what a person does at the machine (MachineControl.cpp): true when words[0]
// is one of them, with its answer.
bool RunMachineControl(Simulator& sim, const std::vector<std::string>& words, std::string& answer);
std::string MachineControlUsage();

// The commands of hardware faults at the machine and of the fault scripts (FaultControl.cpp).
bool RunFaultControl(Simulator& sim, const std::vector<std::string>& words, std::string& answer);
std::string FaultControlUsage();

// Splits a line into words. A word in double quotes may hold blanks and these escapes: \n \r \t
// \\ \" \xHH. False, with a reason, for an unterminated quote or a bad escape.
bool SplitControlWords(const std::string& line, std::vector<std::string>& words,
                       std::string& error);

}  // namespace sim
