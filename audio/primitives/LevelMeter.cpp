#include "audio/primitives/LevelMeter.hpp"

#include <algorithm>
#include <cmath>

namespace kavore {

void LevelMeter::process(std::span<const float> samples) {
    if (samples.empty()) {
        peak_ *= (1.0f - release_);
        return;
    }
    double sumOfSquares = 0.0;
    float p = 0.0f;
    for (const float s : samples) {
        sumOfSquares += static_cast<double>(s) * static_cast<double>(s);
        const float magnitude = std::abs(s);
        if (p < magnitude) {
            p = magnitude;
        }
    }
    const float r = static_cast<float>(std::sqrt(sumOfSquares / static_cast<double>(samples.size())));
    const float f = rms_ < r ? attack_ : release_;
    rms_ += f * (r - rms_);
    if (peak_ < p) {
        peak_ = p;
    } else {
        peak_ *= (1.0f - release_);
    }
}

float LevelMeter::normalized() const {
    return std::clamp(rms_ * 3.0f, 0.0f, 1.0f);
}

} // namespace kavore
