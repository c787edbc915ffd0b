#include "audio/effects/SteadyVolume.hpp"

#include "tests/audio/AudioTestSupport.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

using kavore::SteadyVolume;
using namespace kavore::test;

namespace {

constexpr double rate = 48000.0;
constexpr std::size_t frames = 128;

// Feeds buffers of a 375 Hz sine (exactly one period per buffer, so every buffer has the same RMS)
// at the given RMS level; returns the gain the last buffer received, in dB.
double run(SteadyVolume& sv, double levelDB, double seconds) {
    const double amplitude = dbToLinear(levelDB) * std::sqrt(2.0);
    double gainDB = 0.0;
    const auto buffers = static_cast<int>(std::lround(seconds * rate / frames));
    for (int i = 0; i < buffers; ++i) {
        auto buffer = stereoSine(375.0, amplitude, rate, frames);
        const double in = rms(buffer);
        sv.process(buffer);
        gainDB = in > 0.0 ? dbRatio(rms(buffer), in) : 0.0;
    }
    return gainDB;
}

// Reduction after a step of stepDB above a settled baseline, for continuous time: the short-term
// level rises with a 0.35 s time constant, the target is what exceeds the 3 dB margin, and the
// reduction follows the target with 0.15 s.
double expectedReductionDB(double stepDB, double t) {
    const double tauShort = 0.35, tauRise = 0.15;
    const double target = stepDB - 3.0;
    const double t0 = tauShort * std::log(stepDB / target); // the target starts once past the margin
    if (t <= t0) {
        return 0.0;
    }
    const double k = 1.0 / tauRise - 1.0 / tauShort;
    const double decay = std::exp(-(t - t0) / tauRise);
    return target * (1.0 - decay) -
           stepDB / (tauRise * k) * (std::exp(-t / tauShort) - std::exp(-t0 / tauShort) * decay);
}

} // namespace

TEST(SteadyVolume, FirstBufferSeedsTheBaselineSteadySoundIsUntouchedAndReductionIsCapped) {
    SteadyVolume sv;
    sv.configure(rate);
    auto buffer = stereoSine(375.0, 0.1, rate, frames);
    const auto original = buffer;
    sv.process(buffer);
    EXPECT_NEAR(sv.baselineDB(), dbRatio(rms(original), 1.0), 1e-9);
    EXPECT_EQ(buffer, original);
    EXPECT_NEAR(run(sv, -23.0, 5.0), 0.0, 1e-9);

    // Learned afresh at -50 dB, a 30 dB step is turned down by no more than 18 dB.
    sv.configure(rate);
    run(sv, -50.0, 4.0);
    EXPECT_NEAR(run(sv, -20.0, 3.0), -18.0, 0.02);
    sv.configure(44100.0);
    EXPECT_FALSE(sv.baselineSeeded());
    EXPECT_EQ(std::make_pair(sv.reductionDB(), sv.appliedGain()), std::make_pair(0.0, 1.0));
}

TEST(SteadyVolume, TwelveDecibelStepIsTurnedDownByNineWithA150msAttack) {
    SteadyVolume sv;
    sv.configure(rate);
    run(sv, -30.0, 4.0); // learn the baseline
    EXPECT_NEAR(-run(sv, -18.0, 0.5), expectedReductionDB(12.0, 0.5), 0.15);
    EXPECT_NEAR(-run(sv, -18.0, 0.5), expectedReductionDB(12.0, 1.0), 0.1);
    // Settled: 9 dB less the baseline's slow creep of 0.8 dB per minute.
    EXPECT_NEAR(-run(sv, -18.0, 3.0), 9.0 - 4.0 * 0.8 / 60.0, 0.03);

    // Silence holds the baseline while the reduction relaxes with 2.5 s.
    const double baseline = sv.baselineDB(), reduction = sv.reductionDB();
    run(sv, -200.0, 2.5);
    EXPECT_DOUBLE_EQ(sv.baselineDB(), baseline);
    EXPECT_NEAR(sv.reductionDB(), reduction * std::exp(-1.0), 0.1);
}
