#include "audio/listening/GlobalListeningProcessor.hpp"
#include "audio/listening/GlobalListeningSettings.hpp"
#include "audio/listening/GlobalListeningSettingsJSON.hpp"

#include "tests/audio/AudioTestSupport.hpp"

#include <gtest/gtest.h>

#include <limits>

using namespace kavore;
using namespace kavore::test;
using nlohmann::json;

namespace {

std::vector<std::string> ids(const std::vector<EffectSlot>& slots) {
    std::vector<std::string> out;
    for (const auto& s : slots)
        out.push_back(s.id);
    return out;
}

json band(json extra) {
    json j = {{"id", "b"}, {"kind", "bell"}};
    j.update(extra);
    return j;
}

constexpr double rate = 48000;

// Interleaved stereo: a sine on each side.
std::vector<float> stereo(std::size_t frames, double leftHz, double rightHz) {
    std::vector<float> v(frames * 2);
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = double(i) / rate;
        v[2 * i] = static_cast<float>(0.25 * std::sin(2 * std::numbers::pi * leftHz * t));
        v[2 * i + 1] = static_cast<float>(0.25 * std::sin(2 * std::numbers::pi * rightHz * t));
    }
    return v;
}

double channelRmsDB(const std::vector<float>& v, int channel, std::size_t fromFrame) {
    double sum = 0;
    std::size_t n = 0;
    for (std::size_t i = fromFrame * 2 + channel; i < v.size(); i += 2, ++n)
        sum += double(v[i]) * v[i];
    return 10 * std::log10(sum / double(n));
}

ListeningEQSettings oneBell(double hz, double gainDB, double q = 1.0) {
    auto eq = ListeningEQSettings::flat();
    eq.bands[3] = ListeningEQBand("bell-2", ListeningFilterKind::bell, hz, gainDB, q);
    return eq;
}

} // namespace

TEST(ListeningEQBandJSON, MissingOrOutOfRangeNumbersTakeDefaultsAndClampsAndListsReadWhole) {
    const auto bell = ListeningFilterKind::bell;
    const std::vector<std::pair<json, ListeningEQBand>> cases = {
        {json::object(), ListeningEQBand("b", bell, 1000.0, 0.0, 0.707, true)},
        {{{"frequencyHz", 5}, {"gainDB", 40}, {"q", 0.01}}, ListeningEQBand("b", bell, 20.0, 12.0, 0.3)},
        {{{"frequencyHz", 30000}, {"enabled", false}},
         ListeningEQBand("b", bell, 20000.0, 0.0, 0.707, false)},
        {{{"frequencyHz", "loud"}, {"enabled", 0}}, ListeningEQBand("b", bell)}};
    for (const auto& [extra, expected] : cases)
        EXPECT_EQ(listeningEQBandFromJSON(band(extra)), expected) << extra;
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(ListeningEQBand("x", bell, std::numeric_limits<double>::quiet_NaN(), inf, -inf),
              ListeningEQBand("x", bell));
    EXPECT_THROW(listeningEQBandFromJSON(json{{"id", "x"}, {"kind", "notch"}}), JSONDecodeError);

    // The band list reads whole or not at all, and keeps sixteen.
    json seventeen = json::array();
    for (int i = 0; i < 17; ++i)
        seventeen.push_back(band({{"id", std::to_string(i)}}));
    const auto eq = listeningEQSettingsFromJSON(json{{"bands", seventeen}});
    EXPECT_EQ(std::make_pair(eq.bands.size(), eq.bands.back().id),
              std::make_pair(std::size_t{16}, std::string("15")));

    json withBadBand = json::array({band({{"gainDB", 3}}), json{{"kind", "bell"}}});
    EXPECT_EQ(listeningEQSettingsFromJSON(json{{"bands", withBadBand}}), ListeningEQSettings::flat());
    EXPECT_TRUE(listeningEQSettingsFromJSON(json{{"bands", json::array()}}).bands.empty());
}

