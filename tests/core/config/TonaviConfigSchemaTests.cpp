// Reading, writing and the methods of the configuration record.

#include "core/config/ConfigDecodeError.hpp"
#include "core/config/ConfigEncodeError.hpp"
#include "core/config/InstallationVersion.hpp"
#include "core/config/TonaviConfig.hpp"
#include "tests/core/config/ConfigSamples.hpp"

#include "base/Encoding.hpp"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>

namespace tonavi {
namespace {

using nlohmann::json;

TonaviConfig decode(const json& j) {
    return decodeTonaviConfig(j.dump());
}

// One app record inside an otherwise empty configuration.
AppAudioState decodeApp(const json& app) {
    const TonaviConfig config = decode({{"apps", json::array({app})}});
    EXPECT_EQ(config.apps.size(), 1u);
    return config.apps.empty() ? AppAudioState() : config.apps[0];
}

SmartSettings decodeSmart(const json& smart) {
    return decode({{"smart", smart}}).smart;
}

TEST(TonaviConfigReading, EmptyObjectIsAFullConfigurationButNotTheFirstRun) {
    const TonaviConfig config = decodeTonaviConfig("{}");
    EXPECT_EQ(config.schemaVersion, 2);
    EXPECT_EQ(config.softMasterPercent, 100.0);
    EXPECT_TRUE(config.superVolumeKeys);
    EXPECT_FALSE(config.startAtLogin);
    EXPECT_TRUE(config.apps.empty());
    EXPECT_EQ(config.hearingCare.alertThreshold, 0.85);
    EXPECT_EQ(config.ui.windowHeight, 560.0);
    EXPECT_EQ(config.ui.theme, "system");
    EXPECT_EQ(config.smart.loudnessGuardCeilingDBFS, -3.0);
    EXPECT_TRUE(config.smart.protectMusicApps);
    EXPECT_EQ(config.globalListening, kavore::GlobalListeningSettings::off());
    EXPECT_NE(config, TonaviConfig::firstRunDefaults());
}

TEST(TonaviConfigReading, OnlyNonObjectsFail) {
    for (const char* text : {"[]", "2", "\"x\"", "null", "", "{", "{} x", "{\"apps\": [}"})
        EXPECT_THROW(decodeTonaviConfig(text), ConfigDecodeError) << text;
    EXPECT_NO_THROW(decodeTonaviConfig(R"({"apps": 5, "devices": {"x": 1}, "locks": [], "smart": "on"})"));
}

TEST(TonaviConfigReading, OneBadElementEmptiesOnlyItsArray) {
    const json file = {
        {"apps", json::array({{{"id", "a"}}, {{"displayName", "no id"}}})},
        {"devices", json::array({{{"id", "d1"}}})},
        {"groups", json::array({{{"id", "g"}, {"members", json::array({{{"volume", 0.5}}})}}})},
        {"softMasterPercent", 150.5},
        {"hiddenAppIDs", json::array({"x", 3})},
        {"manuallyVisibleAppIDs", json::array({"y"})},
    };
    const TonaviConfig config = decode(file);
    EXPECT_TRUE(config.apps.empty());
    ASSERT_EQ(config.devices.size(), 1u);
    EXPECT_EQ(config.devices[0].id, "d1");
    // A member without id fails its group's members only; the group itself stays.
    ASSERT_EQ(config.groups.size(), 1u);
    EXPECT_TRUE(config.groups[0].members.empty());
    EXPECT_EQ(config.softMasterPercent, 150.5); // not clamped
    EXPECT_TRUE(config.hiddenAppIDs.empty());
    EXPECT_EQ(config.manuallyVisibleAppIDs, std::vector<std::string>{"y"});
}

TEST(TonaviConfigReading, AppFieldsFallBackAndClamp) {
    EXPECT_EQ(decodeApp({{"id", "a"}, {"volume", "loud"}}).volume, 1.0);
    EXPECT_EQ(decodeApp({{"id", "a"}, {"volume", 1.7}}).volume, 1.0);
    EXPECT_EQ(decodeApp({{"id", "a"}, {"volume", -0.2}}).volume, 0.0);
    EXPECT_EQ(decodeApp({{"id", "a"}, {"volume", 0}}).volume, 0.0);

    const AppAudioState app = decodeApp({{"id", "a"},
                                         {"favoriteRank", 2.0},
                                         {"displayRank", 2.5},
                                         {"metersEnabled", 0},
                                         {"chain", {{"slots", "nope"}}},
                                         {"volumePerDevice", {{"d", 0.5}, {"e", "x"}}}});
    EXPECT_EQ(app.displayName, "a");
    EXPECT_EQ(app.favoriteRank, 2);
    EXPECT_FALSE(app.displayRank.has_value());
    EXPECT_TRUE(app.metersEnabled);
    EXPECT_EQ(app.chain, kavore::ChainSettings::empty());
    EXPECT_TRUE(app.volumePerDevice.empty());
}

TEST(TonaviConfigReading, RecordClampsAfterReading) {
    const TonaviConfig config = decode({
        {"devices", json::array({{{"id", "d"}, {"maxVolumePercent", 2}, {"useCount", -4}},
                                 {{"id", "e"}, {"maxVolumePercent", 250}, {"useCount", 7}}})},
        {"duckRules", json::array({{{"triggerBundleID", "t"}, {"recoveryMS", 10}, {"duckDB", 6}}})},
        {"hearingCare", {{"alertThreshold", 0.1}}},
        {"groups", json::array({{{"id", "g"}, {"members", json::array({{{"id", "m"}, {"volume", 3}}})}}})},
    });
    EXPECT_EQ(config.devices[0].maxVolumePercent, 5.0);
    EXPECT_EQ(config.devices[0].useCount, 0);
    EXPECT_EQ(config.devices[1].maxVolumePercent, 100.0);
    EXPECT_EQ(config.devices[1].useCount, 7);
    EXPECT_EQ(config.duckRules[0].recoveryMS, 50.0);
    EXPECT_EQ(config.duckRules[0].duckDB, 0.0);
    EXPECT_TRUE(config.duckRules[0].enabled);
    EXPECT_EQ(config.hearingCare.alertThreshold, 0.5);
    EXPECT_EQ(config.groups[0].members[0].volume, 1.0);
    EXPECT_EQ(config.groups[0].name, "Output Group");
    EXPECT_EQ(config.groups[0].iconName, "hifispeaker.2");
}

TEST(TonaviConfigReading, SmartSettingsClampsAndLegacyKeys) {
    std::vector<std::string> twelve;
    for (int i = 0; i < 12; ++i)
        twelve.push_back("mic" + std::to_string(i));
    const SmartSettings mics = decodeSmart({{"preferredMicUIDs", twelve}});
    EXPECT_EQ(mics.preferredMicUIDs, std::vector<std::string>(twelve.begin(), twelve.begin() + 8));

    // -6 dB is a factor of 0.501187 in amplitude.
    EXPECT_NEAR(decodeSmart({{"followMeDuckDB", -6}}).followMeBackgroundPercent, 50.1187, 1e-4);
    EXPECT_EQ(decodeSmart({{"followMeDuckDB", 4}}).followMeBackgroundPercent, 100.0);
    EXPECT_EQ(
        decodeSmart({{"followMeBackgroundPercent", 20}, {"followMeDuckDB", -6}}).followMeBackgroundPercent,
        20.0);
    EXPECT_EQ(decodeSmart({{"followMeBackgroundPercent", 130}}).followMeBackgroundPercent, 100.0);
    // An unreadable new key falls through to the legacy one.
    EXPECT_NEAR(
        decodeSmart({{"followMeBackgroundPercent", "x"}, {"followMeDuckDB", -20}}).followMeBackgroundPercent,
        10.0, 1e-9);

    // 1 % floors at 0.05 (-26.02 dB), then the ceiling range clamps to -24.
    EXPECT_EQ(decodeSmart({{"loudnessGuardCapPercent", 1}}).loudnessGuardCeilingDBFS, -24.0);
    EXPECT_NEAR(decodeSmart({{"loudnessGuardCapPercent", 50}}).loudnessGuardCeilingDBFS, -6.0206, 1e-4);
    EXPECT_EQ(decodeSmart({{"loudnessGuardCapPercent", 400}}).loudnessGuardCeilingDBFS, 0.0);
    EXPECT_EQ(decodeSmart({{"loudnessGuardCeilingDBFS", -40}}).loudnessGuardCeilingDBFS, -24.0);
    EXPECT_EQ(decodeSmart(json::object()).loudnessGuardCeilingDBFS, -3.0);

    EXPECT_EQ(decodeSmart({{"autoDuckDepthDB", -40}}).autoDuckDepthDB, -30.0);
    EXPECT_EQ(decodeSmart({{"autoDuckDepthDB", 0}}).autoDuckDepthDB, -3.0);
}

TEST(TonaviConfigReading, LanesAndDuckRulesWithoutIdGetFreshUUIDs) {
    const TonaviConfig config = decode({
        {"lanes", json::array({{{"appBundleID", "a"}, {"deviceUID", "d"}},
                               {{"appBundleID", "b"}, {"deviceUID", "e"}}})},
        {"duckRules", json::array({{{"triggerBundleID", "t"}}})},
    });
    ASSERT_EQ(config.lanes.size(), 2u);
    EXPECT_TRUE(isUUID(config.lanes[0].id)) << config.lanes[0].id;
    EXPECT_NE(config.lanes[0].id, config.lanes[1].id);
    EXPECT_TRUE(config.lanes[0].locked);
    for (char c : config.lanes[0].id)
        EXPECT_FALSE(std::islower(static_cast<unsigned char>(c)));
    EXPECT_TRUE(isUUID(config.duckRules[0].id));

    // A lane without its device is not a lane: the whole array goes.
    EXPECT_TRUE(decode({{"lanes", json::array({{{"id", "L"}, {"appBundleID", "a"}}})}}).lanes.empty());
    EXPECT_TRUE(
        decode({{"focusLinks", json::array({{{"id", "f"}, {"focusName", "Work"}}})}}).focusLinks.empty());
}

TEST(TonaviConfigReading, EnumerationsFallBackToTheirDefaults) {
    const TonaviConfig config = decode({{"ui", {{"iconStyle", "sparkles"}, {"theme", "dark"}}},
                                        {"systemRows", {{"inputMetering", "disabled"}}}});
    EXPECT_EQ(config.ui.iconStyle, MenuBarIconStyle::systemSpeaker);
    EXPECT_EQ(config.ui.theme, "dark");
    EXPECT_EQ(config.systemRows.inputMetering, InputMeteringMode::disabled);
}

TEST(TonaviConfigWriting, RoundTripsAndOmitsAbsentOptionals) {
    const TonaviConfig config = testing::sampleConfig(1);
    const std::string text = encodeTonaviConfig(config);
    EXPECT_EQ(decodeTonaviConfig(text), config);

    const json j = json::parse(text);
    EXPECT_EQ(j.size(), 25u);
    EXPECT_FALSE(j["apps"][0].contains("displayRank")); // app 0 has none
    EXPECT_EQ(j["apps"][1]["displayRank"], 1);
    EXPECT_FALSE(j["bluetooth"][1].contains("savedVolume"));
    EXPECT_EQ(j["ui"]["iconStyle"], "matchOutputDevice");
    EXPECT_EQ(j["systemRows"]["inputMetering"], "active");
    // Pretty printed with sorted keys.
    EXPECT_LT(text.find("\"apps\""), text.find("\"audibleAppLastHeardAt\""));
    EXPECT_LT(text.find("\"audibleAppLastHeardAt\""), text.find("\"bluetooth\""));
    EXPECT_EQ(text.substr(0, 4), "{\n  ");
}

TEST(TonaviConfigWriting, NonFiniteNumbersRefuseToEncode) {
    TonaviConfig config;
    config.softMasterPercent = std::numeric_limits<double>::quiet_NaN();
    EXPECT_THROW(encodeTonaviConfig(config), ConfigEncodeError);
    config.softMasterPercent = 50;
    config.apps.push_back(AppAudioState("a"));
    config.apps[0].volumePerDevice["d"] = std::numeric_limits<double>::infinity();
    EXPECT_THROW(encodeTonaviConfig(config), ConfigEncodeError);
    config.apps[0].volumePerDevice.clear();
    config.apps[0].displayName = "bad \xff text";
    EXPECT_THROW(encodeTonaviConfig(config), ConfigEncodeError);
}

TEST(TonaviConfigMethods, FirstRunDefaults) {
    const TonaviConfig config = TonaviConfig::firstRunDefaults();
    EXPECT_TRUE(config.startAtLogin);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"com.anthropic.claudefordesktop", "Claude"},
        {"com.openai.chat", "ChatGPT"},
        {"com.google.Chrome", "Chrome"},
        {"com.apple.Safari", "Safari"},
        {"org.musescore.MuseScore", "MuseScore"}};
    ASSERT_EQ(config.apps.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const AppAudioState& app = config.apps[i];
        EXPECT_EQ(app.id, expected[i].first);
        EXPECT_EQ(app.displayName, expected[i].second);
        EXPECT_TRUE(app.favorite);
        EXPECT_EQ(app.favoriteRank, static_cast<std::int64_t>(i));
        EXPECT_EQ(app.volume, 1.0);
        EXPECT_TRUE(app.metersEnabled);
        EXPECT_FALSE(app.displayRank);
        EXPECT_EQ(app.chain, kavore::ChainSettings::empty());
    }
    TonaviConfig rest = config;
    rest.apps.clear();
    rest.startAtLogin = false;
    EXPECT_EQ(rest, TonaviConfig());
}

