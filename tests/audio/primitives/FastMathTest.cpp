#include "audio/primitives/FastMath.hpp"
#include "audio/primitives/BiquadCascade.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

using namespace kavore;

// Levels run from the 1e-12 floor the dynamics add up to far beyond full scale.
TEST(FastMath, LogarithmAgreesWithLibmOverTheWholeLevelRange) {
    double worst = 0.0;
    for (double x = std::numeric_limits<double>::min(); x < 1e300; x *= 1.0137)
        worst = std::max(worst, std::fabs(FastMath::ln(x) - std::log(x)));
    for (double x = 1e-12; x < 4.0; x += 1e-3)
        worst = std::max(worst, std::fabs(FastMath::ln(x) - std::log(x)));
    EXPECT_LT(worst, 1e-9);
    EXPECT_EQ(FastMath::ln(1.0), 0.0);
}

// Gains from far below -120 dB up to well above unity, relative to the exact value.
TEST(FastMath, ExponentialAgreesWithLibmAndIsExactlyOneAtZero) {
    double worst = 0.0;
    for (double x = -708.0; x <= 709.0; x += 0.0137)
        worst = std::max(worst, std::fabs(FastMath::exp(x) / std::exp(x) - 1.0));
    EXPECT_LT(worst, 1e-9);
    // The dynamics rely on this for unity gain below the threshold.
    EXPECT_EQ(FastMath::exp(0.0), 1.0);
    EXPECT_EQ(FastMath::exp(-0.0), 1.0);
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
