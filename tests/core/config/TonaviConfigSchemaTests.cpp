// Reading, writing and the methods of the configuration record.

#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/headphone/HeadphoneProfileJSON.hpp"
#include "audio/listening/GlobalListeningSettingsJSON.hpp"
#include "core/config/ConfigDecodeError.hpp"
#include "core/config/ConfigEncodeError.hpp"
#include "core/config/InstallationVersion.hpp"
#include "core/config/TonaviConfig.hpp"
#include "tests/core/config/ConfigSamples.hpp"

#include "base/Encoding.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

namespace tonavi {
namespace {

using nlohmann::json;

// Every key of every record, spelled as the file has it, with no value at its default.
const char* const goldenDocument = R"({
  "schemaVersion": 2,
  "apps": [{"id": "com.a", "displayName": "A", "volume": 0.5, "muted": true,
            "chain": {"bypassed": true, "overdrive": {"multiplier": 2.0}, "slots": []},
            "redirectUID": "dev-2", "favorite": true, "favoriteRank": 3, "displayRank": 4, "showInMenuBar": true,
            "metersEnabled": false, "directLocked": true, "muteWhileBypassed": true,
            "timedMuteUntil": 1700000000.5, "pinnedEffectIDs": ["s1"], "volumePerDevice": {"dev-1": 0.25},
            "controlAttached": true, "steadyVolume": true}],
  "devices": [{"id": "dev-1", "nickname": "Desk", "iconName": "hifispeaker", "maxVolumePercent": 60.0,
               "forceSoftwareVolume": true, "hidden": true, "processingEnabled": false, "preferredRank": 1,
               "displayRank": 2, "useCount": 9, "lastUsedAt": 1700000001.0}],
  "locks": {"volume": true, "balance": true, "sampleRate": true, "source": true, "mute": true},
  "bluetooth": [{"id": "bt", "name": "Buds", "savedVolume": 0.4, "eqPresetID": "rock", "maxVolumePercent": 80.0,
                 "outputOnlyMode": true, "stabilityBufferFrames": 512}],
  "lanes": [{"id": "L1", "appBundleID": "com.a", "deviceUID": "dev-1", "locked": false}],
  "duckRules": [{"id": "R1", "triggerBundleID": "com.t", "duckedBundleIDs": ["com.a"], "duckDB": -9.0,
                 "recoveryMS": 400.0, "enabled": false}],
  "focusLinks": [{"id": "F1", "focusName": "Work", "configName": "Quiet"}],
  "hearingCare": {"dailySummaryEnabled": true, "highVolumeAlertsEnabled": true, "alertThreshold": 0.7},
  "groups": [{"id": "G1", "name": "Both", "iconName": "hifispeaker",
              "members": [{"id": "dev-1", "volume": 0.5, "muted": true}]}],
  "ui": {"simpleView": false, "compactWindow": true, "pinned": true, "theme": "dark", "accentHex": "#ff0000",
         "iconStyle": "tonaviIcon", "windowHeight": 600.0},
  "systemRows": {"soundEffectsDeviceUID": "dev-1", "soundEffectsFollowsOutput": true, "inputMetering": "disabled",
                 "systemChain": {"bypassed": true, "overdrive": {"multiplier": 1.5}, "slots": []},
                 "systemMagicBoost": {"amount": 0.3, "enabled": true}},
  "stageModePersisted": true, "startAtLogin": true, "superVolumeKeys": false, "softMasterPercent": 80.0,
  "softMasterMuted": true,
  "smart": {"followMe": true, "followMeBackgroundPercent": 30.0, "loudnessGuard": true,
            "loudnessGuardCeilingDBFS": -6.0, "autoDuck": true, "micFollow": true, "autoDuckDepthDB": -20.0,
            "leaveAloneBundleIDs": ["com.x"], "protectMusicApps": false, "preferredMicUIDs": ["mic-1"]},
  "historicallyAudibleAppIDs": ["com.a"], "audibleAppLastHeardAt": {"com.a": 1700000002.0},
  "hiddenAppIDs": ["com.h"], "manuallyVisibleAppIDs": ["com.v"]
})";

// The records of the signal-processing library have their own codecs and tests; here only the keys
// under which the configuration holds them matter.
kavore::EQPreset goldenPreset() {
    kavore::EQPreset preset;
    preset.id = "p1";
    preset.name = "Mine";
    return preset;
}

