#pragma once
// Configurations with substance for tests and benchmarks: every kind of record, chains with
// effects, optional fields both present and absent.

#include "core/config/TonaviConfig.hpp"

#include <string>

namespace tonavi::testing {

inline std::vector<std::uint8_t> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

inline kavore::ChainSettings fourEffectChain(int seed) {
    kavore::ChainSettings chain;
    const std::pair<kavore::EffectKind, std::string> effects[] = {
        {kavore::EffectKind::eq10, R"({"bandsDB":[1,2,3,0,0,0,-1,-2,0,0],"preampDB":-1,"enabled":true})"},
        {kavore::EffectKind::compressor, R"({"amount":0.4,"enabled":true})"},
        {kavore::EffectKind::magicBoost, R"({"amount":0.25,"enabled":true})"},
        {kavore::EffectKind::balancePan, R"({"balance":-0.2,"enabled":true})"}};
    for (const auto& [kind, settings] : effects) {
        const std::string n = std::to_string(chain.slots.size());
        chain.slots.push_back({"slot-" + std::to_string(seed) + "-" + n,
                               kind,
                               "Effect " + n,
                               n == "1",
                               bytesOf(settings),
                               {},
                               {}});
    }
    chain.overdrive.multiplier = 2.0;
    return chain;
}

inline TonaviConfig largeConfig(int apps, int devices, int groups) {
    TonaviConfig config;
    for (int i = 0; i < apps; ++i) {
        AppAudioState app("com.example.app" + std::to_string(i));
        app.displayName = "App \"" + std::to_string(i) + "\" [x]";
        app.volume = (i % 10) / 10.0;
        app.muted = i % 7 == 0;
        app.chain = fourEffectChain(i);
        app.redirectUID = i % 3 ? "" : "device-" + std::to_string(i % 5);
        app.favorite = i % 4 == 0;
        app.favoriteRank = i;
        app.displayRank = i % 2 ? std::optional<std::int64_t>(i) : std::nullopt;
        app.timedMuteUntil = i % 5 ? std::nullopt : std::optional(1.7e9 + i);
        app.pinnedEffectIDs = {"slot-" + std::to_string(i) + "-0"};
        app.volumePerDevice = {{"device-1", 0.5}, {"device-2", 0.25}};
        config.apps.push_back(std::move(app));
    }
    for (int i = 0; i < devices; ++i)
        config.devices.push_back({"device-" + std::to_string(i), "Speaker " + std::to_string(i), "",
                                  50.0 + i % 50, false, false, true,
                                  i % 2 ? std::optional<std::int64_t>(i) : std::nullopt, std::nullopt, i,
                                  i % 3 ? std::optional(1.7e9 + i * 0.5) : std::nullopt});
    for (int i = 0; i < groups; ++i)
        config.groups.push_back(
            {"group-" + std::to_string(i),
             "Group " + std::to_string(i),
             "hifispeaker.2",
             {{"device-" + std::to_string(i), 0.5, false}, {"device-" + std::to_string(i + 1), 1.0, true}}});
    return config;
}

// A small configuration that fills every record kind; `variant` changes its values.
inline TonaviConfig sampleConfig(int variant = 0) {
    TonaviConfig config = largeConfig(3 + variant, 2, 1);
    config.locks.volume = true;
    config.locks.mute = variant % 2 == 1;
    config.bluetooth = {{"bt-1", "Headphones", 0.4, std::string("builtin-rock"), 80.0, true, 512},
                        {"bt-2", "Speaker", std::nullopt, std::nullopt, 100.0, false, 0}};
    config.lanes = {{"LANE-1", "com.example.app1", "device-1", false}};
    config.duckRules = {{"RULE-1", "com.example.app0", {"com.example.app2"}, -9.0, 400.0, true}};
    config.focusLinks = {{"FOCUS-1", "Work", "Quiet"}};
    config.hearingCare = {true, false, 0.7};
    config.ui = {false, false, false, "dark", "", MenuBarIconStyle::matchOutputDevice, 600.0 + variant};
    config.systemRows.inputMetering = InputMeteringMode::active;
    config.systemRows.systemChain = fourEffectChain(99);
    config.systemRows.systemMagicBoost = kavore::LevelerSettings(0.3, true);
    config.stageModePersisted = true;
    config.superVolumeKeys = false;
    config.softMasterPercent = 80.0 + variant;
    config.smart.followMe = true;
    config.smart.followMeBackgroundPercent = 30.0;
    config.smart.preferredMicUIDs = {"mic-1", "mic-2"};
    config.historicallyAudibleAppIDs = {"com.example.app0", "com.example.app1"};
    config.audibleAppLastHeardAt = {{"com.example.app0", 1.7e9}};
    config.hiddenAppIDs = {"com.example.hidden"};
    config.manuallyVisibleAppIDs = {"com.example.shown"};
    return config;
}

} // namespace tonavi::testing
