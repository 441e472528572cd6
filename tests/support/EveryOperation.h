// Runs every operation a controller offers, once, and records which ones failed. The integration
// tests run it against the simulated board for each profile (nothing may fail), the fuzz target
// against replies made of arbitrary bytes (nothing may crash), the benchmarks for a full round.
// Set commands write back what the matching get commands read, so a board is left as it was.
#pragma once

#include <string>
#include <vector>

class CTavroUsbServo;
class CTavroUsbManualVision;

namespace testing_support {

struct OperationLog {
  std::vector<std::string> failed;
  int run = 0;

  void Record(const char* name, bool ok) {
    ++run;
    if (!ok) failed.emplace_back(name);
  }
};

void RunEveryServoOperation(CTavroUsbServo& servo, OperationLog& log);
void RunEveryManualVisionOperation(CTavroUsbManualVision& manual, OperationLog& log);

}  // namespace testing_support