// The flat layout: a pass filter at each end, disabled, and bells at 0 dB in between.
TEST(ListeningSettings, FlatEQIsNeutralUntilAPassFilterIsEnabledAndBalancerRecordClamps) {
    auto eq = ListeningEQSettings::flat();
    ASSERT_EQ(eq.bands.size(), 8u);
    EXPECT_EQ(eq.bands.front(),
              ListeningEQBand("high-pass", ListeningFilterKind::highPass, 35.0, 0.0, 0.707, false));
    EXPECT_TRUE(eq.isNeutral());
    for (const auto& [gain, neutral] : {std::pair{0.01, true}, {0.011, false}}) {
        eq.bands[2].gainDB = gain;
        EXPECT_EQ(eq.isNeutral(), neutral) << gain;
    }
    eq.bands[2].gainDB = 0.0;
    eq.bands.back().enabled = true;
    EXPECT_FALSE(eq.isNeutral()) << "a pass filter shapes the sound at 0 dB";

    // The balancer's record takes defaults and clamps its numbers.
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const std::vector<std::pair<json, ListeningBalancerSettings>> cases = {
        {json::object(), ListeningBalancerSettings::defaults()},
        {{{"enabled", true}, {"targetDBFS", 0}, {"strengthPercent", 400}},
         ListeningBalancerSettings(true, -12, 100)},
        {{{"targetDBFS", "x"}, {"strengthPercent", -1}}, ListeningBalancerSettings(false, -20, 0)}};
    for (const auto& [j, expected] : cases)
        EXPECT_EQ(listeningBalancerSettingsFromJSON(j), expected) << j;
    EXPECT_EQ(ListeningBalancerSettings(true, -20, nan).strengthPercent, 50.0);
}

TEST(GlobalListeningSettings, PlugInSlotsAreValidatedInOrderAndChangesAudioCountsWhatActs) {
    EffectSlot notAU = auSlot("eq");
    notAU.kind = EffectKind::eq10;
    EffectSlot noComponent = auSlot("none");
    noComponent.auComponent.reset();
    const GlobalListeningSettings validated(true, ListeningEQSettings::flat(), {},
                                            {auSlot("1"), notAU, auSlot("inst", "aumu"), noComponent,
                                             auSlot("1", "aumf"), auSlot("2", "aumf"), auSlot("3")});
    EXPECT_EQ(ids(validated.audioUnitSlots), (std::vector<std::string>{"1", "2"}));

    GlobalListeningSettings withBypass(true, {}, {}, {auSlot("1", "aufx", true), auSlot("2")});
    EXPECT_EQ(ids(withBypass.activeAudioUnitSlots()), std::vector<std::string>{"2"});
    EXPECT_TRUE(withBypass.changesAudio()) << "an active plug-in alone counts";
    withBypass.enabled = false;
    EXPECT_TRUE(withBypass.activeAudioUnitSlots().empty());
    EXPECT_FALSE(withBypass.changesAudio());

    GlobalListeningSettings s(true, ListeningEQSettings::flat(), ListeningBalancerSettings(true, -20, 0.1),
                              {});
    EXPECT_FALSE(s.changesAudio()) << "flat EQ, a balancer too weak to act, no plug-ins";
    s.balancer = ListeningBalancerSettings(true, -20, 0.2);
    EXPECT_TRUE(s.changesAudio());
    GlobalListeningSettings other = s;
    other.audioUnitSlots = {auSlot("x")};
    EXPECT_TRUE(s.matchesDSP(other)) << "plug-ins do not count";
    other.balancer.targetDBFS = -21;
    EXPECT_FALSE(s.matchesDSP(other));
}

