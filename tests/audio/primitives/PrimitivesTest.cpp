#include "audio/primitives/BiquadCascade.hpp"
#include "audio/primitives/DriftCorrector.hpp"
#include "audio/primitives/FastMath.hpp"
#include "audio/primitives/LevelMeter.hpp"
#include "audio/primitives/VolumeLaw.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>
#include <vector>

using namespace kavore;

// Levels from the 1e-12 floor the dynamics add up to far beyond full scale, and gains from far
// below -120 dB to well above unity (relative), against libm. The dynamics rely on exp(0) being
// exactly 1 for unity gain below the threshold.
TEST(FastMath, LogarithmAndExponentialAgreeWithLibm) {
    double worstLn = 0.0, worstExp = 0.0;
    for (double x = std::numeric_limits<double>::min(); x < 1e300; x *= 1.0137)
        worstLn = std::max(worstLn, std::fabs(FastMath::ln(x) - std::log(x)));
    for (double x = 1e-12; x < 4.0; x += 1e-3)
        worstLn = std::max(worstLn, std::fabs(FastMath::ln(x) - std::log(x)));
    for (double x = -708.0; x <= 709.0; x += 0.0137)
        worstExp = std::max(worstExp, std::fabs(FastMath::exp(x) / std::exp(x) - 1.0));
    EXPECT_LT(worstLn, 1e-9);
    EXPECT_LT(worstExp, 1e-9);
    EXPECT_EQ(std::make_tuple(FastMath::ln(1.0), FastMath::exp(0.0), FastMath::exp(-0.0)),
              std::make_tuple(0.0, 1.0, 1.0));
}

// Every section count exercises a different grouping; the result must be bit-identical to
// running the sections one sample at a time, state included.
TEST(BiquadCascade, MatchesPerSampleSectionsBitForBit) {
    for (std::size_t count = 0; count <= 11; ++count) {
        std::vector<Biquad> sections(count);
        for (std::size_t k = 0; k < count; ++k)
            sections[k].setPeaking(40.0 * double(k + 1) * double(k + 1), 48000, k % 2 ? -6.0 : 9.0, 1.1);
        std::vector<Biquad> reference = sections;
        std::vector<double> block(300);
        for (std::size_t i = 0; i < block.size(); ++i)
            block[i] = std::sin(0.05 * double(i)) + (i % 7 == 0 ? 0.5 : 0.0);
        std::vector<double> expected = block;
        for (double& x : expected)
            for (Biquad& b : reference)
                x = b.process(x);
        BiquadCascade::process(sections, std::span<double>(block).first(100));
        BiquadCascade::process(sections, std::span<double>(block).subspan(100));
        EXPECT_EQ(block, expected) << count << " sections";
        EXPECT_EQ(sections, reference) << count << " sections";
    }
}

TEST(DriftCorrector, RatioIsPulledTowardsAClampedMeasurementAndReportedInPPM) {
    const struct {
        double smoothing, produced, consumed, ratio;
        const char* status;
    } steps[] = {{0.5, 200, 100, 1.025, "corrected +25000 ppm"}, // towards 1.05, not 2
                 {0.5, 10, 0, 1.025, "corrected +25000 ppm"},    // nothing consumed: unchanged
                 {0.5, 90, 100, 0.9875, "corrected -12500 ppm"},
                 {1.0, 1.0000005, 1.0, 1.0000005, "locked"},
                 {1.0, 1.00002, 1.0, 1.00002, "corrected +20 ppm"},
                 {1.0, 0.5, 1.0, 0.95, "corrected -50000 ppm"}};
    DriftCorrector d(0.5), e(1.0);
    for (const auto& s : steps) {
        DriftCorrector& c = s.smoothing == 0.5 ? d : e;
        c.updateRatio(s.produced, s.consumed);
        EXPECT_DOUBLE_EQ(c.ratio(), s.ratio) << s.produced << "/" << s.consumed;
        EXPECT_EQ(c.statusText(), s.status) << s.produced << "/" << s.consumed;
    }
}

