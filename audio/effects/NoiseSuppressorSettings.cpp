#include "audio/effects/NoiseSuppressorSettings.hpp"

#include <algorithm>

namespace kavore {

NoiseSuppressorSettings::NoiseSuppressorSettings(double amount_, bool enabled_)
    : amount(std::clamp(amount_, 0.0, 1.0)), enabled(enabled_) {}

NoiseSuppressorSettings NoiseSuppressorSettings::unclamped(double amount, bool enabled) {
    NoiseSuppressorSettings s;
    s.amount = amount;
    s.enabled = enabled;
    return s;
}

} // namespace kavore
