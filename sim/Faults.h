// Fault injection at the driver boundary. Each rule is one numbered fault pattern aimed at one
// command code, at the link-opened call, or at everything, for the next N requests or until
// cleared. Board events (unplug, replug, profile swap) are control commands of the Simulator and
// carry the pattern numbers 7 and 8 in its documentation.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sim {

// The numbered fault patterns that act on single requests.
enum class FaultKind : int {
  kRefuse = 1,  // the board refuses: 0x3F and a reason byte
  kShort = 2,   // the reply comes one byte short
  kLong = 3,    // the reply comes one byte long
  kDrop = 4,    // no reply at all: the request is swallowed
  kStatus = 5,  // the driver completes the transfer with an error status and no bytes
  kLate = 6,    // the reply comes, but only after a delay
};

enum class FaultTarget {
  kAll,         // every request (byte-level patterns skip the link-opened call)
  kCommand,     // normal and capture requests whose command byte is `command`
  kLinkOpened,  // the link-opened call
};

struct FaultRule {
  FaultKind kind = FaultKind::kRefuse;
  FaultTarget target = FaultTarget::kAll;
  std::uint8_t command = 0;
  int count = 0;                // requests still to hit; 0 means until cleared
  std::int8_t reason = -4;      // kRefuse: the reason byte
  std::uint32_t status = 121;   // kStatus: the system error code (121: semaphore time-out)
  std::int64_t delayMs = 6000;  // kLate: beyond the host's five-second reply wait
  int id = 0;                   // given by FaultTable::Add
};

// What a request is: which io code, and for commands the command byte.
struct RequestKey {
  bool linkOpened = false;
  std::uint8_t command = 0;
};

const char* FaultKindName(FaultKind kind);
std::optional<FaultKind> ParseFaultKind(const std::string& word);  // a name or the number
// One line describing a rule, as the control language would set it.
std::string DescribeFault(const FaultRule& rule);

// The active rules. Not thread-safe: the Simulator guards it with the board's lock.
class FaultTable {
 public:
  // Adds a rule and returns its id (1, 2, ...).
  int Add(FaultRule rule);
  bool Remove(int id);
  void Clear() { rules_.clear(); }
  const std::vector<FaultRule>& Rules() const { return rules_; }

  // The first rule that applies to the request, with its count taken down by one (a rule whose
  // count runs out is removed). Empty when the request goes through unharmed.
  std::optional<FaultRule> Take(const RequestKey& key);

 private:
  std::vector<FaultRule> rules_;
  int nextId_ = 1;
};

}  // namespace sim
