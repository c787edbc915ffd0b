#include "audio/effects/NoiseSuppressor.hpp"

#include <algorithm>
#include <cmath>

namespace kavore {

namespace {
constexpr double hissShelfHz = 6000.0;
constexpr double hissShelfQ = 0.707;
constexpr double attackSeconds = 0.003;
constexpr double releaseSeconds = 0.12;

double smoothingCoefficient(double sampleRate, double seconds) {
    // A rate that is not positive gives no smoothing rather than a runaway envelope.
    if (!(sampleRate > 0.0)) {
        return 0.0;
    }
    return std::exp(-1.0 / (sampleRate * seconds));
}

double levelDB(double magnitude) {
    return 20.0 * std::log10(magnitude + 1e-12);
}
} // namespace

void NoiseSuppressor::configure(const NoiseSuppressorSettings& settings, double sampleRate) {
    const double a = settings.amount;
    active_ = settings.enabled && a > 0.001;
    if (!active_) {
        return;
    }
    thresholdDB_ = 30.0 * a - 60.0;
    slope_ = 3.0 * a + 1.0;
    floorDB_ = -22.0 * a - 18.0;
    attackCoeff_ = smoothingCoefficient(sampleRate, attackSeconds);
    releaseCoeff_ = smoothingCoefficient(sampleRate, releaseSeconds);
    hissActive_ = a > 0.5;
    // Above half strength the shelf cuts up to 6 dB; the setter gives passthrough for a flat gain
    // or a missing rate. The filters keep their memory.
    const double shelfDB = (a - 0.5) * -12.0;
    hissLeft_.setHighShelf(hissShelfHz, sampleRate, shelfDB, hissShelfQ);
    hissRight_.setHighShelf(hissShelfHz, sampleRate, shelfDB, hissShelfQ);
}

double NoiseSuppressor::gainFor(double level) {
    const double c = envelope_ < level ? attackCoeff_ : releaseCoeff_;
    envelope_ = envelope_ * c + level * (1.0 - c);
    if (envelope_ >= thresholdDB_) {
        return 1.0;
    }
    const double under = thresholdDB_ - envelope_;
    const double gainDB = std::max(floorDB_, -(under * (slope_ - 1.0)));
    return gainDB <= -120.0 ? 0.0 : std::pow(10.0, gainDB / 20.0);
}

void NoiseSuppressor::process(std::span<float> buffer) {
    if (!active_) {
        return;
    }
    const std::size_t pairs = buffer.size() / 2;
    for (std::size_t i = 0; i < pairs; ++i) {
        double left = buffer[2 * i];
        double right = buffer[2 * i + 1];
        const double g = gainFor(levelDB(std::max(std::abs(left), std::abs(right))));
        left *= g;
        right *= g;
        if (hissActive_) {
            left = hissLeft_.process(left);
            right = hissRight_.process(right);
        }
        buffer[2 * i] = static_cast<float>(left);
        buffer[2 * i + 1] = static_cast<float>(right);
    }
    if (buffer.size() % 2 == 1) {
        double lone = buffer.back();
        lone *= gainFor(levelDB(std::abs(lone)));
        if (hissActive_) {
            lone = hissLeft_.process(lone);
        }
        buffer.back() = static_cast<float>(lone);
    }
}

void NoiseSuppressor::reset() {
    envelope_ = -120.0;
    hissLeft_.clearState();
    hissRight_.clearState();
}

} // namespace kavore
