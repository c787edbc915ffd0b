#include "audio/effects/EQ10.hpp"

#include "audio/primitives/BiquadCascade.hpp"

#include <algorithm>
#include <cmath>

namespace kavore {

void EQ10::configure(const EQ10Settings& settings, double sampleRate) {
    const bool anyGain = std::any_of(settings.bandGainsDB.begin(), settings.bandGainsDB.end(),
                                     [](double g) { return std::fabs(g) >= 0.01; });
    active_ = settings.enabled && (std::fabs(settings.preampDB) >= 0.01 || anyGain);
    preampLinear_ = settings.preampDB <= -120.0 ? 0.0 : std::pow(10.0, settings.preampDB / 20.0);
    for (std::size_t i = 0; i < bands_.size(); ++i)
        bands_[i].setPeaking(bandFrequencies[i], sampleRate, settings.bandGainsDB[i], bandQ);
}

void EQ10::process(std::span<float> buffer) {
    if (!active_)
        return;
    BiquadCascade::processFloat(bands_, buffer, preampLinear_);
}

void EQ10::reset() {
    for (Biquad& band : bands_)
        band.clearState();
}

} // namespace kavore