TEST(TonaviConfigMethods, AppLookupAndUpsert) {
    TonaviConfig config;
    config.apps = {AppAudioState("a"), AppAudioState("b"), AppAudioState("a")};
    config.apps[2].volume = 0.3;
    ASSERT_NE(config.app("a"), nullptr);
    EXPECT_EQ(config.app("a"), &config.apps[0]);
    EXPECT_EQ(config.app("zz"), nullptr);

    AppAudioState replacement("a");
    replacement.volume = 0.5;
    config.upsertApp(replacement);
    EXPECT_EQ(config.apps.size(), 3u);
    EXPECT_EQ(config.apps[0].volume, 0.5);
    EXPECT_EQ(config.apps[2].volume, 0.3);
    config.upsertApp(AppAudioState("c"));
    ASSERT_EQ(config.apps.size(), 4u);
    EXPECT_EQ(config.apps[3].id, "c");
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
    EXPECT_EQ(config.manuallyVisibleAppIDs, (std::vector<std::string>{"b", "c"}));
    EXPECT_EQ(config.hiddenAppIDs, (std::vector<std::string>{"a", "m"}));
    config.setAppVisible("m", true);
    EXPECT_EQ(config.hiddenAppIDs, (std::vector<std::string>{"a"}));
    EXPECT_EQ(config.manuallyVisibleAppIDs, (std::vector<std::string>{"b", "c", "m"}));
}

