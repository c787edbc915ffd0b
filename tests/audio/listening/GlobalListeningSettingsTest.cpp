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
    EXPECT_THROW(listeningEQBandFromJSON(json{{"kind", "bell"}}), JSONDecodeError);
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
    EXPECT_EQ(listeningEQSettingsFromJSON(json{{"bands", 3}}), ListeningEQSettings::flat());
    EXPECT_TRUE(listeningEQSettingsFromJSON(json{{"bands", json::array()}}).bands.empty());
}

// The flat layout: a pass filter at each end, disabled, and bells at 0 dB in between.
TEST(ListeningEQSettings, FlatLayoutIsNeutralUntilAPassFilterIsEnabled) {
    auto eq = ListeningEQSettings::flat();
    ASSERT_EQ(eq.bands.size(), 8u);
    EXPECT_EQ(eq.bands.front(),
              ListeningEQBand("high-pass", ListeningFilterKind::highPass, 35.0, 0.0, 0.707, false));
    EXPECT_TRUE(eq.isNeutral());
    for (const auto& [gain, neutral] : {std::pair{0.01, true}, {0.011, false}}) {
        eq.bands[2].gainDB = gain;
        EXPECT_EQ(eq.isNeutral(), neutral) << gain;
    }
    eq = ListeningEQSettings::flat();
    eq.bands.back().enabled = true;
    EXPECT_FALSE(eq.isNeutral()) << "a pass filter shapes the sound at 0 dB";
}

TEST(ListeningBalancerSettingsJSON, DefaultsAndClamps) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const std::vector<std::pair<json, ListeningBalancerSettings>> cases = {
        {json::object(), ListeningBalancerSettings::defaults()},
        {{{"enabled", true}, {"targetDBFS", 0}, {"strengthPercent", 400}},
         ListeningBalancerSettings(true, -12, 100)},
        {{{"targetDBFS", -90}}, ListeningBalancerSettings(false, -32, 50)},
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

    // One unreadable slot empties the list; the rest of the record survives.
    json slots = json::array({toJSON(auSlot("1")), json{{"id", "broken"}}});
    const auto partial = globalListeningSettingsFromJSON(json{{"enabled", true}, {"audioUnitSlots", slots}});
    EXPECT_TRUE(partial.enabled);
    EXPECT_TRUE(partial.audioUnitSlots.empty());

    // Reading validates slots too.
    json three = json::array({toJSON(auSlot("1")), toJSON(auSlot("2")), toJSON(auSlot("3"))});
    EXPECT_EQ(ids(globalListeningSettingsFromJSON(json{{"audioUnitSlots", three}}).audioUnitSlots),
              (std::vector<std::string>{"1", "2"}));
}
