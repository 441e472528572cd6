// Every operation a controller offers, one row each, with inputs fixed so that every run sends the
// same bytes. The conformance test runs them against the simulated board for each profile, the
// fuzz target against replies made of arbitrary bytes (nothing may crash).
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"

namespace testing_support {

// What an operation works on: the controller, and its W axis and platen where the machine has them.
struct Controllers {
  CTavroUsbController& any;
  CTavroUsbServo* servo = nullptr;
  CTavroUsbWAxis* w = nullptr;
  CTavroUsbPlaten* platen = nullptr;
};
Controllers ControllersOf(CTavroUsbServo& servo);
Controllers ControllersOf(CTavroUsbManualVision& manual);

// An operation's result, or nothing when it does not exist for this controller or machine.
struct Operation {
  const char* name;
  std::function<std::optional<bool>(Controllers&)> run;
};
const std::vector<Operation>& EveryOperation();

struct OperationLog {
  std::vector<std::string> failed;
  int run = 0;
};

void RunEveryServoOperation(CTavroUsbServo& servo, OperationLog& log);
void RunEveryManualVisionOperation(CTavroUsbManualVision& manual, OperationLog& log);

}  // namespace testing_support
