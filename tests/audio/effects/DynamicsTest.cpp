#include "audio/effects/MagicLeveler.hpp"
#include "audio/effects/NoiseSuppressor.hpp"
#include "audio/effects/OneKnobCompressor.hpp"
#include "audio/effects/OverdriveLimiter.hpp"
#include "audio/effects/SteadyVolume.hpp"

#include "tests/audio/AudioTestSupport.hpp"

#include <gtest/gtest.h>

using namespace kavore;
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
    if (t <= t0)
        return 0.0;
    const double k = 1.0 / tauRise - 1.0 / tauShort;
    const double decay = std::exp(-(t - t0) / tauRise);
    return target * (1.0 - decay) -
           stepDB / (tauRise * k) * (std::exp(-t / tauShort) - std::exp(-t0 / tauShort) * decay);
}

} // namespace

TEST(OneKnobCompressor, StaticCurveVoicingsAndAttack) {
    OneKnobCompressor c;
    c.configure(CompressorSettings(1.0, CompressorVoicing::music, true), 48000);
    // Threshold -32, ratio 6, makeup 32 * (5/6) * 0.25 = 6.667 dB; the curve itself is the exact-formula
    // sweep's. A steady -6.02 dBFS is reduced by T + (L - T) / R - L = 21.65 dB, and silence by nothing.
    EXPECT_EQ(std::make_pair(c.thresholdDB(), c.ratio()), std::make_pair(-32.0, 6.0));
    EXPECT_NEAR(dbRatio(c.makeupLinear(), 1.0), 6.667, 0.001);
    for (const auto& [amplitude, reductionDB] : {std::pair{0.5f, 21.65}, {0.001f, 0.0}}) {
        auto steady = square(96000, amplitude);
        c.process(steady);
        EXPECT_NEAR(c.gainReductionDB(), reductionDB, 0.01) << amplitude;
    }

    c.configure(CompressorSettings(0.001, CompressorVoicing::voice, true), 48000);
    EXPECT_FALSE(c.active());
    c.configure(CompressorSettings::unclamped(1.5, CompressorVoicing::podcast, true), 48000);
    EXPECT_EQ(std::make_tuple(c.thresholdDB(), c.ratio(), c.kneeDB()), std::make_tuple(-48.0, 8.5, 4.0));

    // The voice attack is 6 ms: after a step the envelope covers 1 - 1/e of the way in 6 ms.
    c.configure(CompressorSettings(0.5, CompressorVoicing::voice, true), 48000);
    c.reset();
    auto step = square(288, 1.0f);
    c.process(step);
    EXPECT_NEAR(c.envelope(), -120.0 * std::exp(-1.0), 0.05);
}

// Levels and gains go through fast approximations of log and exp; against the exact formula a
// sweep over the signal range must come out the same to far better than 0.1 dB.
TEST(OneKnobCompressor, MatchesTheExactFormulaOverTheSignalRange) {
    const auto exactCompressor = [](const OneKnobCompressor& c, std::vector<float> v) {
        double envelope = -120.0;
        const double half = c.kneeDB() / 2.0, slope = 1.0 - 1.0 / c.ratio();
        for (float& sample : v) {
            const double level = 20.0 * std::log10(std::fabs(double(sample)) + 1e-12);
            const double k = envelope < level ? c.attackCoeff() : c.releaseCoeff();
            envelope = envelope * k + level * (1.0 - k);
            const double over = envelope - c.thresholdDB();
            const double r =
                over > half ? over * slope
                            : (over > -half ? (over + half) * (over + half) * slope / (2 * c.kneeDB()) : 0);
            sample = float(std::pow(10.0, -r / 20.0) * sample * c.makeupLinear());
        }
        return v;
    };
    const auto sweep = levelSweep();
    for (const auto voicing :
         {CompressorVoicing::music, CompressorVoicing::voice, CompressorVoicing::podcast})
        for (const double amount : {0.2, 0.6, 1.0}) {
            OneKnobCompressor c;
            c.configure(CompressorSettings(amount, voicing, true), 48000);
            const auto expected = exactCompressor(c, sweep);
            auto actual = sweep;
            for (std::size_t at = 0; at < actual.size(); at += 480)
                c.process(std::span<float>(actual).subspan(at, 480));
            EXPECT_LT(worstDBApart(expected, actual), 1e-4) << amount;
        }
}

TEST(OverdriveLimiter, NeverPassesTheCeilingRecoversIn60msAndIsADelayAtUnity) {
    OverdriveLimiter lim;
    lim.configure(OverdriveSettings(4.0), 48000, 0, false);
    ASSERT_TRUE(lim.active());
    std::vector<float> buf(48000);
    for (std::size_t i = 0; i < buf.size(); ++i)
        buf[i] = i % 3 == 0 ? 1.0f : static_cast<float>(std::sin(0.01 * double(i)));
    lim.process(buf);
    EXPECT_NEAR(buf[0], 0.966051f, 1e-6) << "reaches the ceiling at once";
    for (float s : buf)
        ASSERT_LE(std::fabs(s), static_cast<float>(OverdriveLimiter::ceilingLinear));
    const double held = lim.currentGainReduction();
    auto quiet = square(2880, 0.01f);
    lim.process(quiet);
    EXPECT_NEAR(lim.currentGainReduction(), 1.0 - (1.0 - held) * std::exp(-1.0), 1e-3);

    // At unity it is inactive, and its look-ahead is a pure delay.
    lim.configure(OverdriveSettings(1.0), 48000, 5, false);
    EXPECT_FALSE(lim.active());
    std::vector<float> hot{1.5f, -2.0f};
    lim.process(hot);
    EXPECT_EQ(hot, (std::vector<float>{1.5f, -2.0f})) << "not even clamped";

    lim.configure(OverdriveSettings(1.0), 48000, 2, true);
    ASSERT_EQ(lim.lookaheadFrames(), 96u);
    std::vector<float> impulse(200, 0.0f);
    impulse[0] = 0.5f;
    lim.process(impulse);
    EXPECT_FLOAT_EQ(impulse[96], 0.5f);
    EXPECT_EQ(std::count(impulse.begin(), impulse.end(), 0.0f), 199);
}

