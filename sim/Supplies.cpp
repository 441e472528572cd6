#include "sim/Supplies.h"

#include <algorithm>

namespace sim {

double SupplyRail::Share(double now) const {
  return std::clamp(1.0 + offset + drift * (now - setAt), 0.0, 2.0);
}

void SupplyRail::Set(double share, double perSecond, double now) {
  offset = share;
  drift = perSecond;
  setAt = now;
}

}  // namespace sim
