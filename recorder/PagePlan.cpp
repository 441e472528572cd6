#include "recorder/PagePlan.h"

#include <algorithm>
#include <vector>

namespace recorder {

std::size_t PlanBytes(const RecorderLimits& limits, std::span<const PlannedChannels> plan) {
  std::size_t total = EventBytes(limits);
  std::vector<std::uint32_t> rates;
  for (const PlannedChannels& p : plan) {
    total += p.count * ChannelBytes(limits, p.rateMs, p.kind);
    if (std::find(rates.begin(), rates.end(), p.rateMs) == rates.end()) {
      rates.push_back(p.rateMs);
      total += GroupBytes(limits, p.rateMs);
    }
  }
  return total;
}

}  // namespace recorder
