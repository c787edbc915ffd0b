#include "audio/effects/EQ10.hpp"
#include "audio/effects/BalancePan.hpp"
#include "audio/effects/EQPresets.hpp"
#include "tests/audio/AudioTestSupport.hpp"

#include <gtest/gtest.h>

using namespace kavore;

// A lone +6 dB band: its full gain at its centre; two octaves away the boost has mostly gone. The
// EQ does not tell channels apart, so a mono stream at the rate is what it filters.
TEST(EQ10, RenderedSineShowsTheBandGainAtItsCentre) {
    const struct {
        int band;
        double freq, lowDB, highDB;
    } cases[] = {{5, 1000.0, 5.98, 6.02}, {7, 4000.0, 5.98, 6.02}, {5, 250.0, 0.1, 1.5}};
    for (const auto& c : cases) {
        std::vector<double> gains(10, 0.0);
        gains[c.band] = 6.0;
        EQ10 eq;
        eq.configure(EQ10Settings(gains, 0.0, true), 48000);
        const auto in = test::monoSine(c.freq, 0.25, 48000, 48000);
        auto out = in;
        eq.process(out);
        const double gain =
            test::dbRatio(test::rms(std::span(out).subspan(24000)), test::rms(std::span(in).subspan(24000)));
        EXPECT_TRUE(gain > c.lowDB && gain < c.highDB) << c.freq << " Hz: " << gain << " dB";
    }
}

TEST(EQ10, PreampActivationAndOneFilterStateThroughBothChannels) {
    EQ10 eq;
    const auto processed = [&](std::vector<float> b) {
        eq.process(b);
        return b;
    };
    eq.configure(EQ10Settings({}, -6.0, true), 48000);
    EXPECT_NEAR(processed({0.5f, -0.25f, 1.0f})[2], 0.501187f, 1e-6) << "-6 dB";
    eq.configure(EQ10Settings(std::vector<double>(10, 0.005), 0.0, true), 48000);
    EXPECT_FALSE(eq.active());
    eq.configure(EQ10Settings(std::vector<double>(10, 0.01), 0.0, true), 48000);
    EXPECT_TRUE(eq.active()) << "0.01 dB counts for activity";
    EXPECT_EQ(eq.bands()[3].b1, 0.0) << "but the filters stay passthrough";
    eq.configure(EQ10Settings(std::vector<double>(10, 6.0), 3.0, false), 48000);
    EXPECT_EQ(processed({0.3f, -0.3f}), (std::vector<float>{0.3f, -0.3f}));

    // An impulse on the left channel only rings into the next (right) sample; reset clears it.
    eq.configure(EQ10Settings({12.0}, 0.0, true), 48000);
    std::vector<float> impulse(64, 0.0f);
    impulse[0] = 1.0f;
    EXPECT_NE(processed(impulse)[1], 0.0f);
    eq.reset();
    EXPECT_EQ(processed(std::vector<float>(8, 0.0f)), std::vector<float>(8, 0.0f));
}

// Look-up ignores case; ids are built from the names; every preset is enabled with a 0 dB preamp.
TEST(EQPresets, TableSpotChecks) {
    const auto& all = EQPresets::all();
    ASSERT_EQ(all.size(), 24u);
    for (const auto& p : all)
        EXPECT_EQ(std::make_tuple(p.builtin, p.settings.enabled, p.settings.preampDB),
                  std::make_tuple(true, true, 0.0));
    const auto rnb = EQPresets::named("r&b"), small = EQPresets::named("SMALL SPEAKERS");
    ASSERT_TRUE(rnb && small);
    EXPECT_EQ(std::make_tuple(rnb->id, rnb->name, rnb->settings.bandGainsDB[1], small->id),
              std::make_tuple("builtin-r&b", "R&B", 7.0, "builtin-small-speakers"));
    EXPECT_FALSE(EQPresets::named("Bass"));
}

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
