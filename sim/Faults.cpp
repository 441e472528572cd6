#include "sim/Faults.h"

#include <cstdio>

namespace sim {

namespace {

struct KindName {
  FaultKind kind;
  const char* name;
};

constexpr KindName kKindNames[] = {
    {.kind = FaultKind::kRefuse, .name = "refuse"}, {.kind = FaultKind::kShort, .name = "short"},
    {.kind = FaultKind::kLong, .name = "long"},     {.kind = FaultKind::kDrop, .name = "drop"},
    {.kind = FaultKind::kStatus, .name = "status"}, {.kind = FaultKind::kLate, .name = "late"},
};

// Refusals and wrong sizes shape reply bytes; the link-opened call carries none.
bool ShapesBytes(FaultKind kind) {
  return kind == FaultKind::kRefuse || kind == FaultKind::kShort || kind == FaultKind::kLong;
}

bool Applies(const FaultRule& rule, const RequestKey& key) {
  if (key.linkOpened && ShapesBytes(rule.kind)) return false;
  switch (rule.target) {
    case FaultTarget::kAll:
      return true;
    case FaultTarget::kLinkOpened:
      return key.linkOpened;
    case FaultTarget::kCommand:
      return !key.linkOpened && key.command == rule.command;
  }
  return false;
}

}  // namespace

const char* FaultKindName(FaultKind kind) {
  for (const KindName& k : kKindNames) {
    if (k.kind == kind) return k.name;
  }
  return "?";
}

std::optional<FaultKind> ParseFaultKind(const std::string& word) {
  for (const KindName& k : kKindNames) {
    if (word == k.name || word == std::to_string(static_cast<int>(k.kind))) return k.kind;
  }
  return std::nullopt;
}

std::string DescribeFault(const FaultRule& rule) {
  char target[16];
  if (rule.target == FaultTarget::kAll) std::snprintf(target, sizeof target, "all");
  if (rule.target == FaultTarget::kLinkOpened) std::snprintf(target, sizeof target, "link");
  if (rule.target == FaultTarget::kCommand) {
    std::snprintf(target, sizeof target, "0x%02X", static_cast<unsigned>(rule.command));
  }
  char extra[40] = "";
  if (rule.kind == FaultKind::kRefuse)
    std::snprintf(extra, sizeof extra, " reason=%d", rule.reason);
  if (rule.kind == FaultKind::kStatus) std::snprintf(extra, sizeof extra, " code=%u", rule.status);
  if (rule.kind == FaultKind::kLate) {
    std::snprintf(extra, sizeof extra, " ms=%lld", static_cast<long long>(rule.delayMs));
  }
  char count[24] = "";
  if (rule.count > 0) std::snprintf(count, sizeof count, " count=%d", rule.count);
  char line[128];
  std::snprintf(line, sizeof line, "#%d %d:%s %s%s%s", rule.id, static_cast<int>(rule.kind),
                FaultKindName(rule.kind), target, extra, count);
  return line;
}

int FaultTable::Add(FaultRule rule) {
  rule.id = nextId_++;
  rules_.push_back(rule);
  return rule.id;
}

bool FaultTable::Remove(int id) {
  for (auto it = rules_.begin(); it != rules_.end(); ++it) {
    if (it->id == id) {
      rules_.erase(it);
      return true;
    }
  }
  return false;
}

std::optional<FaultRule> FaultTable::Take(const RequestKey& key) {
  for (auto it = rules_.begin(); it != rules_.end(); ++it) {
    if (!Applies(*it, key)) continue;
    FaultRule hit = *it;
    if (it->count > 0) {
      --it->count;
      if (it->count == 0) rules_.erase(it);
    }
    return hit;
  }
  return std::nullopt;
}

}  // namespace sim
