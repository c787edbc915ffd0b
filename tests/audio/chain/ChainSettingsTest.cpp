#include "audio/chain/ChainSettings.hpp"
#include "audio/chain/ChainSettingsJSON.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>

using namespace kavore;
using nlohmann::json;

namespace {

EffectSlot slot(const std::string& id, bool bypassed = false) {
    EffectSlot s;
    s.id = id;
    s.kind = EffectKind::eq10;
    s.bypassed = bypassed;
    s.settingsJSON = settingsJSONBytes(toJSON(EQ10Settings::flat()));
    return s;
}

json validSlotJSON() {
    // "{}" in base64 is "e30=".
    return {{"id", "A"},
            {"kind", "compressor"},
            {"nickname", "n"},
            {"bypassed", false},
            {"settingsJSON", "e30="}};
}

json validChainJSON() {
    return {
        {"slots", json::array({validSlotJSON()})}, {"overdrive", {{"multiplier", 2.0}}}, {"bypassed", false}};
}

} // namespace

TEST(ChainSettingsJSON, RoundTripKeepsEveryFieldWithBytesAsBase64) {
    ChainSettings chain;
    EffectSlot au = slot("AU-1");
    au.kind = EffectKind::audioUnit;
    au.nickname = "Reverb";
    au.settingsJSON = {'{', '}'};
    au.auComponent =
        AUComponentKey{fourCharCode("aufx"), fourCharCode("rvb2"), fourCharCode("appl"), "Reverb", "Apple"};
    au.audioUnitPreset = std::vector<std::uint8_t>{0x00, 0xFF, 0x10};
    chain.slots = {slot("EQ"), au};
    chain.overdrive = OverdriveSettings(3.0);
    chain.bypassed = true;

    const json j = toJSON(chain);
    EXPECT_EQ(j["slots"][1]["settingsJSON"], "e30=");
    EXPECT_EQ(j["slots"][1]["audioUnitPreset"], "AP8Q");
    EXPECT_EQ(j["slots"][1]["auComponent"]["type"], 0x61756678u);
    EXPECT_EQ(j["slots"][1]["kind"], "audioUnit");
    EXPECT_FALSE(j["slots"][0].contains("auComponent")) << "absent optionals are omitted";
    EXPECT_EQ(j["overdrive"]["multiplier"], 3.0);

    EXPECT_EQ(chainSettingsFromJSON(json::parse(j.dump())), chain);
}

TEST(ChainSettingsJSON, ReadsStrictlyAndOneBadSlotFailsTheChain) {
    EXPECT_NO_THROW(chainSettingsFromJSON(validChainJSON()));
    EXPECT_EQ(chainSettingsFromJSON(validChainJSON()).overdrive.multiplier, 2.0);

    for (const char* key : {"id", "kind", "nickname", "bypassed", "settingsJSON"}) {
        json j = validChainJSON();
        j["slots"][0].erase(key);
        EXPECT_THROW(chainSettingsFromJSON(j), JSONDecodeError) << "slot without " << key;
    }
    for (const char* key : {"slots", "overdrive", "bypassed"}) {
        json j = validChainJSON();
        j.erase(key);
        EXPECT_THROW(chainSettingsFromJSON(j), JSONDecodeError) << "chain without " << key;
    }
    auto broken = [](auto mutate) {
        json j = validChainJSON();
        mutate(j);
        return j;
    };
    EXPECT_THROW(chainSettingsFromJSON(broken([](json& j) { j["slots"][0]["kind"] = "reverb"; })),
                 JSONDecodeError);
    EXPECT_THROW(
        chainSettingsFromJSON(broken([](json& j) { j["slots"][0]["settingsJSON"] = "not base64!"; })),
        JSONDecodeError);
    EXPECT_THROW(chainSettingsFromJSON(broken([](json& j) { j["slots"][0]["bypassed"] = "false"; })),
                 JSONDecodeError);
    EXPECT_THROW(chainSettingsFromJSON(broken([](json& j) { j["overdrive"] = json::object(); })),
                 JSONDecodeError);
    EXPECT_THROW(chainSettingsFromJSON(broken([](json& j) {
                     j["slots"][0]["auComponent"] = {{"type", 4294967296ull},
                                                     {"subtype", 1},
                                                     {"manufacturer", 1},
                                                     {"name", ""},
                                                     {"manufacturerName", ""}};
                 })),
                 JSONDecodeError);
    EXPECT_THROW(chainSettingsFromJSON(json::array()), JSONDecodeError);
    // The stored multiplier is kept as written, beyond the range code would clamp to.
    EXPECT_EQ(chainSettingsFromJSON(broken([](json& j) {
                  j["overdrive"]["multiplier"] = 9.0;
              })).overdrive.multiplier,
              9.0);
}

