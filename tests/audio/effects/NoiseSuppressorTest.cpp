#include "audio/effects/NoiseSuppressor.hpp"

#include "tests/audio/AudioTestSupport.hpp"

#include <gtest/gtest.h>

#include <vector>

using namespace kavore;
using namespace kavore::test;

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

TEST(NoiseSuppressor, ExpandsBelowThresholdDownToTheFloorAndPassesLoudSignal) {
    NoiseSuppressor full;
    full.configure(NoiseSuppressorSettings(1.0, true), rate);
    EXPECT_EQ(std::make_tuple(full.thresholdDB(), full.floorDB(), full.slope()),
              std::make_tuple(-30.0, -40.0, 4.0));
    EXPECT_NEAR(full.hissLeft().magnitudeDB(rate / 2.0, rate), -6.0, 0.01);
    NoiseSuppressor off;
    off.configure(NoiseSuppressorSettings(0.8, false), rate);
    EXPECT_FALSE(off.active());

    // amount 0.5: threshold -45 dB, slope 2.5, floor -29 dB, no hiss shelf.
    NoiseSuppressor ns;
    ns.configure(NoiseSuppressorSettings(0.5, true), rate);
    EXPECT_FALSE(ns.hissActive());
    EXPECT_NEAR(steadyGainDB(ns, -55.0), -15.0, 0.01) << "10 dB under, 1.5 dB per dB";
    EXPECT_NEAR(steadyGainDB(ns, -90.0), -29.0, 0.01) << "far below sits on the floor";
    EXPECT_NEAR(steadyGainDB(ns, -20.0), 0.0, 1e-6);
    // A loud sine passes untouched despite its zero crossings.
    const auto sine = stereoSine(440.0, 0.5, rate, 4800);
    auto processed = sine;
    ns.process(processed);
    EXPECT_EQ(processed, sine);
}

// The gain goes through fast approximations of log and exp; against the exact formula, on the
// louder channel of each pair and through the hiss shelves, a sweep over the signal range must come
// out the same to far better than 0.1 dB. An odd tail is gated like a pair.
TEST(NoiseSuppressor, MatchesTheExactFormulaOverTheSignalRange) {
    const auto exact = [](const NoiseSuppressor& ns, std::vector<float> v) {
        double envelope = -120.0;
        Biquad shelves[2] = {ns.hissLeft(), ns.hissRight()};
        for (std::size_t i = 0; i < v.size(); i += 2) {
            const std::size_t n = std::min<std::size_t>(2, v.size() - i);
            const double peak = std::max(std::fabs(v[i]), std::fabs(v[i + n - 1]));
            const double level = 20.0 * std::log10(peak + 1e-12);
            const double k = envelope < level ? ns.attackCoeff() : ns.releaseCoeff();
            envelope = envelope * k + level * (1.0 - k);
            const double gainDB = std::max(ns.floorDB(), (envelope - ns.thresholdDB()) * (ns.slope() - 1.0));
            const double gain = envelope >= ns.thresholdDB() ? 1.0 : std::pow(10.0, gainDB / 20.0);
            for (std::size_t c = 0; c < n; ++c)
                v[i + c] = float(ns.hissActive() ? shelves[c].process(v[i + c] * gain) : v[i + c] * gain);
        }
        return v;
    };
    auto sweep = levelSweep(96001);
    for (std::size_t i = 1; i < sweep.size(); i += 4)
        sweep[i] *= 0.3f; // the channels differ, so the louder one must be picked
    for (const double amount : {0.2, 0.5, 0.75, 1.0}) {
        NoiseSuppressor ns;
        ns.configure(NoiseSuppressorSettings(amount, true), rate);
        const auto expected = exact(ns, sweep);
        auto actual = sweep;
        ns.process(std::span<float>(actual).first(48000));
        ns.process(std::span<float>(actual).subspan(48000));
        EXPECT_LT(worstDBApart(expected, actual), 1e-4) << amount;
    }
}
