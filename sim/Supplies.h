// The supply rails the board's converter measures: each sits at a share of its nominal voltage
// that a person can set, and that can drift at a set rate over machine time, so that a rail can be
// walked out of its tolerance while the host watches.
#pragma once

#include <cstddef>

namespace sim {

inline constexpr std::size_t kSupplyChannels = 16;

struct SupplyRail {
  // Share of nominal above (below 0: beneath) it when set; as built, about 1 % low.
  double offset = -0.01;
  double drift = 0;  // share a second of machine time
  double setAt = 0;  // machine seconds when set

  // The rail's voltage over its nominal at machine second `now`, held between 0 and 2.
  double Share(double now) const;
  void Set(double share, double perSecond, double now);
};

}  // namespace sim