TEST(GlobalListeningSettingsJSON, GoldenDocumentTolerantReadingAndValidation) {
    const json golden = json::parse(R"({"enabled": true,
        "equalizer": {"bands": [{"id": "lows", "kind": "lowShelf", "frequencyHz": 120.0, "gainDB": -4.5,
                                 "q": 0.8, "enabled": true}]},
        "balancer": {"enabled": true, "targetDBFS": -18.0, "strengthPercent": 70.0},
        "audioUnitSlots": [{"id": "A", "kind": "audioUnit", "nickname": "", "bypassed": false, "settingsJSON": "",
            "auComponent": {"type": 1635083896, "subtype": 1633837924, "manufacturer": 1953723501,
                            "name": "FX", "manufacturerName": "Maker"}}]})");
    const GlobalListeningSettings settings(
        true,
        ListeningEQSettings({ListeningEQBand("lows", ListeningFilterKind::lowShelf, 120.0, -4.5, 0.8, true)}),
        ListeningBalancerSettings(true, -18, 70), {auSlot("A")});
    EXPECT_EQ(toJSON(settings), golden);
    EXPECT_EQ(globalListeningSettingsFromJSON(golden), settings);

    // Reading is tolerant, and validates the slots.
    for (const json& j : {json("nonsense"), json::object(), json::parse(R"({"enabled": "yes", "equalizer": 4,
                                                         "balancer": "x", "audioUnitSlots": [1, 2]})")})
        EXPECT_EQ(globalListeningSettingsFromJSON(j), GlobalListeningSettings::off()) << j;

    // One unreadable slot empties the list; the rest of the record survives. Reading validates slots too.
    json slots = json::array({toJSON(auSlot("1")), json{{"id", "broken"}}});
    EXPECT_EQ(globalListeningSettingsFromJSON(json{{"enabled", true}, {"audioUnitSlots", slots}}),
              GlobalListeningSettings(true, ListeningEQSettings::flat(), {}, {}));
    const json three = json::array({toJSON(auSlot("1")), toJSON(auSlot("2")), toJSON(auSlot("3"))});
    EXPECT_EQ(ids(globalListeningSettingsFromJSON(json{{"audioUnitSlots", three}}).audioUnitSlots),
              (std::vector<std::string>{"1", "2"}));
}

TEST(GlobalListeningEQ, EachChannelKeepsItsOwnFiltersAndEveryKindStaysBelowNyquist) {
    // Different tones on each side: each channel sees its own tone at the true rate, through its
    // own filters, and nothing of the other side.
    GlobalListeningEQ both(oneBell(1000, 6.0, 4.0), rate, 2);
    ASSERT_EQ(both.filters().size(), 2u) << "only the band that changes audio, once per channel";
    const auto in = stereo(48000, 1000, 4000);
    auto out = in;
    both.process(out);
    EXPECT_NEAR(channelRmsDB(out, 0, 24000) - channelRmsDB(in, 0, 24000), 6.0, 0.02);
    EXPECT_NEAR(channelRmsDB(out, 1, 24000) - channelRmsDB(in, 1, 24000), 0.0, 0.1);

    GlobalListeningEQ neutral(ListeningEQSettings::flat(), rate, 0);
    EXPECT_EQ(std::make_pair(neutral.channelCount(), neutral.filters().size()),
              std::make_pair(1, std::size_t{0}));

    // Every kind of band is limited to below Nyquist.
    // A bell asked for at 22 kHz at 44.1 kHz sits at 19845 Hz, where its full gain shows.
    ListeningEQSettings eq({ListeningEQBand("b", ListeningFilterKind::bell, 22000, 6.0, 2.0)});
    EXPECT_NEAR(eq.responseDB(19845, 44100), 6.0, 1e-9);
    // A high-pass at 20 kHz and 40 kHz is designed at 18 kHz: -3.01 dB there for a Q of 0.707.
    ListeningEQSettings hp({ListeningEQBand("h", ListeningFilterKind::highPass, 20000, 0, 0.707)});
    EXPECT_NEAR(hp.responseDB(18000, 40000), -3.01, 0.01);
    EXPECT_LT(hp.responseDB(9000, 40000), -10.0);

    // The response sums the bands that change audio.
    ListeningEQSettings two({ListeningEQBand("a", ListeningFilterKind::bell, 1000, 4.0, 8.0),
                             ListeningEQBand("b", ListeningFilterKind::bell, 10000, 3.0, 8.0),
                             ListeningEQBand("c", ListeningFilterKind::bell, 1000, 9.0, 8.0, false)});
    EXPECT_NEAR(two.responseDB(1000, 48000) + two.responseDB(10000, 48000), 7.0, 0.02);
}

