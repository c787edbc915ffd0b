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

// Every field of a chain, with both optionals on the second slot; bytes travel as base64.
const char* const goldenChain = R"({
  "slots": [
    {"id": "EQ", "kind": "eq10", "nickname": "", "bypassed": true, "settingsJSON": "e30="},
    {"id": "AU-1", "kind": "audioUnit", "nickname": "Reverb", "bypassed": false, "settingsJSON": "e30=",
     "auComponent": {"type": 1635083896, "subtype": 1920361010, "manufacturer": 1634758764,
                     "name": "Reverb", "manufacturerName": "Apple"},
     "audioUnitPreset": "AP8Q"}],
  "overdrive": {"multiplier": 3.0},
  "bypassed": true})";

ChainSettings goldenChainSettings() {
    ChainSettings chain;
    EffectSlot eq = slot("EQ", true);
    eq.settingsJSON = {'{', '}'};
    EffectSlot au = eq;
    au.id = "AU-1";
    au.bypassed = false;
    au.kind = EffectKind::audioUnit;
    au.nickname = "Reverb";
    au.auComponent =
        AUComponentKey{fourCharCode("aufx"), fourCharCode("rvb2"), fourCharCode("appl"), "Reverb", "Apple"};
    au.audioUnitPreset = std::vector<std::uint8_t>{0x00, 0xFF, 0x10};
    chain.slots = {eq, au};
    chain.overdrive = OverdriveSettings(3.0);
    chain.bypassed = true;
    return chain;
}

} // namespace

TEST(ChainSettingsJSON, WritesAndReadsTheGoldenDocument) {
    EXPECT_EQ(toJSON(goldenChainSettings()), json::parse(goldenChain));
    EXPECT_EQ(chainSettingsFromJSON(json::parse(goldenChain)), goldenChainSettings());
    // The stored multiplier is kept as written, beyond the range code would clamp to.
    json nine = json::parse(goldenChain);
    nine["overdrive"]["multiplier"] = 9.0;
    EXPECT_EQ(chainSettingsFromJSON(nine).overdrive.multiplier, 9.0);
}

// One bad field anywhere fails the whole chain.
TEST(ChainSettingsJSON, ReadsStrictly) {
    const std::vector<std::pair<std::string, json>> breaks = {
        {"/slots/0/id", nullptr},
        {"/slots/0/kind", nullptr},
        {"/slots/0/nickname", nullptr},
        {"/slots/0/bypassed", nullptr},
        {"/slots/0/settingsJSON", nullptr},
        {"/slots", nullptr},
        {"/overdrive", nullptr},
        {"/bypassed", nullptr},
        {"/slots/0/kind", "reverb"},
        {"/slots/0/settingsJSON", "not base64!"},
        {"/slots/0/bypassed", "false"},
        {"/overdrive", json::object()},
        {"/slots/1/auComponent/type", 4294967296ull},
        {"/slots/1/auComponent/name", nullptr},
    };
    for (const auto& [pointer, value] : breaks) {
        json j = json::parse(goldenChain);
        if (value.is_null())
            j.at(json::json_pointer(pointer).parent_pointer()).erase(json::json_pointer(pointer).back());
        else
            j[json::json_pointer(pointer)] = value;
        EXPECT_THROW(chainSettingsFromJSON(j), JSONDecodeError) << pointer << " = " << value;
    }
    EXPECT_THROW(chainSettingsFromJSON(json::array()), JSONDecodeError);
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
