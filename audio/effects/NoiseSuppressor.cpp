#include "audio/effects/NoiseSuppressor.hpp"

#include "audio/primitives/EnvelopeFollower.hpp"
#include "audio/primitives/FastMath.hpp"

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

// 20 log10(v) = (20 / ln 10) ln(v), and 10^(g/20) = exp(g ln 10 / 20).
constexpr double k20OverLn10 = 8.6858896380650365530225783783321;
constexpr double kLn10Over20 = 0.11512925464970228420089957273422;

double levelDB(double magnitude) {
    return k20OverLn10 * FastMath::ln(magnitude + 1e-12);
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

void NoiseSuppressor::process(std::span<float> buffer) {
    if (!active_) {
        return;
    }
    const EnvelopeFollower follower{attackCoeff_, releaseCoeff_};
    const double threshold = thresholdDB_;
    const double slope = slope_;
    const double floor = floorDB_;
    // The gain for an envelope level. Both outcomes are computed and one selected, so that the
    // gain pass runs as vector code.
    const auto gainAt = [=](double envelope) {
        const double under = threshold - envelope;
        const double gainDB = std::max(floor, -(under * (slope - 1.0)));
        const double expanded = FastMath::exp(gainDB * kLn10Over20);
        const bool open = envelope >= threshold;
        const bool closed = gainDB <= -120.0;
        return open ? 1.0 : (closed ? 0.0 : expanded);
    };
    // Per block of pairs: the levels and the gains are independent per pair and run as vector
    // code around the envelope's recurrence; the shelves, one per channel, follow.
    constexpr std::size_t blockPairs = 128;
    double gain[blockPairs];
    const std::size_t pairs = buffer.size() / 2;
    Biquad hissLeft = hissLeft_;
    Biquad hissRight = hissRight_;
    for (std::size_t start = 0; start < pairs; start += blockPairs) {
        const std::size_t n = std::min(blockPairs, pairs - start);
        float* const frames = buffer.data() + 2 * start;
        for (std::size_t i = 0; i < n; ++i) {
            const double left = frames[2 * i];
            const double right = frames[2 * i + 1];
            gain[i] = levelDB(std::max(std::abs(left), std::abs(right)));
        }
        follower.follow(std::span<double>(gain, n), envelope_);
        for (std::size_t i = 0; i < n; ++i)
            gain[i] = gainAt(gain[i]);
        if (hissActive_) {
            for (std::size_t i = 0; i < n; ++i) {
                frames[2 * i] = static_cast<float>(hissLeft.process(frames[2 * i] * gain[i]));
                frames[2 * i + 1] = static_cast<float>(hissRight.process(frames[2 * i + 1] * gain[i]));
            }
        } else {
            for (std::size_t i = 0; i < n; ++i) {
                frames[2 * i] = static_cast<float>(frames[2 * i] * gain[i]);
                frames[2 * i + 1] = static_cast<float>(frames[2 * i + 1] * gain[i]);
            }
        }
    }
    hissLeft_ = hissLeft;
    hissRight_ = hissRight;
    if (buffer.size() % 2 == 1) {
        double level = levelDB(std::abs(static_cast<double>(buffer.back())));
        follower.follow(std::span<double>(&level, 1), envelope_);
        double lone = buffer.back() * gainAt(level);
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
