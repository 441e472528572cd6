#include "reports/ReportLayout.h"

namespace reports {

const KindLayout& LayoutOf(ReportKind kind) {
  for (const KindLayout& k : kKindLayouts) {
    if (k.kind == kind) return k;
  }
  return kKindLayouts[0];
}

std::string ReportPrefix(ReportKind kind, std::string_view axisLetter) {
  const KindLayout& k = LayoutOf(kind);
  std::string prefix = k.prefix;
  if (k.axisInName) {
    prefix += axisLetter;
    prefix += '_';
  }
  return prefix;
}

const char* OutcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::kCompleted:
      return "completed";
    case Outcome::kManuallyStopped:
      return "manually stopped";
    case Outcome::kVoltageLimit:
      return "voltage limit";
    case Outcome::kLimitNotRegistered:
      return "limit not registered";
    case Outcome::kCancelled:
      return "cancelled";
    case Outcome::kPlatenTimeOut:
      return "platen time-out";
    case Outcome::kUnknown:
      break;
  }
  return "unknown";
}

}  // namespace reports
