#include "audio/primitives/DriftCorrector.hpp"

#include <gtest/gtest.h>

#include <vector>

using kavore::DriftCorrector;

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
