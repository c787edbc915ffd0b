#include "audio/effects/OverdriveLimiter.hpp"

#include <algorithm>

namespace kavore {

void OverdriveLimiter::configure(const OverdriveSettings& settings, double sampleRate, double lookaheadMS,
                                 bool forceActive) {
    gain_ = settings.multiplier;
    active_ = forceActive || settings.multiplier > 1.001;
    lookaheadFrames_ = 0;
    if (active_) {
        const double frames = std::trunc(lookaheadMS * 0.001 * sampleRate);
        if (frames > 0.0)
            lookaheadFrames_ = static_cast<std::size_t>(frames);
    }
    delayLine_.assign(std::max<std::size_t>(lookaheadFrames_, 1), 0.0);
    writeIndex_ = 0;
    currentGainReduction_ = 1.0;
    releaseCoeff_ = std::exp(-1.0 / (sampleRate * 0.06));
}

void OverdriveLimiter::process(std::span<float> buffer) {
    if (!active_ || buffer.empty())
        return;
    for (float& sample : buffer)
        sample = static_cast<float>(processSample(sample));
}

void OverdriveLimiter::reset() {
    std::fill(delayLine_.begin(), delayLine_.end(), 0.0);
    writeIndex_ = 0;
    currentGainReduction_ = 1.0;
}

} // namespace kavore
