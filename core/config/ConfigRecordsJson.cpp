// Codecs of the records held by TonaviConfig. Each reader follows the tolerant rule of
// ConfigJson.hpp; the clamps come after reading.

#include "core/config/AppAudioState.hpp"
#include "core/config/AutoDuckRule.hpp"
#include "core/config/BluetoothDeviceMemory.hpp"
#include "core/config/ConfigJson.hpp"
#include "core/config/DeviceSettings.hpp"
#include "core/config/FocusLink.hpp"
#include "core/config/GlobalLocks.hpp"
#include "core/config/HearingCareSettings.hpp"
#include "core/config/OutputGroup.hpp"
#include "core/config/SmartSettings.hpp"
#include "core/config/SystemRowSettings.hpp"
#include "core/config/UIPreferences.hpp"
#include "core/config/WorkspaceLane.hpp"

#include "base/Encoding.hpp"

#include <algorithm>
#include <cmath>

namespace tonavi {

using namespace ConfigJson;

// MARK: AppAudioState

void to_json(json& j, const AppAudioState& v) {
    j = json::object();
    j["id"] = v.id;
    j["displayName"] = v.displayName;
    j["volume"] = v.volume;
    j["muted"] = v.muted;
    j["chain"] = kavore::toJSON(v.chain);
    j["redirectUID"] = v.redirectUID;
    j["favorite"] = v.favorite;
    j["favoriteRank"] = v.favoriteRank;
    putIfPresent(j, "displayRank", v.displayRank);
    j["showInMenuBar"] = v.showInMenuBar;
    j["metersEnabled"] = v.metersEnabled;
    j["directLocked"] = v.directLocked;
    j["muteWhileBypassed"] = v.muteWhileBypassed;
    putIfPresent(j, "timedMuteUntil", v.timedMuteUntil);
    j["pinnedEffectIDs"] = v.pinnedEffectIDs;
    j["volumePerDevice"] = v.volumePerDevice;
    j["controlAttached"] = v.controlAttached;
    j["steadyVolume"] = v.steadyVolume;
}

void from_json(const json& j, AppAudioState& v) {
    requireObject(j, "AppAudioState");
    AppAudioState out;
    out.id = readRequired<std::string>(j, "id");
    out.displayName = out.id;
    readOptional(j, "displayName", out.displayName);
    readOptional(j, "volume", out.volume);
    readOptional(j, "muted", out.muted);
    readOptional(j, "chain", out.chain);
    readOptional(j, "redirectUID", out.redirectUID);
    readOptional(j, "favorite", out.favorite);
    readOptional(j, "favoriteRank", out.favoriteRank);
    readOptional(j, "displayRank", out.displayRank);
    readOptional(j, "showInMenuBar", out.showInMenuBar);
    readOptional(j, "metersEnabled", out.metersEnabled);
    readOptional(j, "directLocked", out.directLocked);
    readOptional(j, "muteWhileBypassed", out.muteWhileBypassed);
    readOptional(j, "timedMuteUntil", out.timedMuteUntil);
    readOptional(j, "pinnedEffectIDs", out.pinnedEffectIDs);
    readOptional(j, "volumePerDevice", out.volumePerDevice);
    readOptional(j, "controlAttached", out.controlAttached);
    readOptional(j, "steadyVolume", out.steadyVolume);
    out.volume = clamp(out.volume, 0.0, 1.0);
    v = std::move(out);
}

// MARK: DeviceSettings

void to_json(json& j, const DeviceSettings& v) {
    j = json::object();
    j["id"] = v.id;
    j["nickname"] = v.nickname;
    j["iconName"] = v.iconName;
    j["maxVolumePercent"] = v.maxVolumePercent;
    j["forceSoftwareVolume"] = v.forceSoftwareVolume;
    j["hidden"] = v.hidden;
    j["processingEnabled"] = v.processingEnabled;
    putIfPresent(j, "preferredRank", v.preferredRank);
    putIfPresent(j, "displayRank", v.displayRank);
    j["useCount"] = v.useCount;
    putIfPresent(j, "lastUsedAt", v.lastUsedAt);
}

void from_json(const json& j, DeviceSettings& v) {
    requireObject(j, "DeviceSettings");
    DeviceSettings out;
    out.id = readRequired<std::string>(j, "id");
    readOptional(j, "nickname", out.nickname);
    readOptional(j, "iconName", out.iconName);
    readOptional(j, "maxVolumePercent", out.maxVolumePercent);
    readOptional(j, "forceSoftwareVolume", out.forceSoftwareVolume);
    readOptional(j, "hidden", out.hidden);
    readOptional(j, "processingEnabled", out.processingEnabled);
    readOptional(j, "preferredRank", out.preferredRank);
    readOptional(j, "displayRank", out.displayRank);
    readOptional(j, "useCount", out.useCount);
    readOptional(j, "lastUsedAt", out.lastUsedAt);
    out.maxVolumePercent = clamp(out.maxVolumePercent, 5.0, 100.0);
    out.useCount = std::max<std::int64_t>(out.useCount, 0);
    v = std::move(out);
}

// MARK: GlobalLocks

void to_json(json& j, const GlobalLocks& v) {
    j = json{{"volume", v.volume},
             {"balance", v.balance},
             {"sampleRate", v.sampleRate},
             {"source", v.source},
             {"mute", v.mute}};
}

void from_json(const json& j, GlobalLocks& v) {
    requireObject(j, "GlobalLocks");
    GlobalLocks out;
    readOptional(j, "volume", out.volume);
    readOptional(j, "balance", out.balance);
    readOptional(j, "sampleRate", out.sampleRate);
    readOptional(j, "source", out.source);
    readOptional(j, "mute", out.mute);
    v = out;
}

// MARK: BluetoothDeviceMemory

void to_json(json& j, const BluetoothDeviceMemory& v) {
    j = json::object();
    j["id"] = v.id;
    j["name"] = v.name;
    putIfPresent(j, "savedVolume", v.savedVolume);
    putIfPresent(j, "eqPresetID", v.eqPresetID);
    j["maxVolumePercent"] = v.maxVolumePercent;
    j["outputOnlyMode"] = v.outputOnlyMode;
    j["stabilityBufferFrames"] = v.stabilityBufferFrames;
}

void from_json(const json& j, BluetoothDeviceMemory& v) {
    requireObject(j, "BluetoothDeviceMemory");
    BluetoothDeviceMemory out;
    out.id = readRequired<std::string>(j, "id");
    out.name = out.id;
    readOptional(j, "name", out.name);
    readOptional(j, "savedVolume", out.savedVolume);
    readOptional(j, "eqPresetID", out.eqPresetID);
    readOptional(j, "maxVolumePercent", out.maxVolumePercent);
    readOptional(j, "outputOnlyMode", out.outputOnlyMode);
    readOptional(j, "stabilityBufferFrames", out.stabilityBufferFrames);
    v = std::move(out);
}

// MARK: WorkspaceLane

void to_json(json& j, const WorkspaceLane& v) {
    j = json{{"id", v.id}, {"appBundleID", v.appBundleID}, {"deviceUID", v.deviceUID}, {"locked", v.locked}};
}

void from_json(const json& j, WorkspaceLane& v) {
    requireObject(j, "WorkspaceLane");
    WorkspaceLane out;
    out.appBundleID = readRequired<std::string>(j, "appBundleID");
    out.deviceUID = readRequired<std::string>(j, "deviceUID");
    if (!readOptional(j, "id", out.id))
        out.id = makeUUID();
    readOptional(j, "locked", out.locked);
    v = std::move(out);
}

// MARK: AutoDuckRule

void to_json(json& j, const AutoDuckRule& v) {
    j = json{
        {"id", v.id},         {"triggerBundleID", v.triggerBundleID}, {"duckedBundleIDs", v.duckedBundleIDs},
        {"duckDB", v.duckDB}, {"recoveryMS", v.recoveryMS},           {"enabled", v.enabled}};
}

void from_json(const json& j, AutoDuckRule& v) {
    requireObject(j, "AutoDuckRule");
    AutoDuckRule out;
    out.triggerBundleID = readRequired<std::string>(j, "triggerBundleID");
    if (!readOptional(j, "id", out.id))
        out.id = makeUUID();
    readOptional(j, "duckedBundleIDs", out.duckedBundleIDs);
    readOptional(j, "duckDB", out.duckDB);
    readOptional(j, "recoveryMS", out.recoveryMS);
    readOptional(j, "enabled", out.enabled);
    out.duckDB = std::min(out.duckDB, 0.0);
    out.recoveryMS = std::max(out.recoveryMS, 50.0);
    v = std::move(out);
}

// MARK: FocusLink

void to_json(json& j, const FocusLink& v) {
    j = json{{"id", v.id}, {"focusName", v.focusName}, {"configName", v.configName}};
}

void from_json(const json& j, FocusLink& v) {
    requireObject(j, "FocusLink");
    FocusLink out;
    out.id = readRequired<std::string>(j, "id");
    out.focusName = readRequired<std::string>(j, "focusName");
    out.configName = readRequired<std::string>(j, "configName");
    v = std::move(out);
}

// MARK: SmartSettings

void to_json(json& j, const SmartSettings& v) {
    j = json::object();
    j["followMe"] = v.followMe;
    j["followMeBackgroundPercent"] = v.followMeBackgroundPercent;
    j["loudnessGuard"] = v.loudnessGuard;
    j["loudnessGuardCeilingDBFS"] = v.loudnessGuardCeilingDBFS;
    j["autoDuck"] = v.autoDuck;
    j["micFollow"] = v.micFollow;
    j["autoDuckDepthDB"] = v.autoDuckDepthDB;
    j["leaveAloneBundleIDs"] = v.leaveAloneBundleIDs;
    j["protectMusicApps"] = v.protectMusicApps;
    j["preferredMicUIDs"] = v.preferredMicUIDs;
}

void from_json(const json& j, SmartSettings& v) {
    requireObject(j, "SmartSettings");
    SmartSettings out;
    readOptional(j, "followMe", out.followMe);
    if (readOptional(j, "followMeBackgroundPercent", out.followMeBackgroundPercent)) {
        out.followMeBackgroundPercent = clamp(out.followMeBackgroundPercent, 0.0, 100.0);
    } else {
        // Older files stored the background level as a duck in decibels.
        double duckDB = 0.0;
        if (readOptional(j, "followMeDuckDB", duckDB))
            out.followMeBackgroundPercent =
                std::min(100.0 * std::pow(10.0, std::min(duckDB, 0.0) / 20.0), 100.0);
    }
    readOptional(j, "loudnessGuard", out.loudnessGuard);
    if (readOptional(j, "loudnessGuardCeilingDBFS", out.loudnessGuardCeilingDBFS)) {
        out.loudnessGuardCeilingDBFS = clamp(out.loudnessGuardCeilingDBFS, -24.0, 0.0);
    } else {
        // Older files stored the ceiling as a percentage of full scale.
        double capPercent = 0.0;
        if (readOptional(j, "loudnessGuardCapPercent", capPercent)) {
            const double linear = clamp(capPercent / 100.0, 0.05, 1.0);
            out.loudnessGuardCeilingDBFS = clamp(20.0 * std::log10(linear), -24.0, 0.0);
        }
    }
    readOptional(j, "autoDuck", out.autoDuck);
    readOptional(j, "micFollow", out.micFollow);
    readOptional(j, "autoDuckDepthDB", out.autoDuckDepthDB);
    out.autoDuckDepthDB = clamp(out.autoDuckDepthDB, -30.0, -3.0);
    readOptional(j, "leaveAloneBundleIDs", out.leaveAloneBundleIDs);
    readOptional(j, "protectMusicApps", out.protectMusicApps);
    readOptional(j, "preferredMicUIDs", out.preferredMicUIDs);
    if (out.preferredMicUIDs.size() > SmartSettings::maxPreferredMics)
        out.preferredMicUIDs.resize(SmartSettings::maxPreferredMics);
    v = std::move(out);
}

// MARK: HearingCareSettings

void to_json(json& j, const HearingCareSettings& v) {
    j = json{{"dailySummaryEnabled", v.dailySummaryEnabled},
             {"highVolumeAlertsEnabled", v.highVolumeAlertsEnabled},
             {"alertThreshold", v.alertThreshold}};
}

void from_json(const json& j, HearingCareSettings& v) {
    requireObject(j, "HearingCareSettings");
    HearingCareSettings out;
    readOptional(j, "dailySummaryEnabled", out.dailySummaryEnabled);
    readOptional(j, "highVolumeAlertsEnabled", out.highVolumeAlertsEnabled);
    readOptional(j, "alertThreshold", out.alertThreshold);
    out.alertThreshold = clamp(out.alertThreshold, 0.5, 1.0);
    v = out;
}

// MARK: OutputGroupMember, OutputGroup

void to_json(json& j, const OutputGroupMember& v) {
    j = json{{"id", v.id}, {"volume", v.volume}, {"muted", v.muted}};
}

void from_json(const json& j, OutputGroupMember& v) {
    requireObject(j, "OutputGroupMember");
    OutputGroupMember out;
    out.id = readRequired<std::string>(j, "id");
    readOptional(j, "volume", out.volume);
    readOptional(j, "muted", out.muted);
    out.volume = clamp(out.volume, 0.0, 1.0);
    v = std::move(out);
}

void to_json(json& j, const OutputGroup& v) {
    j = json{{"id", v.id}, {"name", v.name}, {"iconName", v.iconName}, {"members", v.members}};
}

void from_json(const json& j, OutputGroup& v) {
    requireObject(j, "OutputGroup");
    OutputGroup out;
    out.id = readRequired<std::string>(j, "id");
    readOptional(j, "name", out.name);
    readOptional(j, "iconName", out.iconName);
    readOptionalArray(j, "members", out.members);
    v = std::move(out);
}

// MARK: UIPreferences

constexpr EnumName<MenuBarIconStyle> menuBarIconStyleNames[] = {
    {MenuBarIconStyle::systemSpeaker, "systemSpeaker"},
    {MenuBarIconStyle::tonaviIcon, "tonaviIcon"},
    {MenuBarIconStyle::matchOutputDevice, "matchOutputDevice"},
};

void to_json(json& j, const UIPreferences& v) {
    j = json{{"simpleView", v.simpleView},
             {"compactWindow", v.compactWindow},
             {"pinned", v.pinned},
             {"theme", v.theme},
             {"accentHex", v.accentHex},
             {"iconStyle", toName(menuBarIconStyleNames, v.iconStyle)},
             {"windowHeight", v.windowHeight}};
}

void from_json(const json& j, UIPreferences& v) {
    requireObject(j, "UIPreferences");
    UIPreferences out = UIPreferences::defaults();
    readOptional(j, "simpleView", out.simpleView);
    readOptional(j, "compactWindow", out.compactWindow);
    readOptional(j, "pinned", out.pinned);
    readOptional(j, "theme", out.theme);
    readOptional(j, "accentHex", out.accentHex);
    readOptionalName(j, "iconStyle", menuBarIconStyleNames, out.iconStyle);
    readOptional(j, "windowHeight", out.windowHeight);
    v = std::move(out);
}

// MARK: SystemRowSettings

constexpr EnumName<InputMeteringMode> inputMeteringModeNames[] = {
    {InputMeteringMode::passive, "passive"},
    {InputMeteringMode::active, "active"},
    {InputMeteringMode::disabled, "disabled"},
};

void to_json(json& j, const SystemRowSettings& v) {
    j = json::object();
    j["soundEffectsDeviceUID"] = v.soundEffectsDeviceUID;
    j["soundEffectsFollowsOutput"] = v.soundEffectsFollowsOutput;
    j["inputMetering"] = toName(inputMeteringModeNames, v.inputMetering);
    j["systemChain"] = kavore::toJSON(v.systemChain);
    j["systemMagicBoost"] = kavore::toJSON(v.systemMagicBoost);
}

void from_json(const json& j, SystemRowSettings& v) {
    requireObject(j, "SystemRowSettings");
    SystemRowSettings out = SystemRowSettings::defaults();
    readOptional(j, "soundEffectsDeviceUID", out.soundEffectsDeviceUID);
    readOptional(j, "soundEffectsFollowsOutput", out.soundEffectsFollowsOutput);
    readOptionalName(j, "inputMetering", inputMeteringModeNames, out.inputMetering);
    readOptional(j, "systemChain", out.systemChain);
    readOptional(j, "systemMagicBoost", out.systemMagicBoost);
    v = std::move(out);
}

} // namespace tonavi
