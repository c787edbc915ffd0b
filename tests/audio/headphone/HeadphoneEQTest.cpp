#include "audio/headphone/HeadphoneEQ.hpp"
#include "audio/headphone/BundledHeadphoneProfiles.hpp"

#include "tests/audio/SignalProbe.hpp"

#include <gtest/gtest.h>

using namespace kavore;

TEST(HeadphoneEQ, PreampAndCascadeShapeTheResponse) {
    HeadphoneEQ eq;
    const HeadphoneProfile profile{"id", "test", -6.0, {{ParametricFilter::Kind::peaking, 1000.0, 6.0, 1.0}}};
    eq.configure(&profile, 48000, true);
    ASSERT_TRUE(eq.active());
    // Channels are not told apart: the interleaved buffer is one stream through one cascade.
    for (const auto& [hz, expectedDB] : {std::pair{1000.0, 0.0}, {20.0, -6.0}}) {
        auto buffer = test::monoSine(hz, 0.5, 48000, 96000);
        const std::span<const float> tail(buffer.data() + 48000, 48000);
        const double in = test::rms(tail);
        eq.process(buffer);
        EXPECT_NEAR(test::dbRatio(test::rms(tail), in), expectedDB, 0.01) << hz;
    }
    HeadphoneProfile silent = profile;
    silent.preampDB = -120.0;
    eq.configure(&silent, 48000, true);
    std::vector<float> buffer{0.5f, 0.5f};
    eq.process(buffer);
    EXPECT_EQ(buffer, (std::vector<float>{0.0f, 0.0f}));
}

TEST(HeadphoneEQ, DisabledKeepsTheCascadeAndReconfiguringClearsState) {
    HeadphoneEQ eq;
    const auto& profile = BundledHeadphoneProfiles::all().front();
    eq.configure(&profile, 48000, true);
    std::vector<float> impulse(64, 0.0f);
    impulse[0] = 1.0f;
    eq.process(impulse);
    EXPECT_NE(impulse[10], 0.0f);
    eq.configure(&profile, 48000, true); // same profile: rebuilt with zero state
    std::vector<float> zeros(16, 0.0f);
    eq.process(zeros);
    EXPECT_EQ(zeros, std::vector<float>(16, 0.0f));

    eq.configure(&profile, 48000, false);
    std::vector<float> buffer{0.25f, -0.5f};
    eq.process(buffer);
    EXPECT_EQ(buffer, (std::vector<float>{0.25f, -0.5f})) << "disabled";
    eq.configure(&profile, 48000, true);
    eq.configure(nullptr, 48000, true);
    EXPECT_FALSE(eq.active());
}
