#pragma once
// A request from a client: a sum type, one case per request, in the order clients and service share.
// On the wire it is an object with exactly one key, the case's name, whose value is an object with the
// case's fields ("_0" for a single unlabelled field, {} for none). Decoding is strict: a wrong type, a
// missing field or an unknown case or enumeration name fails the whole request.

#include "audio/chain/ChainSettings.hpp"
#include "audio/effects/EQPreset.hpp"
#include "audio/listening/GlobalListeningSettings.hpp"
#include "audio/effects/LevelerSettings.hpp"
#include "base/Encoding.hpp"
#include "core/config/AutoDirectList.hpp"
#include "core/config/AutoDuckRule.hpp"
#include "core/config/BluetoothDeviceMemory.hpp"
#include "core/config/DeviceSettings.hpp"
#include "core/config/FocusLink.hpp"
#include "core/config/GlobalLocks.hpp"
#include "core/config/MIDIMapping.hpp"
#include "core/config/OutputGroup.hpp"
#include "core/config/SmartSettings.hpp"
#include "core/config/TonaviConfig.hpp"
#include "core/config/WorkspaceLane.hpp"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tonavi {

struct TonaviRequest {
    struct ImportConfiguration {
        TonaviConfig config;
        AutoDirectList autoDirect;
        bool operator==(const ImportConfiguration&) const = default;
    };
    struct EngageApp {
        std::string bundleID;
        bool operator==(const EngageApp&) const = default;
    };
    struct DisengageApp {
        std::string bundleID;
        bool operator==(const DisengageApp&) const = default;
    };
    struct UnlockDirect {
        std::string bundleID;
        bool operator==(const UnlockDirect&) const = default;
    };
    struct RelockDirect {
        std::string bundleID;
        bool operator==(const RelockDirect&) const = default;
    };
    struct SetAppVolume {
        std::string bundleID;
        double volume = 0;
        bool operator==(const SetAppVolume&) const = default;
    };
    struct SetAppMuted {
        std::string bundleID;
        bool muted = false;
        bool operator==(const SetAppMuted&) const = default;
    };
    struct SetSoloApps {
        std::vector<std::string> bundleIDs;
        bool operator==(const SetSoloApps&) const = default;
    };
    struct SetAppSolo {
        std::string bundleID;
        bool soloed = false;
        bool operator==(const SetAppSolo&) const = default;
    };
    struct SetAppSteadyVolume {
        std::string bundleID;
        bool on = false;
        bool operator==(const SetAppSteadyVolume&) const = default;
    };
    struct SetAppBoost {
        std::string bundleID;
        double multiplier = 0;
        bool operator==(const SetAppBoost&) const = default;
    };
    struct SetAppRedirect {
        std::string bundleID;
        std::string deviceUID;
        bool operator==(const SetAppRedirect&) const = default;
    };
    struct SetAppChain {
        std::string bundleID;
        kavore::ChainSettings chain;
        bool operator==(const SetAppChain&) const = default;
    };
    struct SetTimedMute {
        std::string bundleID;
        double seconds = 0;
        bool operator==(const SetTimedMute&) const = default;
    };
    struct CancelTimedMute {
        std::string bundleID;
        bool operator==(const CancelTimedMute&) const = default;
    };
    struct BypassAppEffects {
        std::string bundleID;
        bool bypassed = false;
        bool operator==(const BypassAppEffects&) const = default;
    };
    struct ResetApp {
        std::string bundleID;
        bool operator==(const ResetApp&) const = default;
    };
    struct SetAppVisible {
        std::string bundleID;
        bool visible = false;
        bool operator==(const SetAppVisible&) const = default;
    };
    struct SetFavorite {
        std::string bundleID;
        bool favorite = false;
        std::int64_t rank = 0;
        bool operator==(const SetFavorite&) const = default;
    };
    struct SetAppDisplayOrder {
        std::vector<std::string> bundleIDs;
        bool operator==(const SetAppDisplayOrder&) const = default;
    };
    struct SetPinnedEffects {
        std::string bundleID;
        std::vector<std::string> slotIDs;
        bool operator==(const SetPinnedEffects&) const = default;
    };
    struct SetOutputDevice {
        std::string uid;
        bool operator==(const SetOutputDevice&) const = default;
    };
    struct SetOutputDeviceOrdered {
        std::string uid;
        std::string clientID;
        std::uint64_t generation = 0;
        bool operator==(const SetOutputDeviceOrdered&) const = default;
    };
    struct SetInputDevice {
        std::string uid;
        bool operator==(const SetInputDevice&) const = default;
    };
    struct SetSoundEffectsDevice {
        std::string uid;
        bool operator==(const SetSoundEffectsDevice&) const = default;
    };
    struct SetOutputVolume {
        double volume = 0;
        bool operator==(const SetOutputVolume&) const = default;
    };
    struct SetOutputMuted {
        bool muted = false;
        bool operator==(const SetOutputMuted&) const = default;
    };
    struct SetDeviceVolume {
        std::string uid;
        double volume = 0;
        bool operator==(const SetDeviceVolume&) const = default;
    };
    struct SetDeviceMuted {
        std::string uid;
        bool muted = false;
        bool operator==(const SetDeviceMuted&) const = default;
    };
    struct SetDeviceSampleRate {
        std::string uid;
        double rate = 0;
        bool operator==(const SetDeviceSampleRate&) const = default;
    };
    struct SetSystemChain {
        kavore::ChainSettings chain;
        bool operator==(const SetSystemChain&) const = default;
    };
    struct SetSystemMagicBoost {
        kavore::LevelerSettings settings;
        bool operator==(const SetSystemMagicBoost&) const = default;
    };
    struct SetGlobalListening {
        kavore::GlobalListeningSettings _0;
        bool operator==(const SetGlobalListening&) const = default;
    };
    struct SetDeviceSettings {
        DeviceSettings _0;
        bool operator==(const SetDeviceSettings&) const = default;
    };
    struct SetDeviceHidden {
        std::string uid;
        bool hidden = false;
        bool operator==(const SetDeviceHidden&) const = default;
    };
    struct SetLocks {
        GlobalLocks _0;
        bool operator==(const SetLocks&) const = default;
    };
    struct SetPreferredOrder {
        std::vector<std::string> uids;
        bool operator==(const SetPreferredOrder&) const = default;
    };
    struct SetDeviceDisplayOrder {
        std::vector<std::string> uids;
        bool operator==(const SetDeviceDisplayOrder&) const = default;
    };
    struct StageMode {
        bool on = false;
        bool operator==(const StageMode&) const = default;
    };
    struct SetManualDuck {
        bool on = false;
        bool operator==(const SetManualDuck&) const = default;
    };
    struct SaveGroup {
        OutputGroup _0;
        bool operator==(const SaveGroup&) const = default;
    };
    struct DeleteGroup {
        std::string id;
        bool operator==(const DeleteGroup&) const = default;
    };
    struct SaveConfig {
        std::string name;
        bool operator==(const SaveConfig&) const = default;
    };
    struct LoadConfig {
        std::string name;
        bool operator==(const LoadConfig&) const = default;
    };
    struct DeleteConfig {
        std::string name;
        bool operator==(const DeleteConfig&) const = default;
    };
    struct RenameConfig {
        std::string oldName;
        std::string newName;
        bool operator==(const RenameConfig&) const = default;
    };
    struct SetConfigIcon {
        std::string name;
        std::string iconName;
        bool operator==(const SetConfigIcon&) const = default;
    };
    struct SaveEQPreset {
        kavore::EQPreset _0;
        bool operator==(const SaveEQPreset&) const = default;
    };
    struct DeleteEQPreset {
        std::string id;
        bool operator==(const DeleteEQPreset&) const = default;
    };
    struct SetLane {
        WorkspaceLane _0;
        bool operator==(const SetLane&) const = default;
    };
    struct RemoveLane {
        std::string id;
        bool operator==(const RemoveLane&) const = default;
    };
    struct SetDuckRule {
        AutoDuckRule _0;
        bool operator==(const SetDuckRule&) const = default;
    };
    struct RemoveDuckRule {
        std::string id;
        bool operator==(const RemoveDuckRule&) const = default;
    };
    struct SetFocusLink {
        FocusLink _0;
        bool operator==(const SetFocusLink&) const = default;
    };
    struct RemoveFocusLink {
        std::string id;
        bool operator==(const RemoveFocusLink&) const = default;
    };
    struct SetSmartSettings {
        SmartSettings _0;
        bool operator==(const SetSmartSettings&) const = default;
    };
    struct SetPreferredMics {
        std::vector<std::string> uids;
        bool operator==(const SetPreferredMics&) const = default;
    };
    struct SetBluetoothMemory {
        BluetoothDeviceMemory _0;
        bool operator==(const SetBluetoothMemory&) const = default;
    };
    struct SetOutputOnlyMode {
        std::string deviceUID;
        bool on = false;
        bool operator==(const SetOutputOnlyMode&) const = default;
    };
    struct SetMIDIMapping {
        MIDIMapping _0;
        bool operator==(const SetMIDIMapping&) const = default;
    };
    struct RemoveMIDIMapping {
        std::string id;
        bool operator==(const RemoveMIDIMapping&) const = default;
    };
    struct Ping {
        bool operator==(const Ping&) const = default;
    };
    struct Status {
        bool operator==(const Status&) const = default;
    };
    struct Shutdown {
        bool operator==(const Shutdown&) const = default;
    };
    struct Diagnostics {
        bool operator==(const Diagnostics&) const = default;
    };
    struct ListDevices {
        bool operator==(const ListDevices&) const = default;
    };
    struct ListConfigs {
        bool operator==(const ListConfigs&) const = default;
    };
    struct ListEQPresets {
        bool operator==(const ListEQPresets&) const = default;
    };
    struct ListInstalledApps {
        bool operator==(const ListInstalledApps&) const = default;
    };
    struct ListRunningAudioApps {
        bool operator==(const ListRunningAudioApps&) const = default;
    };
    struct ScanAudioUnits {
        bool operator==(const ScanAudioUnits&) const = default;
    };
    struct ListAudioUnits {
        bool operator==(const ListAudioUnits&) const = default;
    };
    struct ListBluetooth {
        bool operator==(const ListBluetooth&) const = default;
    };
    struct ListMIDIMappings {
        bool operator==(const ListMIDIMappings&) const = default;
    };
    // Waits for the next Control Change from any source, at most `timeoutSeconds` (kept under the
    // server's 20-second bound), and answers with its channel and controller as the payload
    // {"channel": 1...16, "cc": 0...127}.
    struct LearnMIDIControl {
        double timeoutSeconds = 15;
        bool operator==(const LearnMIDIControl&) const = default;
    };

