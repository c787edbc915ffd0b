#include "audio/primitives/DriftCorrector.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace kavore {

void DriftCorrector::updateRatio(double producedFrames, double consumedFrames) {
    if (!(consumedFrames > 0.0)) {
        return;
    }
    const double r = std::clamp(producedFrames / consumedFrames, 0.95, 1.05);
    ratio_ += smoothing_ * (r - ratio_);
}

std::vector<float> DriftCorrector::resample(std::span<const float> input, int outputFrames) {
    if (outputFrames < 1) {
        return {};
    }
    std::vector<float> out(static_cast<std::size_t>(outputFrames), 0.0f);
    if (input.empty()) {
        return out;
    }
    const auto length = static_cast<std::int64_t>(input.size());
    double position = fractional_;
    const double step = ratio_;
    for (std::size_t i = 0; i < out.size(); ++i) {
        const auto index = static_cast<std::int64_t>(position);
        const float s0 = (index >= 0 && index < length) ? input[static_cast<std::size_t>(index)] : last_;
        const float s1 =
            (index + 1 >= 0 && index + 1 < length) ? input[static_cast<std::size_t>(index + 1)] : s0;
        const auto fraction = static_cast<float>(position - static_cast<double>(index));
        out[i] = s0 + (s1 - s0) * fraction;
        position += step;
    }
    last_ = input.back();
    const double consumed = std::min(static_cast<double>(length), std::trunc(position));
    fractional_ = std::max(position - consumed, 0.0);
    return out;
}

std::string DriftCorrector::statusText() const {
    const double ppm = (ratio_ - 1.0) * 1'000'000.0;
    if (std::abs(ppm) < 1.0) {
        return "locked";
    }
    char text[48];
    std::snprintf(text, sizeof text, "corrected %+.0f ppm", ppm);
    return text;
}

} // namespace kavore
