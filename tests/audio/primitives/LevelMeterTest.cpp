#include "audio/primitives/LevelMeter.hpp"

#include <gtest/gtest.h>

#include <vector>

TEST(LevelMeter, RmsRisesWithAttackFallsWithReleaseAndPeakDecaysOnEmptyBuffers) {
    kavore::LevelMeter meter(0.6f, 0.08f);
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
