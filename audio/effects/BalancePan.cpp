#include "audio/effects/BalancePan.hpp"

#include <cmath>
#include <numbers>

namespace kavore {

namespace {
// sqrt(2) as a literal, so the centre position is exactly the gain the law has always had.
constexpr double centreCompensation = 1.41421356;
} // namespace

void BalancePan::configure(const BalancePanSettings& settings) {
    active_ = settings.enabled && std::abs(settings.balance) > 0.001;
    if (active_) {
        const double angle = (settings.balance + 1.0) * std::numbers::pi * 0.25;
        leftGain_ = std::cos(angle) * centreCompensation;
        rightGain_ = std::sin(angle) * centreCompensation;
    } else {
        leftGain_ = 1.0;
        rightGain_ = 1.0;
    }
}

void BalancePan::processInterleavedStereo(std::span<float> buffer) {
    if (!active_ || buffer.size() < 2) {
        return;
    }
    const std::size_t pairs = buffer.size() / 2;
    for (std::size_t i = 0; i < pairs; ++i) {
        buffer[2 * i] = static_cast<float>(static_cast<double>(buffer[2 * i]) * leftGain_);
        buffer[2 * i + 1] = static_cast<float>(static_cast<double>(buffer[2 * i + 1]) * rightGain_);
    }
}

} // namespace kavore
