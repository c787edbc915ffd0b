#include "audio/effects/MagicLeveler.hpp"
#include "audio/effects/OneKnobCompressor.hpp"
#include "audio/effects/OverdriveLimiter.hpp"

#include "tests/audio/AudioTestSupport.hpp"

#include <gtest/gtest.h>

using namespace kavore;
using namespace kavore::test;

TEST(OneKnobCompressor, StaticCurveVoicingsAndAttack) {
    OneKnobCompressor c;
    c.configure(CompressorSettings(1.0, CompressorVoicing::music, true), 48000);
    // Threshold -32, ratio 6, makeup 32 * (5/6) * 0.25 = 6.667 dB. Far above the knee a steady
    // -6.02 dBFS comes out at T + (L - T) / R + makeup = -21.00 dBFS.
    auto loud = square(48000, 0.5f);
    c.process(loud);
    EXPECT_NEAR(dbRatio(std::fabs(loud.back()), 1.0), -21.003, 0.01);
    EXPECT_NEAR(c.gainReductionDB(), 21.65, 0.01);
    // Far below the knee only the makeup acts, once the envelope has released.
    auto quiet = square(96000, 0.001f);
    c.process(quiet);
    EXPECT_NEAR(dbRatio(std::fabs(quiet.back()), 0.001), 6.667, 0.01);
    EXPECT_NEAR(c.gainReductionDB(), 0.0, 1e-9);

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
