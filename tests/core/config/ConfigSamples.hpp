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
    const std::string n = std::to_string(seed);
    const std::pair<kavore::EffectKind, std::string> effects[] = {
        {kavore::EffectKind::eq10, R"({"bandsDB":[1,2,3,0,0,0,-1,-2,0,0],"preampDB":-1,"enabled":true})"},
        {kavore::EffectKind::compressor, R"({"amount":0.4,"enabled":true})"},
        {kavore::EffectKind::magicBoost, R"({"amount":0.25,"enabled":true})"},
        {kavore::EffectKind::balancePan, R"({"balance":-0.2,"enabled":true})"}};
    int index = 0;
    for (const auto& [kind, settings] : effects) {
        kavore::EffectSlot slot;
        slot.id = "slot-" + n + "-" + std::to_string(index++);
        slot.kind = kind;
        slot.nickname = "Effect " + std::to_string(index);
        slot.bypassed = index == 2;
        slot.settingsJSON = bytesOf(settings);
        chain.slots.push_back(std::move(slot));
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
        if (i % 2)
            app.displayRank = i;
        if (i % 5 == 0)
            app.timedMuteUntil = 1.7e9 + i;
        app.pinnedEffectIDs = {"slot-" + std::to_string(i) + "-0"};
        app.volumePerDevice = {{"device-1", 0.5}, {"device-2", 0.25}};
        config.apps.push_back(std::move(app));
    }
    for (int i = 0; i < devices; ++i) {
        DeviceSettings device;
        device.id = "device-" + std::to_string(i);
        device.nickname = "Speaker " + std::to_string(i);
        device.maxVolumePercent = 50.0 + i % 50;
        device.useCount = i;
        if (i % 2)
            device.preferredRank = i;
        if (i % 3)
            device.lastUsedAt = 1.7e9 + i * 0.5;
        config.devices.push_back(std::move(device));
    }
    for (int i = 0; i < groups; ++i) {
        OutputGroup group;
        group.id = "group-" + std::to_string(i);
        group.name = "Group " + std::to_string(i);
        group.members = {{"device-" + std::to_string(i), 0.5, false},
                         {"device-" + std::to_string(i + 1), 1.0, true}};
        config.groups.push_back(std::move(group));
    }
    return config;
}

// A small configuration that fills every record kind; `variant` changes its values.
inline TonaviConfig sampleConfig(int variant = 0) {
    TonaviConfig config = largeConfig(3 + variant, 2, 1);
    config.locks.volume = true;
    config.locks.mute = variant % 2 == 1;
    config.bluetooth.push_back({"bt-1", "Headphones", 0.4, std::string("builtin-rock"), 80.0, true, 512});
    config.bluetooth.push_back({"bt-2", "Speaker", std::nullopt, std::nullopt, 100.0, false, 0});
    config.lanes.push_back({"LANE-1", "com.example.app1", "device-1", false});
    config.duckRules.push_back({"RULE-1", "com.example.app0", {"com.example.app2"}, -9.0, 400.0, true});
    config.focusLinks.push_back({"FOCUS-1", "Work", "Quiet"});
    config.hearingCare = {true, false, 0.7};
    config.ui.simpleView = false;
    config.ui.theme = "dark";
    config.ui.iconStyle = MenuBarIconStyle::matchOutputDevice;
    config.ui.windowHeight = 600.0 + variant;
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
