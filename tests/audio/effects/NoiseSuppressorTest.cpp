#include "audio/effects/NoiseSuppressor.hpp"

#include "tests/audio/SignalProbe.hpp"

#include <gtest/gtest.h>

#include <vector>

using kavore::NoiseSuppressor;
using kavore::NoiseSuppressorSettings;
using kavore::test::dbRatio;
using kavore::test::dbToLinear;

namespace {

constexpr double rate = 48000.0;

// Steady level on both channels for two seconds; returns the gain of the last buffer in dB.
double steadyGainDB(NoiseSuppressor& ns, double levelDB) {
    const auto value = static_cast<float>(dbToLinear(levelDB));
    std::vector<float> buffer(256);
    for (int i = 0; i < 375; ++i) {
        std::fill(buffer.begin(), buffer.end(), value);
        ns.process(buffer);
    }
    return dbRatio(buffer.back(), value);
}

} // namespace

TEST(NoiseSuppressor, AmountSetsThresholdFloorSlopeAndHissShelf) {
    NoiseSuppressor full;
    full.configure(NoiseSuppressorSettings(1.0, true), rate);
    EXPECT_DOUBLE_EQ(full.thresholdDB(), -30.0);
    EXPECT_DOUBLE_EQ(full.floorDB(), -40.0);
    EXPECT_DOUBLE_EQ(full.slope(), 4.0);
    EXPECT_TRUE(full.hissActive());
    EXPECT_NEAR(full.hissLeft().magnitudeDB(rate / 2.0, rate), -6.0, 0.01);
    EXPECT_NEAR(full.hissRight().magnitudeDB(100.0, rate), 0.0, 0.01);

    NoiseSuppressor half;
    half.configure(NoiseSuppressorSettings(0.5, true), rate);
    EXPECT_FALSE(half.hissActive());

    NoiseSuppressor off;
    off.configure(NoiseSuppressorSettings(0.8, false), rate);
    EXPECT_FALSE(off.active());
    EXPECT_DOUBLE_EQ(off.thresholdDB(), -55.0) << "an inactive configure changes nothing else";
}

TEST(NoiseSuppressor, ExpandsBelowThresholdDownToTheFloorAndPassesLoudSignal) {
    // amount 0.5: threshold -45 dB, slope 2.5, floor -29 dB, no hiss shelf.
    NoiseSuppressor ns;
    ns.configure(NoiseSuppressorSettings(0.5, true), rate);
    EXPECT_NEAR(steadyGainDB(ns, -55.0), -15.0, 0.01) << "10 dB under, 1.5 dB per dB";
    EXPECT_NEAR(steadyGainDB(ns, -90.0), -29.0, 0.01) << "far below sits on the floor";
    EXPECT_NEAR(steadyGainDB(ns, -20.0), 0.0, 1e-6);

    // A loud sine passes untouched despite its zero crossings.
    const auto sine = kavore::test::stereoSine(440.0, 0.5, rate, 4800);
    auto processed = sine;
    ns.process(processed);
    EXPECT_EQ(processed, sine);

    // The gain follows the louder channel of each pair: a silent left does not gate a loud right.
    ns.reset();
    EXPECT_DOUBLE_EQ(ns.envelope(), -120.0);
    std::vector<float> oneSided(256);
    for (int i = 0; i < 40; ++i) {
        for (std::size_t n = 0; n < oneSided.size(); n += 2) {
            oneSided[n] = 0.0f;
            oneSided[n + 1] = 0.5f;
        }
        ns.process(oneSided);
    }
    EXPECT_EQ(oneSided[255], 0.5f);

    // A lone trailing sample is gated like a pair.
    steadyGainDB(ns, -90.0);
    const auto quiet = static_cast<float>(dbToLinear(-90.0));
    std::vector<float> odd{quiet, quiet, quiet};
    ns.process(odd);
    EXPECT_NEAR(dbRatio(odd[2], quiet), -29.0, 0.01);
}