TEST(MagicLeveler, ActsOncePerWindowHoldsInSilenceAndCutsThreeTimesFaster) {
    for (std::size_t bufferSize : {256u, 300u}) {
        MagicLeveler lev;
        lev.configure(LevelerSettings(1.0, true), 48000);
        ASSERT_EQ(lev.rmsWindow(), 19200);
        const std::size_t perWindow = 19200 / bufferSize;
        // -40 dBFS is far below the -14 dB target: each window raises the gain by 0.75 dB.
        for (std::size_t n = 1; n <= 2 * perWindow; ++n) {
            auto buf = square(bufferSize, 0.01f);
            lev.process(buf);
            const double expectedDB = n < perWindow ? 0.0 : (n < 2 * perWindow ? 0.75 : 1.5);
            ASSERT_NEAR(dbRatio(std::fabs(buf.back()), 0.01), expectedDB, 1e-4)
                << bufferSize << " buffer " << n;
        }
    }

    // Silence holds the gain and loudness pulls it down three times faster.
    MagicLeveler lev;
    lev.configure(LevelerSettings(0.5, true), 48000);
    auto run = [&](float amplitude, int windows) {
        std::vector<float> buf;
        for (int i = 0; i < windows * 75; ++i) {
            buf = square(256, amplitude);
            lev.process(buf);
        }
        return std::fabs(buf.back());
    };
    run(0.01f, 4);
    EXPECT_DOUBLE_EQ(lev.currentGainDB(), 3.0);
    EXPECT_NEAR(dbRatio(run(1e-4f, 5), 1e-4), 3.0, 1e-3)
        << "below the -55 dB gate the gain holds, and applies";
    EXPECT_DOUBLE_EQ(lev.currentGainDB(), 3.0);
    run(0.3f, 1);
    EXPECT_DOUBLE_EQ(lev.currentGainDB(), 0.75);
    run(0.01f, 8); // its own ceiling holds full-scale input with gain applied
    auto hot = square(256, 1.0f);
    lev.process(hot);
    EXPECT_LE(std::ranges::max(hot), static_cast<float>(OverdriveLimiter::ceilingLinear));
    lev.configure(LevelerSettings(0.0005, true), 48000);
    EXPECT_EQ(std::make_pair(lev.active(), lev.latencySamples()), std::make_pair(false, 0));
}

// The exact-formula sweep below reads these through the accessors, so the amount's mapping is checked here.
TEST(NoiseSuppressor, AmountSetsThresholdFloorSlopeAndTheHissShelf) {
    NoiseSuppressor full, half, off;
    full.configure(NoiseSuppressorSettings(1.0, true), rate);
    half.configure(NoiseSuppressorSettings(0.5, true), rate);
    off.configure(NoiseSuppressorSettings(0.8, false), rate);
    EXPECT_EQ(std::make_tuple(full.thresholdDB(), full.floorDB(), full.slope(), half.thresholdDB(),
                              half.floorDB(), half.slope(), half.hissActive(), off.active()),
              std::make_tuple(-30.0, -40.0, 4.0, -45.0, -29.0, 2.5, false, false));
    EXPECT_NEAR(full.hissLeft().magnitudeDB(rate / 2.0, rate), -6.0, 0.01);
}

// The gain goes through fast approximations of log and exp; against the exact formula, on the
// louder channel of each pair and through the hiss shelves, a sweep over the signal range must come
// out the same to far better than 0.1 dB. An odd tail is gated like a pair.
TEST(NoiseSuppressor, MatchesTheExactFormulaOverTheSignalRange) {
    const auto exact = [](const NoiseSuppressor& ns, std::vector<float> v) {
        double envelope = -120.0;
        Biquad shelves[2] = {ns.hissLeft(), ns.hissRight()};
        for (std::size_t i = 0; i < v.size(); i += 2) {
            const std::size_t n = std::min<std::size_t>(2, v.size() - i);
            const double peak = std::max(std::fabs(v[i]), std::fabs(v[i + n - 1]));
            const double level = 20.0 * std::log10(peak + 1e-12);
            const double k = envelope < level ? ns.attackCoeff() : ns.releaseCoeff();
            envelope = envelope * k + level * (1.0 - k);
            const double gainDB = std::max(ns.floorDB(), (envelope - ns.thresholdDB()) * (ns.slope() - 1.0));
            const double gain = envelope >= ns.thresholdDB() ? 1.0 : std::pow(10.0, gainDB / 20.0);
            for (std::size_t c = 0; c < n; ++c)
                v[i + c] = float(ns.hissActive() ? shelves[c].process(v[i + c] * gain) : v[i + c] * gain);
        }
        return v;
    };
    auto sweep = levelSweep(96001);
    for (std::size_t i = 1; i < sweep.size(); i += 4)
        sweep[i] *= 0.3f; // the channels differ, so the louder one must be picked
    for (const double amount : {0.2, 0.5, 0.75, 1.0}) {
        NoiseSuppressor ns;
        ns.configure(NoiseSuppressorSettings(amount, true), rate);
        const auto expected = exact(ns, sweep);
        auto actual = sweep;
        ns.process(std::span<float>(actual).first(48000));
        ns.process(std::span<float>(actual).subspan(48000));
        EXPECT_LT(worstDBApart(expected, actual), 1e-4) << amount;
    }
}

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
