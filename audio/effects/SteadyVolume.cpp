#include "audio/effects/SteadyVolume.hpp"

#include <algorithm>
#include <cmath>

namespace kavore {

namespace {
constexpr double shortTermSeconds = 0.35;
constexpr double learningPeriodSeconds = 3.0;
constexpr double learningRate = 2.0;            // per second, while learning
constexpr double baselineFallSeconds = 60.0;    // time constant towards a quieter level
constexpr double baselineRiseDBPerMinute = 0.8; // cap on following a louder level
constexpr double reductionAttackSeconds = 0.15;
constexpr double reductionReleaseSeconds = 2.5;
constexpr double gainSmoothingSeconds = 0.008;
constexpr double unityTolerance = 0.0001;

double towards(double value, double target, double factor) {
    return value + factor * (target - value);
}
} // namespace

void SteadyVolume::configure(double sampleRate) {
    sampleRate_ = sampleRate;
    shortDB_ = -120.0;
    baselineDB_ = -120.0;
    baselineSeeded_ = false;
    reductionDB_ = 0.0;
    appliedGain_ = 1.0;
    learnSeconds_ = 0.0;
}

void SteadyVolume::process(std::span<float> buffer) {
    if (buffer.empty() || !(sampleRate_ > 0.0)) {
        return;
    }
    const double dt = static_cast<double>(buffer.size() / 2) / sampleRate_;

    double sumOfSquares = 0.0;
    for (const float s : buffer) {
        sumOfSquares += static_cast<double>(s) * static_cast<double>(s);
    }
    const double rms = std::sqrt(sumOfSquares / static_cast<double>(buffer.size()));
    const double level = 20.0 * std::log10(rms + 1e-12);
    const bool loud = level > silenceGateDB;

    if (loud && shortDB_ <= silenceGateDB) {
        shortDB_ = level;
    } else {
        shortDB_ = towards(shortDB_, level, 1.0 - std::exp(-dt / shortTermSeconds));
    }

    if (loud) {
        if (!baselineSeeded_) {
            baselineDB_ = level;
            baselineSeeded_ = true;
            learnSeconds_ = 0.0;
        }
        if (learnSeconds_ < learningPeriodSeconds) {
            baselineDB_ = towards(baselineDB_, shortDB_, 1.0 - std::exp(-learningRate * dt));
        } else if (shortDB_ < baselineDB_) {
            baselineDB_ = towards(baselineDB_, shortDB_, 1.0 - std::exp(-dt / baselineFallSeconds));
        } else {
            baselineDB_ = std::min(shortDB_, baselineDB_ + dt / 60.0 * baselineRiseDBPerMinute);
        }
        learnSeconds_ += dt;
    }

    double target = 0.0;
    if (loud || baselineSeeded_) {
        const double limit = baselineDB_ + marginDB;
        if (shortDB_ > limit) {
            target = std::min(shortDB_ - limit, maxReductionDB);
        }
    }
    const double tau = target > reductionDB_ ? reductionAttackSeconds : reductionReleaseSeconds;
    reductionDB_ = towards(reductionDB_, target, 1.0 - std::exp(-dt / tau));

    const double gain = reductionDB_ >= 120.0 ? 0.0 : std::pow(10.0, -reductionDB_ / 20.0);
    if (std::abs(gain - appliedGain_) < unityTolerance && std::abs(gain - 1.0) < unityTolerance) {
        appliedGain_ = gain;
        return;
    }
    const double k = 1.0 - std::exp(-1.0 / (sampleRate_ * gainSmoothingSeconds));
    for (float& s : buffer) {
        appliedGain_ += k * (gain - appliedGain_);
        s = static_cast<float>(static_cast<double>(s) * appliedGain_);
    }
}

} // namespace kavore
