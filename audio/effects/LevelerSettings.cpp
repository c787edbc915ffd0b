#include "audio/effects/LevelerSettings.hpp"

#include <algorithm>

namespace kavore {

LevelerSettings::LevelerSettings(double amount_, bool enabled_)
    : amount(std::clamp(amount_, 0.0, 1.0)), enabled(enabled_) {}

LevelerSettings LevelerSettings::unclamped(double amount, bool enabled) {
    LevelerSettings s;
    s.amount = amount;
    s.enabled = enabled;
    return s;
}

} // namespace kavore