TEST(GlobalListeningBalancer, BoostsSlowlyCutsFastAndStaysInRange) {
    const std::size_t frames = 96; // 75 buffers make 0.15 s, 600 make 1.2 s
    GlobalListeningBalancer bal(ListeningBalancerSettings(true, -20, 100), rate);
    // The gain of the last of `count` buffers at the amplitude.
    auto step = [&](float amplitude, int count = 1) {
        double gain = 1.0;
        for (auto buf = square(frames * 2, amplitude); count-- > 0; buf = square(frames * 2, amplitude)) {
            bal.process(buf, 2);
            gain = std::fabs(buf.back()) / amplitude;
        }
        return gain;
    };

    // -40 dBFS wants +20 dB, held to +9. The boost starts once the measured level passes
    // -48 dB, and from there rises with a 1.2 s time constant.
    double g = 1.0;
    int n = 0;
    while (g <= 1.0 && n < 1000)
        g = step(0.01f), ++n;
    ASSERT_GT(g, 1.0);
    const double top = std::pow(10.0, 9.0 / 20.0);
    EXPECT_NEAR(step(0.01f, 600), top - (top - g) * std::exp(-1.0), 1e-3);
    EXPECT_NEAR(step(0.01f, 12000), top, 1e-5);

    // -60 dBFS is near-silence: once the measurement falls below -48 dB the gain returns to unity,
    // falling with a 0.15 s time constant.
    double previous = bal.gain(), held = step(0.001f);
    n = 0;
    while (held >= previous && n < 10000)
        previous = held, held = step(0.001f), ++n;
    ASSERT_LT(held, top);
    EXPECT_NEAR(step(0.001f, 75), 1.0 + (held - 1.0) * std::exp(-1.0), 1e-3);

    // Full scale against a -32 dB target wants -32 dB, held to -18.
    bal = GlobalListeningBalancer(ListeningBalancerSettings(true, -32, 100), rate);
    EXPECT_NEAR(20 * std::log10(step(1.0f, 5001)), -18.0, 1e-3);
    bal = GlobalListeningBalancer(ListeningBalancerSettings(true, -32, 0.1), rate);
    EXPECT_EQ(step(1.0f), 1.0) << "too weak to act";
}

TEST(GlobalListeningProcessor, DoesNothingUnlessSomethingChangesAudioAndHalvesSplitAroundThePlugins) {
    const std::vector<float> hot{1.5f, -1.5f, 1.5f, -1.5f};
    auto run = [&](const GlobalListeningSettings& s) {
        GlobalListeningProcessor p(s, 48000);
        auto buf = hot;
        p.process(buf);
        return buf;
    };
    EXPECT_EQ(run(GlobalListeningSettings::off()), hot);
    EXPECT_EQ(run(GlobalListeningSettings(true, ListeningEQSettings::flat(), {}, {})), hot)
        << "the ceiling stays out of a neutral treatment";
    EXPECT_EQ(run(GlobalListeningSettings(false, oneBell(1000, 6), {}, {auSlot("au")})), hot);

    // An active plug-in slot alone brings the ceiling in.
    for (float s : run(GlobalListeningSettings(true, ListeningEQSettings::flat(), {}, {auSlot("au")})))
        EXPECT_LE(std::fabs(s), OverdriveLimiter::ceilingLinear);

    // The two halves split the treatment around the plug-ins.
    const GlobalListeningSettings s(true, oneBell(1000, 6.0), {}, {auSlot("au")});
    GlobalListeningProcessor split(s, 48000), whole(s, 48000);
    auto a = stereo(4800, 1000, 300);
    for (float& x : a)
        x *= 5.0f;
    auto b = a;

    split.processBeforePlugins(a);
    EXPECT_GT(*std::max_element(a.begin(), a.end()), 1.0f) << "the EQ half has no ceiling";
    split.processAfterPlugins(a);
    whole.process(b);
    EXPECT_EQ(a, b) << "both halves together are the whole treatment";
    for (float x : a)
        ASSERT_LE(std::fabs(x), OverdriveLimiter::ceilingLinear);
}
