#include "audio/listening/ListeningBalancerSettings.hpp"

#include <algorithm>
#include <cmath>

namespace kavore {

ListeningBalancerSettings::ListeningBalancerSettings(bool enabled_, double target, double strength)
    : enabled(enabled_),
      targetDBFS(std::isfinite(target) ? std::clamp(target, -32.0, -12.0) : defaultTargetDBFS),
      strengthPercent(std::isfinite(strength) ? std::clamp(strength, 0.0, 100.0) : defaultStrengthPercent) {}

} // namespace kavore