kavore::HeadphoneProfile goldenProfile() {
    return {"hp1", "Studio", -2.0, {}};
}

kavore::GlobalListeningSettings goldenListening() {
    return kavore::GlobalListeningSettings(true, kavore::ListeningEQSettings::flat(), {}, {});
}

json goldenJSON() {
    json doc = json::parse(goldenDocument);
    doc["customEQPresets"] = json::array({kavore::toJSON(goldenPreset())});
    doc["headphoneProfiles"] = json::array({kavore::toJSON(goldenProfile())});
    doc["globalListening"] = kavore::toJSON(goldenListening());
    return doc;
}

// Decoding then encoding gives the document back; spot checks of the records with many fields of one
// type show that no two keys trade places.
TEST(TonaviConfigGolden, DocumentBothWaysAndAbsentOptionalsAreLeftOut) {
    const TonaviConfig c = decodeTonaviConfig(goldenJSON().dump());
    EXPECT_EQ(encodeTonaviConfig(c), goldenJSON().dump(2)); // pretty printed with sorted keys
    EXPECT_EQ(c.devices.at(0), (DeviceSettings{"dev-1", "Desk", "hifispeaker", 60.0, true, true, false, 1, 2,
                                               9, 1700000001.0}));
    EXPECT_EQ(c.smart,
              (SmartSettings{true, 30.0, true, -6.0, true, true, -20.0, {"com.x"}, false, {"mic-1"}}));
    // The sample leaves optional fields of apps, devices and Bluetooth memories absent.
    EXPECT_EQ(encodeTonaviConfig(testing::sampleConfig(0)).find("null"), std::string::npos);
}

TEST(TonaviConfigReading, OnlyNonObjectsFail) {
    for (const char* text : {"[]", "2", "\"x\"", "null", "", "{", "{} x", "{\"apps\": [}"})
        EXPECT_THROW(decodeTonaviConfig(text), ConfigDecodeError) << text;
    EXPECT_EQ(decodeTonaviConfig(R"({"apps": 5, "devices": {"x": 1}, "locks": [], "smart": "on"})"),
              TonaviConfig());
}

TEST(TonaviConfigReading, OneBadElementEmptiesOnlyItsArray) {
    const TonaviConfig config = decodeTonaviConfig(R"({"apps": [{"id": "a"}, {"displayName": "no id"}],
        "devices": [{"id": "d1"}], "groups": [{"id": "g", "members": [{"volume": 0.5}]}],
        "hiddenAppIDs": ["x", 3], "manuallyVisibleAppIDs": ["y"], "lanes": [{"id": "L", "appBundleID": "a"}],
        "focusLinks": [{"id": "f", "focusName": "Work"}]})");
    EXPECT_TRUE(config.apps.empty() && config.hiddenAppIDs.empty() && config.lanes.empty() &&
                config.focusLinks.empty());
    EXPECT_EQ(config.devices.size(), 1u);
    // A member without id fails its group's members only; the group itself stays.
    ASSERT_EQ(config.groups.size(), 1u);
    EXPECT_TRUE(config.groups[0].members.empty());
    EXPECT_EQ(config.manuallyVisibleAppIDs, std::vector<std::string>{"y"});
}

