#include "audio/effects/BalancePanSettings.hpp"

#include <algorithm>

namespace kavore {

BalancePanSettings::BalancePanSettings(double balance_, bool enabled_)
    : balance(std::clamp(balance_, -1.0, 1.0)), enabled(enabled_) {}

BalancePanSettings BalancePanSettings::unclamped(double balance, bool enabled) {
    BalancePanSettings s;
    s.balance = balance;
    s.enabled = enabled;
    return s;
}

} // namespace kavore