TEST(TonaviConfigMethods, AppendUnrankedMixerAppsOrdersByNameThenId) {
    TonaviConfig config;
    AppAudioState ranked("r");
    ranked.displayRank = 4;
    AppAudioState unrankedKnown("k");
    unrankedKnown.displayName = "";
    unrankedKnown.volume = 0.2;
    AppAudioState lowRank("q");
    lowRank.displayRank = 1;
    config.apps = {ranked, unrankedKnown, lowRank};
    config.hiddenAppIDs = {"h"};

    EXPECT_TRUE(config.appendUnrankedMixerApps({{"b", "beta"},
                                                {"z", "Alpha"},
                                                {"a", "alpha"},
                                                {"", "empty"},
                                                {"h", "Hidden"},
                                                {"r", "Ranked"},
                                                {"k", "old name"},
                                                {"k", "Kilo"}}));
    // alpha (a), Alpha (z), beta, Kilo: ranks 5, 6, 7, 8 after the largest rank 4.
    auto rank = [&](const char* id) { return config.app(id) ? config.app(id)->displayRank : std::nullopt; };
    EXPECT_EQ(rank("a"), 5);
    EXPECT_EQ(rank("z"), 6);
    EXPECT_EQ(rank("b"), 7);
    EXPECT_EQ(rank("k"), 8);
    EXPECT_EQ(rank("r"), 4);
    EXPECT_EQ(config.app("h"), nullptr);
    EXPECT_EQ(config.app("k")->displayName, "Kilo");
    EXPECT_EQ(config.app("k")->volume, 0.2);
    EXPECT_EQ(config.app("z")->displayName, "Alpha");
    EXPECT_EQ(config.app("z")->volume, 1.0);
    EXPECT_TRUE(config.app("z")->metersEnabled);
    EXPECT_EQ(config.apps.size(), 6u);

    EXPECT_FALSE(config.appendUnrankedMixerApps({{"a", "alpha"}, {"h", "Hidden"}}));

    TonaviConfig fresh;
    EXPECT_TRUE(fresh.appendUnrankedMixerApps({{"x", "X"}}));
    EXPECT_EQ(fresh.apps[0].displayRank, 0);
}

