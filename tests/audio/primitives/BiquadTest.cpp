#include "audio/primitives/Biquad.hpp"

#include "tests/audio/SignalProbe.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <numbers>
#include <vector>

using kavore::Biquad;

namespace {

constexpr double rate = 48000.0;

// Gain of the filter for a steady sine, measured on the rendered output after the transient.
double renderedGainDB(Biquad filter, double hz) {
    const std::size_t settle = 24000;
    const std::size_t measure = 48000; // a whole number of periods for every test frequency
    double inSum = 0.0;
    double outSum = 0.0;
    for (std::size_t n = 0; n < settle + measure; ++n) {
        const double x = std::sin(2.0 * std::numbers::pi * hz * static_cast<double>(n) / rate);
        const double y = filter.process(x);
        if (n >= settle) {
            inSum += x * x;
            outSum += y * y;
        }
    }
    return 10.0 * std::log10(outSum / inSum);
}

bool isPassthrough(const Biquad& f) {
    return f.b0 == 1.0 && f.b1 == 0.0 && f.b2 == 0.0 && f.a1 == 0.0 && f.a2 == 0.0;
}

} // namespace

TEST(Biquad, PeakingBoostIsExactAtCentreByFormulaAndByRenderedSine) {
    Biquad peak;
    peak.setPeaking(1000.0, rate, 6.0, 1.0);
    EXPECT_NEAR(peak.magnitudeDB(1000.0, rate), 6.0, 0.005);
    EXPECT_NEAR(renderedGainDB(peak, 1000.0), 6.0, 0.005);
    // Far from the centre the band leaves the signal alone.
    EXPECT_NEAR(renderedGainDB(peak, 50.0), 0.0, 0.1);
    EXPECT_NEAR(peak.magnitudeDB(15000.0, rate), 0.0, 0.2);

    Biquad cut;
    cut.setPeaking(1000.0, rate, -6.0, 1.0);
    EXPECT_NEAR(renderedGainDB(cut, 1000.0), -6.0, 0.005);
}

TEST(Biquad, ShelvesReachFullGainAtTheirEndAndHalfAtTheCorner) {
    Biquad low;
    low.setLowShelf(1000.0, rate, 6.0, 0.707);
    EXPECT_NEAR(low.magnitudeDB(0.0, rate), 6.0, 0.005);
    EXPECT_NEAR(low.magnitudeDB(1000.0, rate), 3.0, 0.005);
    EXPECT_NEAR(low.magnitudeDB(rate / 2.0, rate), 0.0, 0.005);
    EXPECT_NEAR(renderedGainDB(low, 30.0), 6.0, 0.02);

    Biquad high;
    high.setHighShelf(1000.0, rate, -6.0, 0.707);
    EXPECT_NEAR(high.magnitudeDB(0.0, rate), 0.0, 0.005);
    EXPECT_NEAR(high.magnitudeDB(1000.0, rate), -3.0, 0.005);
    EXPECT_NEAR(high.magnitudeDB(rate / 2.0, rate), -6.0, 0.005);
    EXPECT_NEAR(renderedGainDB(high, 12000.0), -6.0, 0.05);
}

TEST(Biquad, LowpassCutoffIsLimitedToNearNyquistButHighpassIsNot) {
    // A Butterworth section is 3.01 dB down at its cutoff.
    Biquad lp;
    lp.setLowpass(1000.0, rate, std::numbers::sqrt2 / 2.0);
    EXPECT_NEAR(lp.magnitudeDB(1000.0, rate), -3.01, 0.01);
    EXPECT_NEAR(renderedGainDB(lp, 100.0), 0.0, 0.01);

    Biquad beyond;
    beyond.setLowpass(30000.0, rate, std::numbers::sqrt2 / 2.0);
    EXPECT_NEAR(beyond.magnitudeDB(21600.0, rate), -3.01, 0.01);
    EXPECT_NEAR(renderedGainDB(beyond, 1000.0), 0.0, 0.01);

    Biquad hpAtLimit;
    hpAtLimit.setHighpass(21600.0, rate, std::numbers::sqrt2 / 2.0);
    EXPECT_NEAR(hpAtLimit.magnitudeDB(21600.0, rate), -3.01, 0.01);
    Biquad hpBeyond;
    hpBeyond.setHighpass(30000.0, rate, std::numbers::sqrt2 / 2.0);
    EXPECT_GT(std::abs(hpBeyond.magnitudeDB(21600.0, rate) + 3.01), 1.0);
}

TEST(Biquad, DegenerateDesignsArePassthroughAndRetuningKeepsState) {
    // Each design starts from a non-trivial filter, so a setter that returns early fails.
    const std::vector<std::pair<std::function<void(Biquad&)>, bool>> designs = {
        {[](Biquad& f) { f.setPeaking(1000.0, rate, 0.0, 1.0); }, true},
        {[](Biquad& f) { f.setLowShelf(1000.0, rate, 0.01, 1.0); }, true},
        {[](Biquad& f) { f.setHighShelf(1000.0, rate, -0.01, 1.0); }, true},
        {[](Biquad& f) { f.setHighShelf(1000.0, rate, 0.011, 1.0); }, false},
        {[](Biquad& f) { f.setHighpass(100.0, 0.0, 0.707); }, true},
        {[](Biquad& f) { f.setLowpass(0.0, rate, 0.707); }, true},
    };
    for (std::size_t i = 0; i < designs.size(); ++i) {
        Biquad f;
        f.setPeaking(1000.0, rate, 6.0, 1.0);
        designs[i].first(f);
        EXPECT_EQ(isPassthrough(f), designs[i].second) << "design " << i;
    }
    EXPECT_EQ(Biquad{}.magnitudeDB(1000.0, 0.0), 0.0);

    Biquad running;
    running.setLowpass(500.0, rate, 0.707);
    for (int i = 0; i < 10; ++i) {
        running.process(1.0);
    }
    const double z1 = running.z1;
    const double z2 = running.z2;
    running.setHighpass(2000.0, rate, 0.707);
    EXPECT_EQ(running.z1, z1);
    EXPECT_EQ(running.z2, z2);
    EXPECT_NE(z1, 0.0);
}