TEST(ChainSettings, NeutralWhenNothingCanChangeTheAudio) {
    ChainSettings chain;
    chain.slots = {slot("a", true), slot("b", true)};
    EXPECT_TRUE(chain.isNeutral());
    chain.overdrive = OverdriveSettings(2.0);
    EXPECT_FALSE(chain.isNeutral());
    chain.bypassed = true;
    EXPECT_TRUE(chain.isNeutral());

    chain = ChainSettings::empty();
    chain.overdrive = OverdriveSettings::unclamped(1.001);
    EXPECT_TRUE(chain.isNeutral());
    chain.overdrive = OverdriveSettings::unclamped(1.0011);
    EXPECT_FALSE(chain.isNeutral());
    chain = ChainSettings::empty();
    chain.slots = {slot("a", true), slot("b", false)};
    EXPECT_FALSE(chain.isNeutral());
}

TEST(ChainSettings, MoveSwapsWithNeighboursAndStopsAtTheEnds) {
    ChainSettings chain;
    chain.slots = {slot("a"), slot("b"), slot("c")};
    auto order = [&] {
        std::string s;
        for (const auto& x : chain.slots)
            s += x.id;
        return s;
    };
    chain.move("a", true);
    EXPECT_EQ(order(), "abc");
    chain.move("c", false);
    EXPECT_EQ(order(), "abc");
    chain.move("zz", true);
    EXPECT_EQ(order(), "abc");
    chain.move("b", true);
    EXPECT_EQ(order(), "bac");
    chain.move("b", false);
    chain.move("b", false);
    EXPECT_EQ(order(), "acb");
}

TEST(EffectSettingsJSON, EqualiserRecordIsNormalisedHoweverItIsBuilt) {
    const auto twelve = eq10SettingsFromJSON(
        json{{"bandGainsDB", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}}, {"preampDB", -30}, {"enabled", true}});
    EXPECT_EQ(twelve.bandGainsDB[9], 10.0);
    EXPECT_EQ(twelve.preampDB, -12.0);
    const auto three =
        eq10SettingsFromJSON(json{{"bandGainsDB", {20, -20, 1.5}}, {"preampDB", 0}, {"enabled", false}});
    EXPECT_EQ(three.bandGainsDB[0], 12.0);
    EXPECT_EQ(three.bandGainsDB[1], -12.0);
    EXPECT_EQ(three.bandGainsDB[2], 1.5);
    for (std::size_t i = 3; i < 10; ++i)
        EXPECT_EQ(three.bandGainsDB[i], 0.0);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const EQ10Settings fromCode({nan, std::numeric_limits<double>::infinity()}, nan, true);
    EXPECT_EQ(fromCode.bandGainsDB[0], 0.0);
    EXPECT_EQ(fromCode.bandGainsDB[1], 0.0);
    EXPECT_EQ(fromCode.preampDB, 0.0);

    EXPECT_TRUE(EQ10Settings({0.005, -0.005}, 0.0, true).isNeutral());
    EXPECT_FALSE(EQ10Settings({0.0, 0.01}, 0.0, true).isNeutral());
    EXPECT_THROW(eq10SettingsFromJSON(json{{"bandGainsDB", {1}}, {"enabled", true}}), JSONDecodeError);
    EXPECT_THROW(eq10SettingsFromJSON(json{{"bandGainsDB", {"1"}}, {"preampDB", 0}, {"enabled", true}}),
                 JSONDecodeError);
}

TEST(EffectSettingsJSON, AmountsAreClampedInCodeButKeptFromJSON) {
    EXPECT_EQ(CompressorSettings(1.5, CompressorVoicing::voice, true).amount, 1.0);
    EXPECT_EQ(LevelerSettings(-0.5, true).amount, 0.0);
    EXPECT_EQ(OverdriveSettings(7.0).multiplier, 4.0);
    EXPECT_EQ(OverdriveSettings(0.2).multiplier, 1.0);

    const auto c =
        compressorSettingsFromJSON(json{{"amount", 1.5}, {"voicing", "podcast"}, {"enabled", true}});
    EXPECT_EQ(c.amount, 1.5);
    EXPECT_EQ(c.voicing, CompressorVoicing::podcast);
    EXPECT_EQ(compressorSettingsFromJSON(toJSON(c)), c);
    EXPECT_THROW(compressorSettingsFromJSON(json{{"amount", 1}, {"voicing", "opera"}, {"enabled", true}}),
                 JSONDecodeError);
    EXPECT_THROW(compressorSettingsFromJSON(json{{"amount", 1}, {"enabled", true}}), JSONDecodeError);
    EXPECT_EQ(levelerSettingsFromJSON(json{{"amount", 2.0}, {"enabled", true}}).amount, 2.0);
    EXPECT_THROW(levelerSettingsFromJSON(json{{"amount", 0.5}}), JSONDecodeError);

    EQPreset preset{"custom-1", "Mine", "star", EQ10Settings({1, 2}, -1, true), false};
    EXPECT_EQ(eqPresetFromJSON(toJSON(preset)), preset);
}
