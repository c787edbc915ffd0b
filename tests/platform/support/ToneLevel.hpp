#pragma once
// The amplitude of one tone in a recording: what a device's monitor says an application plays there.

#include <cmath>
#include <cstddef>
#include <numbers>

namespace tonavi::test {

// Amplitude of the `frequency` component of mono samples, by correlation with a sine and a cosine.
inline double amplitudeAt(const float* samples, std::size_t count, double frequency, double rate) {
    double s = 0, c = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const double phase = 2.0 * std::numbers::pi * frequency * static_cast<double>(i) / rate;
        s += samples[i] * std::sin(phase);
        c += samples[i] * std::cos(phase);
    }
    return count ? 2.0 * std::sqrt(s * s + c * c) / static_cast<double>(count) : 0.0;
}

} // namespace tonavi::test
