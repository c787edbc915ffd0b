#include "audio/effects/EQ10.hpp"
#include "audio/effects/EQPresets.hpp"
#include "tests/audio/SignalProbe.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <tuple>
#include <vector>

using namespace kavore;

namespace {

// A sine rendered as one sample stream (the EQ does not tell channels apart, so a mono stream
// at the given rate is what it filters).
std::vector<float> sine(double freq, double rate, std::size_t n, double amplitude = 0.25) {
    std::vector<float> out(n);
    for (std::size_t i = 0; i < n; ++i)
        out[i] = static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * freq * double(i) / rate));
    return out;
}

// The gain in dB of out over in, over whole cycles after the filter has settled.
double settledGainDB(const std::vector<float>& in, const std::vector<float>& out) {
    return test::dbRatio(test::rms(std::span(out).subspan(24000)), test::rms(std::span(in).subspan(24000)));
}

} // namespace

TEST(EQ10, RenderedSineShowsTheBandGainAtItsCentre) {
    const double rate = 48000;
    // A lone +6 dB band: its full gain at its centre; two octaves away the boost has mostly gone.
    const struct {
        int band;
        double freq, lowDB, highDB;
    } cases[] = {{5, 1000.0, 5.98, 6.02}, {7, 4000.0, 5.98, 6.02}, {5, 250.0, 0.1, 1.5}};
    for (const auto& c : cases) {
        std::vector<double> gains(10, 0.0);
        gains[c.band] = 6.0;
        EQ10 eq;
        eq.configure(EQ10Settings(gains, 0.0, true), rate);
        ASSERT_TRUE(eq.active());
        const auto in = sine(c.freq, rate, 48000);
        auto out = in;
        eq.process(out);
        const double gain = settledGainDB(in, out);
        EXPECT_GT(gain, c.lowDB) << c.freq;
        EXPECT_LT(gain, c.highDB) << c.freq;
    }
}

TEST(EQ10, PreampAndActivation) {
    EQ10 eq;
    eq.configure(EQ10Settings({}, -6.0, true), 48000);
    std::vector<float> buf{0.5f, -0.25f, 1.0f};
    eq.process(buf);
    // -6 dB is a factor of 0.501187.
    EXPECT_NEAR(buf[0], 0.250594f, 1e-6);
    EXPECT_NEAR(buf[2], 0.501187f, 1e-6);

    eq.configure(EQ10Settings(std::vector<double>(10, 0.005), 0.0, true), 48000);
    EXPECT_FALSE(eq.active());
    eq.configure(EQ10Settings(std::vector<double>(10, 0.01), 0.0, true), 48000);
    EXPECT_TRUE(eq.active()) << "0.01 dB counts for activity";
    EXPECT_EQ(eq.bands()[3].b1, 0.0) << "but the filters stay passthrough";
    eq.configure(EQ10Settings(std::vector<double>(10, 6.0), 3.0, false), 48000);
    EXPECT_FALSE(eq.active());
    std::vector<float> untouched{0.3f, -0.3f};
    eq.process(untouched);
    EXPECT_EQ(untouched, (std::vector<float>{0.3f, -0.3f}));
}

TEST(EQ10, OneFilterStateRunsThroughBothChannels) {
    std::vector<double> gains(10, 0.0);
    gains[0] = 12.0;
    EQ10 eq;
    eq.configure(EQ10Settings(gains, 0.0, true), 48000);
    // An impulse on the left channel only; the right stays silent at the input.
    std::vector<float> buf(64, 0.0f);
    buf[0] = 1.0f;
    eq.process(buf);
    EXPECT_NE(buf[1], 0.0f) << "the left impulse rings into the next (right) sample";

    eq.reset();
    std::vector<float> silence(8, 0.0f);
    eq.process(silence);
    EXPECT_EQ(silence, std::vector<float>(8, 0.0f)) << "reset clears the ringing";
}

TEST(EQPresets, TableSpotChecks) {
    const auto& all = EQPresets::all();
    ASSERT_EQ(all.size(), 24u);
    EXPECT_EQ(all.front().name, "Flat");
    EXPECT_EQ(all.front().icon, "minus");
    EXPECT_EQ(all.back().name, "Podcast");
    EXPECT_EQ(all[22].name, "Metal");
    for (const auto& p : all) {
        EXPECT_TRUE(p.builtin);
        EXPECT_TRUE(p.settings.enabled);
        EXPECT_EQ(p.settings.preampDB, 0.0);
    }
    // Look-up ignores case; ids are built from the names.
    const std::vector<std::tuple<const char*, const char*, const char*, std::size_t, double>> spots = {
        {"r&b", "builtin-r&b", "R&B", 1, 7.0},
        {"r&b", "builtin-r&b", "R&B", 2, 5.5},
        {"bass booster", "builtin-bass-booster", "Bass Booster", 3, 2.5},
        {"SMALL SPEAKERS", "builtin-small-speakers", "Small Speakers", 0, 5.5},
        {"Hip-Hop", "builtin-hip-hop", "Hip-Hop", 0, 5.0},
        {"Loudness", "builtin-loudness", "Loudness", 7, -4.5},
        {"Loudness", "builtin-loudness", "Loudness", 8, 5.0},
        {"Podcast", "builtin-podcast", "Podcast", 8, 0.5},
    };
    for (const auto& [asked, id, name, band, gain] : spots) {
        const auto preset = EQPresets::named(asked);
        ASSERT_TRUE(preset) << asked;
        EXPECT_EQ(preset->id, id);
        EXPECT_EQ(preset->name, name);
        EXPECT_EQ(preset->settings.bandGainsDB[band], gain) << asked << " band " << band;
    }
    EXPECT_EQ(EQPresets::named("bass booster")->icon, "speaker.wave.3");
    EXPECT_EQ(EQPresets::named("Spoken Word")->icon, "text.bubble");
    EXPECT_FALSE(EQPresets::named("Bass"));
}
