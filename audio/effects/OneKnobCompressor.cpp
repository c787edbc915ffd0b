#include "audio/effects/OneKnobCompressor.hpp"

#include <cmath>

namespace kavore {

namespace {
// 20 log10(v) = (20 / ln 10) ln(v), and 10^(-r/20) = exp(-r ln 10 / 20).
constexpr double k20OverLn10 = 8.6858896380650365530225783783321;
constexpr double kNegLn10Over20 = -0.11512925464970228420089957273422;

struct Voicing {
    double attackSeconds;
    double releaseSeconds;
    double kneeDB;
};

Voicing voicingFor(CompressorVoicing v) {
    switch (v) {
    case CompressorVoicing::music:
        return {0.018, 0.22, 8.0};
    case CompressorVoicing::voice:
        return {0.006, 0.12, 5.0};
    case CompressorVoicing::podcast:
        return {0.004, 0.09, 4.0};
    }
    return {0.018, 0.22, 8.0};
}
} // namespace

void OneKnobCompressor::configure(const CompressorSettings& settings, double sampleRate) {
    active_ = settings.enabled && settings.amount > 0.001;
    if (!active_) {
        gainReductionDB_ = 0.0;
        return;
    }
    thresholdDB_ = settings.amount * -32.0;
    ratio_ = settings.amount * 5.0 + 1.0;
    const Voicing v = voicingFor(settings.voicing);
    kneeDB_ = v.kneeDB;
    attackCoeff_ = std::exp(-1.0 / (v.attackSeconds * sampleRate));
    releaseCoeff_ = std::exp(-1.0 / (v.releaseSeconds * sampleRate));
    const double makeupDB = (0.0 - thresholdDB_) * (1.0 - 1.0 / ratio_) * 0.25;
    makeupLinear_ = std::pow(10.0, makeupDB / 20.0);
}

void OneKnobCompressor::process(std::span<float> buffer) {
    if (!active_ || buffer.empty())
        return;
    const double half = kneeDB_ / 2.0;
    const double slope = 1.0 - 1.0 / ratio_;
    double envelope = envelope_;
    double reduction = 0.0;
    for (float& sample : buffer) {
        const double x = sample;
        const double level = k20OverLn10 * std::log(std::fabs(x) + 1e-12);
        const double c = envelope < level ? attackCoeff_ : releaseCoeff_;
        envelope = envelope * c + level * (1.0 - c);

        const double over = envelope - thresholdDB_;
        if (over > half)
            reduction = over * slope;
        else if (over > -half)
            reduction = (over + half) * (over + half) * slope / (2.0 * kneeDB_);
        else
            reduction = 0.0;

        // 10^(-r/20), written as an exponential because pow is several times slower per sample.
        double g = 1.0;
        if (reduction >= 120.0)
            g = 0.0;
        else if (reduction != 0.0)
            g = std::exp(reduction * kNegLn10Over20);
        sample = static_cast<float>(g * x * makeupLinear_);
    }
    envelope_ = envelope;
    gainReductionDB_ = reduction;
}

void OneKnobCompressor::reset() {
    envelope_ = -120.0;
    gainReductionDB_ = 0.0;
}

} // namespace kavore
