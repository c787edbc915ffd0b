#include "audio/primitives/Biquad.hpp"

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
    double inSum = 0.0, outSum = 0.0;
    for (std::size_t n = 0; n < 72000; ++n) {
        const double x = std::sin(2.0 * std::numbers::pi * hz * static_cast<double>(n) / rate);
        const double y = filter.process(x);
        if (n >= 24000) // then a whole number of periods for every test frequency
            inSum += x * x, outSum += y * y;
    }
    return 10.0 * std::log10(outSum / inSum);
}

} // namespace

// Each design's gain at telling frequencies, from its formula and, where given, from a rendered sine.
// A Butterworth section is 3.01 dB down at its cutoff; a shelf is half way at its corner. The
// low-pass cutoff is held to 0.45 of the rate, the high-pass is not.
TEST(Biquad, DesignsHaveTheirGainWhereItMatters) {
    const double q = std::numbers::sqrt2 / 2.0;
    const struct {
        std::function<void(Biquad&)> design;
        double hz, expectedDB, tolerance;
        bool rendered;
    } cases[] = {
        {[](Biquad& f) { f.setPeaking(1000.0, rate, 6.0, 1.0); }, 1000.0, 6.0, 0.005, true},
        {[](Biquad& f) { f.setPeaking(1000.0, rate, 6.0, 1.0); }, 50.0, 0.0, 0.1, true},
        {[](Biquad& f) { f.setPeaking(1000.0, rate, -6.0, 1.0); }, 1000.0, -6.0, 0.005, true},
        {[](Biquad& f) { f.setLowShelf(1000.0, rate, 6.0, 0.707); }, 0.0, 6.0, 0.005, false},
        {[](Biquad& f) { f.setLowShelf(1000.0, rate, 6.0, 0.707); }, 1000.0, 3.0, 0.005, false},
        {[](Biquad& f) { f.setLowShelf(1000.0, rate, 6.0, 0.707); }, 30.0, 6.0, 0.02, true},
        {[](Biquad& f) { f.setHighShelf(1000.0, rate, -6.0, 0.707); }, 1000.0, -3.0, 0.005, false},
        {[](Biquad& f) { f.setHighShelf(1000.0, rate, -6.0, 0.707); }, rate / 2.0, -6.0, 0.005, false},
        {[](Biquad& f) { f.setHighShelf(1000.0, rate, -6.0, 0.707); }, 0.0, 0.0, 0.005, false},
        {[q](Biquad& f) { f.setLowpass(1000.0, rate, q); }, 1000.0, -3.01, 0.01, false},
        {[q](Biquad& f) { f.setLowpass(1000.0, rate, q); }, 100.0, 0.0, 0.01, true},
        {[q](Biquad& f) { f.setLowpass(30000.0, rate, q); }, 21600.0, -3.01, 0.01, false},
        {[q](Biquad& f) { f.setHighpass(21600.0, rate, q); }, 21600.0, -3.01, 0.01, false},
        {[q](Biquad& f) { f.setHighpass(30000.0, rate, q); }, 21600.0, -0.09, 0.5, false},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        Biquad f;
        cases[i].design(f);
        EXPECT_NEAR(f.magnitudeDB(cases[i].hz, rate), cases[i].expectedDB, cases[i].tolerance)
            << "case " << i;
        if (cases[i].rendered) {
            EXPECT_NEAR(renderedGainDB(f, cases[i].hz), cases[i].expectedDB, cases[i].tolerance)
                << "case " << i;
        }
    }
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
        EXPECT_EQ(f.b0 == 1.0 && f.b1 == 0.0 && f.b2 == 0.0 && f.a1 == 0.0 && f.a2 == 0.0, designs[i].second)
            << "design " << i;
    }
    EXPECT_EQ(Biquad{}.magnitudeDB(1000.0, 0.0), 0.0);

    Biquad running;
    running.setLowpass(500.0, rate, 0.707);
    for (int i = 0; i < 10; ++i)
        running.process(1.0);
    const Biquad before = running;
    running.setHighpass(2000.0, rate, 0.707);
    EXPECT_NE(before.z1, 0.0);
    EXPECT_EQ(std::make_pair(running.z1, running.z2), std::make_pair(before.z1, before.z2));
}
