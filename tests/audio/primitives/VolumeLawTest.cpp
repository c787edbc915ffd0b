#include "audio/primitives/VolumeLaw.hpp"

#include <gtest/gtest.h>

namespace VolumeLaw = kavore::VolumeLaw;

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
