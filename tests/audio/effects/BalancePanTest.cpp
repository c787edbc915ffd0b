#include "audio/effects/BalancePan.hpp"

#include <gtest/gtest.h>

#include <vector>

using kavore::BalancePan;
using kavore::BalancePanSettings;

TEST(BalancePan, ConstantPowerLawWithUnityInTheCentre) {
    BalancePan pan;
    for (const double balance : {-0.9, -0.3, 0.25, 0.5, 0.8}) {
        pan.configure(BalancePanSettings(balance, true));
        ASSERT_TRUE(pan.active());
        const double power = pan.leftGain() * pan.leftGain() + pan.rightGain() * pan.rightGain();
        EXPECT_NEAR(power, 2.0, 1e-7) << balance;
    }
    // Half right: cos and sin of 67.5 degrees times sqrt 2.
    pan.configure(BalancePanSettings(0.5, true));
    EXPECT_NEAR(pan.leftGain(), 0.5411961, 1e-6);
    EXPECT_NEAR(pan.rightGain(), 1.3065630, 1e-6);

    pan.configure(BalancePanSettings(1.0, true));
    std::vector<float> buffer{0.5f, 0.5f, -0.25f, -0.25f, 0.75f};
    pan.processInterleavedStereo(buffer);
    EXPECT_NEAR(buffer[0], 0.0f, 1e-7);
    EXPECT_FLOAT_EQ(buffer[1], static_cast<float>(0.5 * 1.41421356));
    EXPECT_FLOAT_EQ(buffer[3], static_cast<float>(-0.25 * 1.41421356));
    EXPECT_EQ(buffer[4], 0.75f) << "a lone trailing sample is left alone";

    pan.configure(BalancePanSettings(-7.0, true)); // clamped to hard left
    EXPECT_NEAR(pan.rightGain(), 0.0, 1e-7);
    EXPECT_NEAR(pan.leftGain(), 1.41421356, 1e-9);
}

TEST(BalancePan, CentredTinyOrDisabledBalanceDoesNothing) {
    BalancePan pan;
    const std::vector<float> original{0.3f, -0.6f, 0.9f, 0.1f};
    for (const auto& settings :
         {BalancePanSettings(0.0, true), BalancePanSettings(0.0005, true), BalancePanSettings(0.8, false)}) {
        pan.configure(BalancePanSettings(0.8, true));
        pan.configure(settings);
        EXPECT_FALSE(pan.active());
        EXPECT_EQ(pan.leftGain(), 1.0);
        EXPECT_EQ(pan.rightGain(), 1.0);
        std::vector<float> buffer = original;
        pan.processInterleavedStereo(buffer);
        EXPECT_EQ(buffer, original);
    }
}
