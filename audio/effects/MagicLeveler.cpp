#include "audio/effects/MagicLeveler.hpp"

#include <algorithm>
#include <cmath>

namespace kavore {

void MagicLeveler::configure(const LevelerSettings& settings, double sampleRate) {
    active_ = settings.enabled && settings.amount > 0.001;
    targetDB_ = 6.0 * settings.amount - 20.0;
    maxGainDB_ = 10.0 * settings.amount + 6.0;
    rmsWindow_ = static_cast<std::int64_t>(std::trunc(std::max(sampleRate * 0.4, 0.0)));
    rmsAccum_ = 0.0;
    rmsCount_ = 0;
    limiter_.configure(OverdriveSettings::off(), sampleRate, 2.0, active_);
}

void MagicLeveler::process(std::span<float> buffer) {
    if (!active_)
        return;
    double sumOfSquares = 0.0;
    for (float s : buffer)
        sumOfSquares += static_cast<double>(s) * static_cast<double>(s);
    rmsAccum_ += sumOfSquares;
    rmsCount_ += static_cast<std::int64_t>(buffer.size());

    if (rmsCount_ >= rmsWindow_ && rmsCount_ > 0) {
        // Measured before this leveler's own gain, and deliberately not corrected for it.
        const double level = 20.0 * std::log10(std::sqrt(rmsAccum_ / static_cast<double>(rmsCount_)) + 1e-12);
        rmsAccum_ = 0.0;
        rmsCount_ = 0;
        if (level > -55.0) {
            const double wanted = std::clamp(targetDB_ - level + currentGainDB_, 0.0, maxGainDB_);
            if (currentGainDB_ < wanted)
                currentGainDB_ = std::min(currentGainDB_ + adjustPerBlockDB, wanted);
            else
                currentGainDB_ = std::max(currentGainDB_ - 3.0 * adjustPerBlockDB, wanted);
        }
    }

    const double gain = currentGainDB_ <= -120.0 ? 0.0 : std::pow(10.0, currentGainDB_ / 20.0);
    if (limiter_.active()) {
        for (float& s : buffer)
            s = static_cast<float>(limiter_.processSample(static_cast<double>(s) * gain));
    } else {
        for (float& s : buffer)
            s = static_cast<float>(static_cast<double>(s) * gain);
    }
}

void MagicLeveler::reset() {
    rmsAccum_ = 0.0;
    rmsCount_ = 0;
    currentGainDB_ = 0.0;
    limiter_.reset();
}

int MagicLeveler::latencySamples() const {
    if (!active_ || !limiter_.active())
        return 0;
    return static_cast<int>(limiter_.lookaheadFrames());
}

} // namespace kavore
