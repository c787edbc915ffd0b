#include "audio/primitives/DriftCorrector.hpp"

#include <gtest/gtest.h>

#include <vector>

using kavore::DriftCorrector;

TEST(DriftCorrector, RatioIsPulledTowardsAClampedMeasurement) {
    DriftCorrector d(0.5);
    d.updateRatio(200, 100);
    EXPECT_DOUBLE_EQ(d.ratio(), 1.025) << "towards 1.05, not 2";
    d.updateRatio(10, 0);
    EXPECT_DOUBLE_EQ(d.ratio(), 1.025);
    d.updateRatio(90, 100);
    EXPECT_DOUBLE_EQ(d.ratio(), 0.9875);
}

TEST(DriftCorrector, StatusReportsPartsPerMillionBeyondOne) {
    DriftCorrector d(1.0);
    d.updateRatio(1.0000005, 1.0);
    EXPECT_EQ(d.statusText(), "locked");
    d.updateRatio(1.00002, 1.0);
    EXPECT_EQ(d.statusText(), "corrected +20 ppm");
    d.updateRatio(0.9999, 1.0);
    EXPECT_EQ(d.statusText(), "corrected -100 ppm");
}

TEST(DriftCorrector, ResampleInterpolatesAndCarriesPositionAcrossCalls) {
    DriftCorrector slow(1.0);
    slow.updateRatio(0.5, 1.0); // clamps to 0.95
    EXPECT_DOUBLE_EQ(slow.ratio(), 0.95);

    // At ratio 1.05 a ramp is read slightly fast; the overshoot past the input holds the last
    // sample, and the next call starts 0.2 into its input.
    DriftCorrector fast(1.0);
    fast.updateRatio(2.0, 1.0);
    const std::vector<float> a{0, 1, 2, 3};
    const auto first = fast.resample(a, 4);
    ASSERT_EQ(first.size(), 4u);
    EXPECT_FLOAT_EQ(first[0], 0.0f);
    EXPECT_FLOAT_EQ(first[1], 1.05f);
    EXPECT_FLOAT_EQ(first[2], 2.1f);
    EXPECT_FLOAT_EQ(first[3], 3.0f);
    EXPECT_NEAR(fast.fractional(), 0.2, 1e-12);
    EXPECT_FLOAT_EQ(fast.last(), 3.0f);

    // Empty input: zeros, state untouched.
    const auto silent = fast.resample({}, 3);
    EXPECT_EQ(silent, (std::vector<float>{0, 0, 0}));
    EXPECT_NEAR(fast.fractional(), 0.2, 1e-12);
    EXPECT_FLOAT_EQ(fast.last(), 3.0f);

    const std::vector<float> b{4, 5, 6, 7};
    const auto second = fast.resample(b, 2);
    EXPECT_FLOAT_EQ(second[0], 4.2f);
    EXPECT_FLOAT_EQ(second[1], 5.25f);
    EXPECT_TRUE(fast.resample(b, 0).empty());
}
