#include "audio/chain/ChainSettings.hpp"
#include "audio/effects/BalancePanSettingsJSON.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/effects/NoiseSuppressorSettingsJSON.hpp"
#include "audio/headphone/HeadphoneProfileJSON.hpp"

#include "tests/audio/AudioTestSupport.hpp"

#include <gtest/gtest.h>

#include <limits>

using namespace kavore;
using namespace kavore::test;
using nlohmann::json;

namespace {

EffectSlot flat(const std::string& id, bool bypassed = false) {
    return slot(id, EffectKind::eq10, toJSON(EQ10Settings::flat()), bypassed);
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
    EffectSlot au = rawSlot("AU-1", EffectKind::audioUnit, "{}");
    au.nickname = "Reverb";
    au.auComponent =
        AUComponentKey{fourCharCode("aufx"), fourCharCode("rvb2"), fourCharCode("appl"), "Reverb", "Apple"};
    au.audioUnitPreset = std::vector<std::uint8_t>{0x00, 0xFF, 0x10};
    chain.slots = {rawSlot("EQ", EffectKind::eq10, "{}", true), au};
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

// One bad field anywhere fails the whole chain: a required key missing, or a value of the wrong kind.
TEST(ChainSettingsJSON, ReadsStrictly) {
    const auto golden = json::parse(goldenChain);
    for (const char* pointer : {"/slots/0/id", "/slots/0/settingsJSON", "/slots", "/overdrive", "/bypassed",
                                "/slots/1/auComponent/name"}) {
        json j = golden;
        j.at(json::json_pointer(pointer).parent_pointer()).erase(json::json_pointer(pointer).back());
        EXPECT_THROW(chainSettingsFromJSON(j), JSONDecodeError) << pointer;
    }
    const auto wrongKinds = json::parse(R"({"/slots/0/kind": "reverb", "/slots/0/settingsJSON": "!",
        "/slots/0/bypassed": "false", "/overdrive": {}, "/slots/1/auComponent/type": 4294967296})");
    for (const auto& [pointer, value] : wrongKinds.items()) {
        json j = golden;
        j[json::json_pointer(pointer)] = value;
        EXPECT_THROW(chainSettingsFromJSON(j), JSONDecodeError) << pointer << " = " << value;
    }
    EXPECT_THROW(chainSettingsFromJSON(json::array()), JSONDecodeError);
}

TEST(ChainSettings, NeutralWhenNothingCanChangeTheAudio) {
    const std::vector<EffectSlot> off = {flat("a", true), flat("b", true)};
    const struct {
        std::vector<EffectSlot> slots;
        double overdrive;
        bool bypassed, neutral;
    } cases[] = {{off, 1.0, false, true},    {off, 2.0, false, false},
                 {off, 2.0, true, true},     {{}, 1.001, false, true},
                 {{}, 1.0011, false, false}, {{flat("a", true), flat("b")}, 1.0, false, false}};
    for (const auto& c : cases) {
        const ChainSettings chain{c.slots, OverdriveSettings::unclamped(c.overdrive), c.bypassed};
        EXPECT_EQ(chain.isNeutral(), c.neutral) << c.slots.size() << " " << c.overdrive << " " << c.bypassed;
    }
}

TEST(ChainSettings, MoveSwapsWithNeighboursAndStopsAtTheEnds) {
    ChainSettings chain;
    chain.slots = {flat("a"), flat("b"), flat("c")};
    const std::vector<std::tuple<const char*, bool, const char*>> moves = {
        {"a", true, "abc"}, {"c", false, "abc"}, {"zz", true, "abc"},
        {"b", true, "bac"}, {"b", false, "abc"}, {"b", false, "acb"}};
    for (const auto& [id, up, expected] : moves) {
        chain.move(id, up);
        std::string order;
        for (const auto& s : chain.slots)
            order += s.id;
        EXPECT_EQ(order, expected) << id << (up ? " up" : " down");
    }
}

TEST(EffectSettingsJSON, EqualiserRecordIsNormalisedHoweverItIsBuilt) {
    const auto twelve = eq10SettingsFromJSON(
        json{{"bandGainsDB", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}}, {"preampDB", -30}, {"enabled", true}});
    EXPECT_EQ(twelve, EQ10Settings({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, -12.0, true));
    const auto three =
        eq10SettingsFromJSON(json{{"bandGainsDB", {20, -20, 1.5}}, {"preampDB", 0}, {"enabled", false}});
    EXPECT_EQ(three, EQ10Settings({12, -12, 1.5}, 0.0, false));
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(EQ10Settings({nan, std::numeric_limits<double>::infinity()}, nan, true),
              EQ10Settings({}, 0.0, true));

    EXPECT_TRUE(EQ10Settings({0.005, -0.005}, 0.0, true).isNeutral());
    EXPECT_FALSE(EQ10Settings({0.0, 0.01}, 0.0, true).isNeutral());
    EXPECT_THROW(eq10SettingsFromJSON(json{{"bandGainsDB", {1}}, {"enabled", true}}), JSONDecodeError);
    EXPECT_THROW(eq10SettingsFromJSON(json{{"bandGainsDB", {"1"}}, {"preampDB", 0}, {"enabled", true}}),
                 JSONDecodeError);
}

TEST(EffectSettingsJSON, AmountsAreClampedInCodeButKeptFromJSON) {
    EXPECT_EQ(std::make_tuple(CompressorSettings(1.5, CompressorVoicing::voice, true).amount,
                              LevelerSettings(-0.5, true).amount, OverdriveSettings(7.0).multiplier,
                              OverdriveSettings(0.2).multiplier),
              std::make_tuple(1.0, 0.0, 4.0, 1.0));
    EXPECT_EQ(compressorSettingsFromJSON(json{{"amount", 1.5}, {"voicing", "podcast"}, {"enabled", true}}),
              CompressorSettings::unclamped(1.5, CompressorVoicing::podcast, true));
    EXPECT_EQ(levelerSettingsFromJSON(json{{"amount", 2.0}, {"enabled", true}}).amount, 2.0);
    for (const json& bad : {json{{"amount", 1}, {"voicing", "opera"}, {"enabled", true}},
                            json{{"amount", 1}, {"enabled", true}}})
        EXPECT_THROW(compressorSettingsFromJSON(bad), JSONDecodeError) << bad;
    EXPECT_THROW(levelerSettingsFromJSON(json{{"amount", 0.5}}), JSONDecodeError);
}

// Reading keeps the stored value; building in code clamps. Both keys are required, and typed.
TEST(ProcessorSettingsJSON, BalanceAndNoiseReadStrictlyAndUnclamped) {
    EXPECT_EQ(toJSON(BalancePanSettings(-0.4, true)), json::parse(R"({"balance": -0.4, "enabled": true})"));
    EXPECT_EQ(toJSON(NoiseSuppressorSettings(0.25, true)),
              json::parse(R"({"amount": 0.25, "enabled": true})"));
    EXPECT_EQ(balancePanSettingsFromJSON(json::parse(R"({"balance": 3, "enabled": true})")),
              BalancePanSettings::unclamped(3.0, true));
    EXPECT_EQ(BalancePanSettings(3.0, true).balance, 1.0);
    EXPECT_EQ(noiseSuppressorSettingsFromJSON(json::parse(R"({"amount": -2.5, "enabled": false})")),
              NoiseSuppressorSettings::unclamped(-2.5, false));
    EXPECT_EQ(NoiseSuppressorSettings(-2.5, true).amount, 0.0);
    for (const char* bad : {R"({"balance": 0.5})", R"({"balance": "0.5", "enabled": true})", "[0.5, true]"})
        EXPECT_THROW(balancePanSettingsFromJSON(json::parse(bad)), JSONDecodeError) << bad;
    for (const char* bad : {R"({"enabled": true})", R"({"amount": 0.5, "enabled": "yes"})"})
        EXPECT_THROW(noiseSuppressorSettingsFromJSON(json::parse(bad)), JSONDecodeError) << bad;
}

TEST(ProcessorSettingsJSON, HeadphoneProfileGoldenDocumentAndEveryMissingPart) {
    const json golden = json::parse(R"({"id": "a", "name": "b", "preampDB": -2.5, "filters": [
        {"kind": "lowShelf", "freqHz": 105.0, "gainDB": 2.0, "q": 0.7},
        {"kind": "peaking", "freqHz": 3000.0, "gainDB": -4.5, "q": 2.0},
        {"kind": "highShelf", "freqHz": 10000.0, "gainDB": 1.0, "q": 0.71}]})");
    using Kind = ParametricFilter::Kind;
    const HeadphoneProfile profile{"a",
                                   "b",
                                   -2.5,
                                   {{Kind::lowShelf, 105.0, 2.0, 0.7},
                                    {Kind::peaking, 3000.0, -4.5, 2.0},
                                    {Kind::highShelf, 10000.0, 1.0, 0.71}}};
    EXPECT_EQ(toJSON(profile), golden);
    EXPECT_EQ(headphoneProfileFromJSON(golden), profile);

    for (const char* pointer : {"/id", "/name", "/preampDB", "/filters", "/filters/1/kind",
                                "/filters/1/freqHz", "/filters/1/gainDB", "/filters/1/q"}) {
        json bad = golden;
        const json::json_pointer at(pointer);
        bad.at(at.parent_pointer()).erase(at.back());
        EXPECT_THROW(headphoneProfileFromJSON(bad), JSONDecodeError) << pointer;
    }
    json unknownKind = golden;
    unknownKind["filters"][0]["kind"] = "bandPass";
    EXPECT_THROW(headphoneProfileFromJSON(unknownKind), JSONDecodeError);
}