// At ratio 1.05 a ramp is read slightly fast; the overshoot past the input holds the last sample,
// and the next call starts 0.2 into its input. Empty input gives zeros and leaves the state alone.
TEST(DriftCorrector, ResampleInterpolatesAndCarriesPositionAcrossCalls) {
    DriftCorrector fast(1.0);
    fast.updateRatio(2.0, 1.0);
    EXPECT_EQ(fast.resample(std::vector<float>{0, 1, 2, 3}, 4), (std::vector<float>{0.0f, 1.05f, 2.1f, 3.0f}));
    EXPECT_NEAR(fast.fractional(), 0.2, 1e-12);
    EXPECT_EQ(fast.resample({}, 3), (std::vector<float>{0, 0, 0}));
    EXPECT_NEAR(fast.fractional(), 0.2, 1e-12);
    EXPECT_FLOAT_EQ(fast.last(), 3.0f);
    const std::vector<float> b{4, 5, 6, 7};
    const auto second = fast.resample(b, 2);
    EXPECT_FLOAT_EQ(second[0], 4.2f);
    EXPECT_FLOAT_EQ(second[1], 5.25f);
    EXPECT_TRUE(fast.resample(b, 0).empty());
}

TEST(LevelMeter, RmsRisesWithAttackFallsWithReleaseAndPeakDecaysOnEmptyBuffers) {
    LevelMeter meter(0.6f, 0.08f);
    // RMS of a square wave of +-0.5 is 0.5; its peak is 0.5.
    const std::vector<float> loud{0.5f, -0.5f, 0.5f, -0.5f};
    meter.process(loud);
    EXPECT_FLOAT_EQ(meter.rms(), 0.3f); // 0.6 of the way from 0
    EXPECT_FLOAT_EQ(meter.peak(), 0.5f);
    EXPECT_FLOAT_EQ(meter.normalized(), 0.9f);

    meter.process(loud);
    EXPECT_FLOAT_EQ(meter.rms(), 0.42f);
    EXPECT_FLOAT_EQ(meter.normalized(), 1.0f) << "clamped";
    EXPECT_FLOAT_EQ(meter.peak(), 0.5f * 0.92f) << "a peak that is only matched decays";

    const std::vector<float> quiet{0.1f, -0.1f};
    meter.process(quiet);
    EXPECT_FLOAT_EQ(meter.rms(), 0.42f - 0.08f * 0.32f);
    EXPECT_FLOAT_EQ(meter.peak(), 0.5f * 0.92f * 0.92f);

    const float rmsBefore = meter.rms();
    meter.process({});
    EXPECT_FLOAT_EQ(meter.rms(), rmsBefore);
    EXPECT_FLOAT_EQ(meter.peak(), 0.5f * 0.92f * 0.92f * 0.92f);
}

TEST(VolumeLaw, SquaredFaderRoundTripsAndClampsAtBothEnds) {
    EXPECT_DOUBLE_EQ(VolumeLaw::gain(0.5), 0.25);
    EXPECT_DOUBLE_EQ(VolumeLaw::fader(VolumeLaw::gain(0.5)), 0.5);
    EXPECT_DOUBLE_EQ(VolumeLaw::fader(0.64), 0.8);
    EXPECT_EQ(VolumeLaw::gain(-0.2), 0.0);
    EXPECT_EQ(VolumeLaw::gain(1.7), 1.0);
    EXPECT_EQ(VolumeLaw::fader(-1.0), 0.0);
    EXPECT_EQ(VolumeLaw::fader(4.0), 1.0);
}

TEST(VolumeLaw, DecibelsTreatSilenceAsMinus120AndDisplayNeverShowsNegativeZero) {
    EXPECT_EQ(VolumeLaw::db(1.0), 0.0);
    EXPECT_NEAR(VolumeLaw::db(0.5), -12.0412, 1e-4);
    EXPECT_EQ(VolumeLaw::db(0.0), -120.0);
    EXPECT_EQ(VolumeLaw::db(1e-200), -120.0) << "the square underflows to zero";

    EXPECT_EQ(VolumeLaw::displayDB(0.0), "\u2212\u221E dB");
    EXPECT_EQ(VolumeLaw::displayDB(-3.0), "\u2212\u221E dB");
    EXPECT_EQ(VolumeLaw::displayDB(0.9999), "0.0 dB");
    EXPECT_EQ(VolumeLaw::displayDB(1.0), "0.0 dB");
    EXPECT_EQ(VolumeLaw::displayDB(0.5), "-12.0 dB");
    EXPECT_EQ(VolumeLaw::displayDB(0.995), "-0.1 dB");
}
