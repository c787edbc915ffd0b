#include "audio/effects/BalancePan.hpp"

#include <gtest/gtest.h>

#include <vector>

using kavore::BalancePan;
using kavore::BalancePanSettings;

// Constant power: cos and sin of (1 + balance) * 45 degrees, times sqrt 2, so unity in the centre.
// Centred, tiny or disabled balances leave the buffer alone, even after an active setting.
TEST(BalancePan, ConstantPowerLawAndNeutralSettings) {
    BalancePan pan;
    for (const auto& [balance, left, right] :
         {std::tuple{0.5, 0.5411961, 1.3065630}, {-0.3, 1.2058153, 0.7389246}, {-7.0, 1.4142136, 0.0}}) {
        pan.configure(BalancePanSettings(balance, true)); // beyond -1 is clamped to hard left
        EXPECT_NEAR(pan.leftGain(), left, 1e-6) << balance;
        EXPECT_NEAR(pan.rightGain(), right, 1e-6) << balance;
    }
    pan.configure(BalancePanSettings(1.0, true));
    std::vector<float> buffer{0.5f, 0.5f, -0.25f, -0.25f, 0.75f};
    pan.processInterleavedStereo(buffer);
    EXPECT_NEAR(buffer[0], 0.0f, 1e-7);
    EXPECT_FLOAT_EQ(buffer[3], static_cast<float>(-0.25 * 1.41421356));
    EXPECT_EQ(buffer[4], 0.75f) << "a lone trailing sample is left alone";

    const std::vector<float> original{0.3f, -0.6f, 0.9f, 0.1f};
    for (const auto& settings :
         {BalancePanSettings(0.0, true), BalancePanSettings(0.0005, true), BalancePanSettings(0.8, false)}) {
        pan.configure(settings);
        EXPECT_FALSE(pan.active());
        buffer = original;
        pan.processInterleavedStereo(buffer);
        EXPECT_EQ(buffer, original);
        pan.configure(BalancePanSettings(0.8, true));
    }
}