    using Value = std::variant<
        ImportConfiguration, EngageApp, DisengageApp, UnlockDirect, RelockDirect, SetAppVolume, SetAppMuted,
        SetSoloApps, SetAppSolo, SetAppSteadyVolume, SetAppBoost, SetAppRedirect, SetAppChain, SetTimedMute,
        CancelTimedMute, BypassAppEffects, ResetApp, SetAppVisible, SetFavorite, SetAppDisplayOrder,
        SetPinnedEffects, SetOutputDevice, SetOutputDeviceOrdered, SetInputDevice, SetSoundEffectsDevice,
        SetOutputVolume, SetOutputMuted, SetDeviceVolume, SetDeviceMuted, SetDeviceSampleRate, SetSystemChain,
        SetSystemMagicBoost, SetGlobalListening, SetDeviceSettings, SetDeviceHidden, SetLocks,
        SetPreferredOrder, SetDeviceDisplayOrder, StageMode, SetManualDuck, SaveGroup, DeleteGroup,
        SaveConfig, LoadConfig, DeleteConfig, RenameConfig, SetConfigIcon, SaveEQPreset, DeleteEQPreset,
        SetLane, RemoveLane, SetDuckRule, RemoveDuckRule, SetFocusLink, RemoveFocusLink, SetSmartSettings,
        SetPreferredMics, SetBluetoothMemory, SetOutputOnlyMode, SetMIDIMapping, RemoveMIDIMapping, Ping,
        Status, Shutdown, Diagnostics, ListDevices, ListConfigs, ListEQPresets, ListInstalledApps,
        ListRunningAudioApps, ScanAudioUnits, ListAudioUnits, ListBluetooth, ListMIDIMappings,
        LearnMIDIControl>;
    Value value;

    // The case's name on the wire, e.g. "setAppVolume".
    std::string_view caseName() const;
    // True for the requests whose reply waits for the operating system to confirm a device change.
    bool completesLater() const;
    bool operator==(const TonaviRequest&) const = default;

    static TonaviRequest ping() { return {Ping{}}; }
};

// Compact JSON text. Throws WireEncodingError for a value that cannot be written (a number that is
// not finite).
std::string encodeRequest(const TonaviRequest& request);
// Throws WireDecodingError; the message of a wrong key count is "Invalid number of keys found, expected one."
TonaviRequest decodeRequest(std::string_view json);
TonaviRequest decodeRequest(std::span<const std::uint8_t> json);

} // namespace tonavi
