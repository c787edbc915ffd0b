#include "audio/effects/OneKnobCompressor.hpp"

#include "audio/primitives/EnvelopeFollower.hpp"
#include "audio/primitives/FastMath.hpp"

#include <algorithm>
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
    // Passes per block: the levels, reductions and gains are independent per sample and run as
    // vector code; only the envelope between them is a recurrence.
    constexpr std::size_t blockSize = 256;
    double level[blockSize];
    const double half = kneeDB_ / 2.0;
    const double slope = 1.0 - 1.0 / ratio_;
    const double knee = kneeDB_;
    const double threshold = thresholdDB_;
    const double makeup = makeupLinear_;
    const EnvelopeFollower follower{attackCoeff_, releaseCoeff_};
    // Both branches are computed and one is selected, so that the loop has no control flow.
    const auto reductionFor = [=](double over) {
        const double hard = over * slope;
        const double soft = (over + half) * (over + half) * slope / (2.0 * knee);
        const bool aboveKnee = over > half;
        const bool inKnee = over > -half;
        return aboveKnee ? hard : (inKnee ? soft : 0.0);
    };
    double envelope = envelope_;
    double reduction = 0.0;
    for (std::size_t start = 0; start < buffer.size(); start += blockSize) {
        const std::size_t n = std::min(blockSize, buffer.size() - start);
        float* const samples = buffer.data() + start;
        for (std::size_t i = 0; i < n; ++i)
            level[i] = k20OverLn10 * FastMath::ln(std::fabs(static_cast<double>(samples[i])) + 1e-12);
        // The level array becomes the envelope, in place.
        follower.follow(std::span<double>(level, n), envelope);
        // Then the reduction, in its own loop: joined with the exponential below, the compiler
        // evaluates the exponential once per knee branch before selecting.
        for (std::size_t i = 0; i < n; ++i)
            level[i] = reductionFor(level[i] - threshold);
        for (std::size_t i = 0; i < n; ++i) {
            const double r = level[i];
            // 10^(-r/20); r == 0 gives exactly 1.
            const double e = FastMath::exp(r * kNegLn10Over20);
            const double g = r >= 120.0 ? 0.0 : e;
            samples[i] = static_cast<float>(g * static_cast<double>(samples[i]) * makeup);
        }
        reduction = level[n - 1];
    }
    envelope_ = envelope;
    gainReductionDB_ = reduction;
}

void OneKnobCompressor::reset() {
    envelope_ = -120.0;
    gainReductionDB_ = 0.0;
}

} // namespace kavore
