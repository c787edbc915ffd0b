#include "audio/headphone/BundledHeadphoneProfiles.hpp"
#include "audio/headphone/HeadphoneEQ.hpp"

#include "tests/audio/SignalProbe.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

using kavore::HeadphoneEQ;
using kavore::HeadphoneProfile;
using kavore::ParametricFilter;
using kavore::test::dbRatio;
using kavore::test::rms;

namespace {

constexpr double rate = 48000.0;

HeadphoneProfile boostAt1kWithPreampCut() {
    return {"id", "test", -6.0, {{ParametricFilter::Kind::peaking, 1000.0, 6.0, 1.0}}};
}

// Channels are not told apart: the interleaved buffer is one stream through one cascade, so the
// probe is a sine laid out along the whole buffer, not one per channel.
double steadyGainDB(HeadphoneEQ& eq, double hz) {
    std::vector<float> buffer(96000);
    for (std::size_t n = 0; n < buffer.size(); ++n) {
        buffer[n] =
            static_cast<float>(0.5 * std::sin(2.0 * std::numbers::pi * hz * static_cast<double>(n) / rate));
    }
    const std::span<const float> tail(buffer.data() + 48000, 48000); // the last second
    const double in = rms(tail);
    eq.process(buffer);
    return dbRatio(rms(tail), in);
}

} // namespace

TEST(HeadphoneEQ, PreampAndCascadeShapeTheResponse) {
    HeadphoneEQ eq;
    const auto profile = boostAt1kWithPreampCut();
    eq.configure(&profile, rate, true);
    ASSERT_TRUE(eq.active());
    EXPECT_NEAR(steadyGainDB(eq, 1000.0), 0.0, 0.01) << "+6 dB band against -6 dB preamp";
    EXPECT_NEAR(steadyGainDB(eq, 20.0), -6.0, 0.01);

    HeadphoneProfile silent = profile;
    silent.preampDB = -120.0;
    eq.configure(&silent, rate, true);
    EXPECT_EQ(eq.preampLinear(), 0.0);
    std::vector<float> buffer{0.5f, 0.5f};
    eq.process(buffer);
    EXPECT_EQ(buffer, (std::vector<float>{0.0f, 0.0f}));
}

TEST(HeadphoneEQ, DisabledKeepsTheCascadeAndReconfiguringClearsState) {
    HeadphoneEQ eq;
    const auto& profile = kavore::BundledHeadphoneProfiles::all().front();
    eq.configure(&profile, rate, true);
    EXPECT_EQ(eq.cascade().size(), profile.filters.size());

    std::vector<float> impulse(64, 0.0f);
    impulse[0] = 1.0f;
    eq.process(impulse);
    EXPECT_NE(impulse[10], 0.0f);

    eq.configure(&profile, rate, true); // same profile: rebuilt with zero state
    std::vector<float> zeros(16, 0.0f);
    eq.process(zeros);
    EXPECT_EQ(zeros, std::vector<float>(16, 0.0f));

    eq.configure(&profile, rate, false);
    EXPECT_FALSE(eq.active());
    EXPECT_EQ(eq.cascade().size(), profile.filters.size());
    std::vector<float> buffer{0.25f, -0.5f};
    eq.process(buffer);
    EXPECT_EQ(buffer, (std::vector<float>{0.25f, -0.5f}));

    eq.configure(&profile, rate, true);
    eq.configure(nullptr, rate, true);
    EXPECT_FALSE(eq.active());
}