TEST(TonaviConfigMethods, AdoptAppOwnedSettingsCopiesOnlyThree) {
    TonaviConfig mine = testing::sampleConfig(0);
    TonaviConfig theirs = testing::sampleConfig(3);
    theirs.startAtLogin = true;
    theirs.superVolumeKeys = true;
    theirs.ui.theme = "light";
    TonaviConfig expected = mine;
    expected.ui = theirs.ui;
    expected.startAtLogin = true;
    expected.superVolumeKeys = true;
    mine.adoptAppOwnedSettings(theirs);
    EXPECT_EQ(mine, expected);
}

TEST(InstallationVersionTest, ParsesAndOrders) {
    EXPECT_EQ(InstallationVersion("1.2.x.3", "7").components, (std::vector<std::int64_t>{1, 2, 3}));
    EXPECT_EQ(InstallationVersion("1..2", "x").components, (std::vector<std::int64_t>{1, 2}));
    EXPECT_EQ(InstallationVersion("1..2", "x").build, 0);
    EXPECT_EQ(InstallationVersion("", "12").components.size(), 0u);

    // A prefix comes first whatever the builds.
    EXPECT_LT(InstallationVersion("1.2", "900"), InstallationVersion("1.2.0", "1"));
    EXPECT_LT(InstallationVersion("1.2", "3"), InstallationVersion("1.10", "1"));
    EXPECT_LT(InstallationVersion("1.2", "3"), InstallationVersion("1.2", "4"));
    EXPECT_EQ(InstallationVersion("1.2", "3"), InstallationVersion("1.x.2", "3"));
}

TEST(InstallationVersionTest, CanReplaceNeedsALowerBuildAndNoNewerComponents) {
    const InstallationVersion current("2.0", "50");
    EXPECT_TRUE(current.canReplace(InstallationVersion("2.0", "49")));
    EXPECT_TRUE(current.canReplace(InstallationVersion("1.9", "10")));
    EXPECT_FALSE(current.canReplace(InstallationVersion("2.0", "50")));
    EXPECT_FALSE(current.canReplace(InstallationVersion("1.9", "60")));
    EXPECT_FALSE(current.canReplace(InstallationVersion("2.0.1", "10")));
    EXPECT_TRUE(current.canReplace(InstallationVersion("2", "10")));
}

} // namespace
} // namespace tonavi
