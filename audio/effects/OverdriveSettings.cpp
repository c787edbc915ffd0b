#include "audio/effects/OverdriveSettings.hpp"

#include <algorithm>

namespace kavore {

OverdriveSettings::OverdriveSettings(double m) : multiplier(std::clamp(m, 1.0, 4.0)) {}

OverdriveSettings OverdriveSettings::unclamped(double m) {
    OverdriveSettings s;
    s.multiplier = m;
    return s;
}

} // namespace kavore