// Fallbacks, clamps and legacy keys, one case a line: a document, the place in the record read back
// through the disk form, and the value reading the document leaves there.
TEST(TonaviConfigReading, FieldsFallBackClampAndTakeLegacyKeys) {
    std::istringstream cases(R"(
{"apps":[{"id":"a","volume":"loud"}]} /apps/0/volume 1.0
{"apps":[{"id":"a","volume":1.7}]} /apps/0/volume 1.0
{"apps":[{"id":"a","favoriteRank":2.0,"displayRank":2.5}]} /apps/0/favoriteRank 2
{"apps":[{"id":"a","metersEnabled":0}]} /apps/0/metersEnabled true
{"apps":[{"id":"a","volumePerDevice":{"d":0.5,"e":"x"}}]} /apps/0/volumePerDevice {}
{"devices":[{"id":"d","maxVolumePercent":2}]} /devices/0/maxVolumePercent 5.0
{"devices":[{"id":"d","useCount":-4}]} /devices/0/useCount 0
{"duckRules":[{"triggerBundleID":"t","recoveryMS":10}]} /duckRules/0/recoveryMS 50.0
{"hearingCare":{"alertThreshold":0.1}} /hearingCare/alertThreshold 0.5
{"ui":{"iconStyle":"sparkles","windowHeight":700}} /ui/iconStyle "systemSpeaker"
{"smart":{"followMeDuckDB":-6}} /smart/followMeBackgroundPercent 50.118723
{"smart":{"followMeBackgroundPercent":"x","followMeDuckDB":-20}} /smart/followMeBackgroundPercent 10.0
{"smart":{"loudnessGuardCapPercent":50}} /smart/loudnessGuardCeilingDBFS -6.020600
{"smart":{"loudnessGuardCeilingDBFS":-40}} /smart/loudnessGuardCeilingDBFS -24.0
{"smart":{}} /smart/loudnessGuardCeilingDBFS -3.0
{"smart":{"autoDuckDepthDB":-40}} /smart/autoDuckDepthDB -30.0
{"smart":{"preferredMicUIDs":["1","2","3","4","5","6","7","8","9","10","11"]}} /smart/preferredMicUIDs ["1","2","3","4","5","6","7","8"])");
    for (std::string document, pointer, text; cases >> document >> pointer >> text;) {
        const json got = json::parse(encodeTonaviConfig(decodeTonaviConfig(document)))
                             .value(json::json_pointer(pointer), json());
        const json expected = json::parse(text);
        if (expected.is_number_float())
            EXPECT_NEAR(got.is_number() ? got.get<double>() : NAN, expected.get<double>(), 1e-6) << document;
        else
            EXPECT_EQ(got, expected) << document << " at " << pointer;
    }
}

TEST(TonaviConfigReading, LanesAndDuckRulesWithoutIdGetFreshUpperCaseUUIDs) {
    const TonaviConfig config = decodeTonaviConfig(R"({"lanes": [{"appBundleID": "a", "deviceUID": "d"},
        {"appBundleID": "b", "deviceUID": "e"}], "duckRules": [{"triggerBundleID": "t"}]})");
    ASSERT_EQ(config.lanes.size(), 2u);
    for (const std::string& id : {config.lanes[0].id, config.lanes[1].id, config.duckRules.at(0).id}) {
        EXPECT_TRUE(isUUID(id)) << id;
        EXPECT_TRUE(std::none_of(id.begin(), id.end(), [](char c) { return std::islower(c); })) << id;
    }
    EXPECT_NE(config.lanes[0].id, config.lanes[1].id);
    EXPECT_TRUE(config.lanes[0].locked && config.duckRules[0].enabled);
}

TEST(TonaviConfigWriting, NonFiniteNumbersAndBadTextRefuseToEncode) {
    const std::function<void(TonaviConfig&)> damages[] = {
        [](TonaviConfig& c) { c.softMasterPercent = std::numeric_limits<double>::quiet_NaN(); },
        [](TonaviConfig& c) { c.apps.at(0).volumePerDevice["d"] = std::numeric_limits<double>::infinity(); },
        [](TonaviConfig& c) { c.apps.at(0).displayName = "bad \xff text"; }};
    for (const auto& damage : damages) {
        TonaviConfig config;
        config.apps = {AppAudioState("a")};
        damage(config);
        EXPECT_THROW(encodeTonaviConfig(config), ConfigEncodeError);
    }
}

TEST(TonaviConfigMethods, AppLookupAndUpsert) {
    TonaviConfig config;
    config.apps = {AppAudioState("a"), AppAudioState("b"), AppAudioState("a")};
    config.apps[2].volume = 0.3;
    EXPECT_EQ(config.app("a"), &config.apps[0]);
    EXPECT_EQ(config.app("zz"), nullptr);

    AppAudioState replacement("a");
    replacement.volume = 0.5;
    config.upsertApp(replacement);
    config.upsertApp(AppAudioState("c"));
    EXPECT_EQ(config.apps,
              (std::vector{replacement, AppAudioState("b"), config.apps[2], AppAudioState("c")}));
    EXPECT_EQ(config.apps[2].volume, 0.3);
}

TEST(TonaviConfigMethods, RememberAudibleAppsComparesSets) {
    TonaviConfig config;
    config.historicallyAudibleAppIDs = {"z", "a", "m"};
    EXPECT_FALSE(config.rememberAudibleApps({"a", "z", ""}));
    EXPECT_EQ(config.historicallyAudibleAppIDs, (std::vector<std::string>{"z", "a", "m"}));
    EXPECT_TRUE(config.rememberAudibleApps({"", "b", "a"}));
    EXPECT_EQ(config.historicallyAudibleAppIDs, (std::vector<std::string>{"a", "b", "m", "z"}));
    EXPECT_FALSE(config.rememberAudibleApps({}));
}

TEST(TonaviConfigMethods, SetAppVisibleKeepsBothListsSortedAndDisjoint) {
    TonaviConfig config;
    config.manuallyVisibleAppIDs = {"c", "a"};
    config.hiddenAppIDs = {"m"};
    config.setAppVisible("b", true);
    EXPECT_EQ(config.manuallyVisibleAppIDs, (std::vector<std::string>{"a", "b", "c"}));
    config.setAppVisible("a", false);
    config.setAppVisible("m", true);
    EXPECT_EQ(config.hiddenAppIDs, (std::vector<std::string>{"a"}));
    EXPECT_EQ(config.manuallyVisibleAppIDs, (std::vector<std::string>{"b", "c", "m"}));
}

TEST(TonaviConfigMethods, AppendUnrankedMixerAppsOrdersByNameThenId) {
    TonaviConfig config;
    config.apps = {AppAudioState("r"), AppAudioState("k"), AppAudioState("q")};
    config.apps[0].displayRank = 4;
    config.apps[1].displayName = "";
    config.apps[1].volume = 0.2;
    config.apps[2].displayRank = 1;
    config.hiddenAppIDs = {"h"};

    EXPECT_TRUE(config.appendUnrankedMixerApps({{"b", "beta"}, {"z", "Alpha"}, {"a", "alpha"}, {"", "empty"},
                                                {"h", "Hidden"}, {"r", "Ranked"}, {"k", "old name"}, {"k", "Kilo"}}));
    // alpha (a), Alpha (z), beta, Kilo: ranks 5, 6, 7, 8 after the largest rank 4.
    std::vector<std::pair<std::string, std::optional<std::int64_t>>> ranks;
    for (const auto& app : config.apps)
        ranks.emplace_back(app.id, app.displayRank);
    EXPECT_EQ(ranks, (decltype(ranks){{"r", 4}, {"k", 8}, {"q", 1}, {"a", 5}, {"z", 6}, {"b", 7}}));
    EXPECT_TRUE(config.app("k")->displayName == "Kilo" && config.app("k")->volume == 0.2);
    EXPECT_TRUE(config.app("z")->metersEnabled && config.app("z")->volume == 1.0); // a fresh row
    EXPECT_FALSE(config.appendUnrankedMixerApps({{"a", "alpha"}, {"h", "Hidden"}}));

    TonaviConfig fresh;
    EXPECT_TRUE(fresh.appendUnrankedMixerApps({{"x", "X"}}));
    EXPECT_EQ(fresh.apps[0].displayRank, 0);
}

TEST(InstallationVersionTest, ParsesOrdersAndReplaces) {
    EXPECT_EQ(InstallationVersion("1..2.x", "x"), InstallationVersion("1.2", "0"));

    const struct {
        const char *version, *build, *otherVersion, *otherBuild;
        bool before, canReplace;
    } pairs[] = {// A prefix comes first whatever the builds.
                 {"1.2", "900", "1.2.0", "1", true, false}, {"1.2", "3", "1.10", "1", true, false},
                 {"1.2", "3", "1.x.2", "3", false, false},  {"2.0", "49", "2.0", "50", true, true},
                 {"1.9", "60", "2.0", "50", true, false},   {"2", "10", "2.0", "50", true, true}};
    for (const auto& p : pairs) {
        const InstallationVersion a(p.version, p.build), b(p.otherVersion, p.otherBuild);
        EXPECT_EQ(a < b, p.before) << p.version << "+" << p.build << " vs " << p.otherVersion << "+"
                                   << p.otherBuild;
        EXPECT_EQ(b.canReplace(a), p.canReplace)
            << p.otherVersion << "+" << p.otherBuild << " over " << p.version;
    }
    EXPECT_EQ(InstallationVersion("1.2", "3"), InstallationVersion("1.x.2", "3"));
}

} // namespace
} // namespace tonavi
