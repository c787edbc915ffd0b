// JSON of the request sum type: one key, the case's name, holding an object of the case's fields.

#include "core/wire/TonaviRequest.hpp"
#include "core/wire/WireJSON.hpp"

#include <array>
#include <concepts>
#include <unordered_map>
#include <utility>

namespace tonavi {

using WireJSON::json;

namespace {

// Case names on the wire, in the order of the variant's alternatives.
constexpr std::array<std::string_view, std::variant_size_v<TonaviRequest::Value>> caseNames = {
    "importConfiguration",
    "engageApp",
    "disengageApp",
    "unlockDirect",
    "relockDirect",
    "setAppVolume",
    "setAppMuted",
    "setSoloApps",
    "setAppSolo",
    "setAppSteadyVolume",
    "setAppBoost",
    "setAppRedirect",
    "setAppChain",
    "setTimedMute",
    "cancelTimedMute",
    "bypassAppEffects",
    "resetApp",
    "setAppVisible",
    "setFavorite",
    "setAppDisplayOrder",
    "setPinnedEffects",
    "setOutputDevice",
    "setOutputDeviceOrdered",
    "setInputDevice",
    "setSoundEffectsDevice",
    "setOutputVolume",
    "setOutputMuted",
    "setDeviceVolume",
    "setDeviceMuted",
    "setDeviceSampleRate",
    "setSystemChain",
    "setSystemMagicBoost",
    "setGlobalListening",
    "setDeviceSettings",
    "setDeviceHidden",
    "setLocks",
    "setPreferredOrder",
    "setDeviceDisplayOrder",
    "stageMode",
    "setManualDuck",
    "saveGroup",
    "deleteGroup",
    "saveConfig",
    "loadConfig",
    "deleteConfig",
    "renameConfig",
    "setConfigIcon",
    "saveEQPreset",
    "deleteEQPreset",
    "setLane",
    "removeLane",
    "setDuckRule",
    "removeDuckRule",
    "setFocusLink",
    "removeFocusLink",
    "setSmartSettings",
    "setPreferredMics",
    "setBluetoothMemory",
    "setOutputOnlyMode",
    "setMIDIMapping",
    "removeMIDIMapping",
    "ping",
    "status",
    "shutdown",
    "diagnostics",
    "listDevices",
    "listConfigs",
    "listEQPresets",
    "listInstalledApps",
    "listRunningAudioApps",
    "scanAudioUnits",
    "listAudioUnits",
    "listBluetooth",
    "listMIDIMappings",
    "learnMIDIControl"};

// The fields of each case, as `f(key, member)`: one list serves both directions.
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::ImportConfiguration>
void fieldsOf(R& r, F&& f) {
    f("config", r.config);
    f("autoDirect", r.autoDirect);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::EngageApp>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::DisengageApp>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::UnlockDirect>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::RelockDirect>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetAppVolume>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("volume", r.volume);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetAppMuted>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("muted", r.muted);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetSoloApps>
void fieldsOf(R& r, F&& f) {
    f("bundleIDs", r.bundleIDs);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetAppSolo>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("soloed", r.soloed);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetAppSteadyVolume>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("on", r.on);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetAppBoost>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("multiplier", r.multiplier);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetAppRedirect>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("deviceUID", r.deviceUID);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetAppChain>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("chain", r.chain);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetTimedMute>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("seconds", r.seconds);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::CancelTimedMute>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::BypassAppEffects>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("bypassed", r.bypassed);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::ResetApp>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetAppVisible>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("visible", r.visible);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetFavorite>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("favorite", r.favorite);
    f("rank", r.rank);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetAppDisplayOrder>
void fieldsOf(R& r, F&& f) {
    f("bundleIDs", r.bundleIDs);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetPinnedEffects>
void fieldsOf(R& r, F&& f) {
    f("bundleID", r.bundleID);
    f("slotIDs", r.slotIDs);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetOutputDevice>
void fieldsOf(R& r, F&& f) {
    f("uid", r.uid);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetOutputDeviceOrdered>
void fieldsOf(R& r, F&& f) {
    f("uid", r.uid);
    f("clientID", r.clientID);
    f("generation", r.generation);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetInputDevice>
void fieldsOf(R& r, F&& f) {
    f("uid", r.uid);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetSoundEffectsDevice>
void fieldsOf(R& r, F&& f) {
    f("uid", r.uid);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetOutputVolume>
void fieldsOf(R& r, F&& f) {
    f("volume", r.volume);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetOutputMuted>
void fieldsOf(R& r, F&& f) {
    f("muted", r.muted);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetDeviceVolume>
void fieldsOf(R& r, F&& f) {
    f("uid", r.uid);
    f("volume", r.volume);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetDeviceMuted>
void fieldsOf(R& r, F&& f) {
    f("uid", r.uid);
    f("muted", r.muted);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetDeviceSampleRate>
void fieldsOf(R& r, F&& f) {
    f("uid", r.uid);
    f("rate", r.rate);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetSystemChain>
void fieldsOf(R& r, F&& f) {
    f("chain", r.chain);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetSystemMagicBoost>
void fieldsOf(R& r, F&& f) {
    f("settings", r.settings);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetGlobalListening>
void fieldsOf(R& r, F&& f) {
    f("_0", r._0);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetDeviceSettings>
void fieldsOf(R& r, F&& f) {
    f("_0", r._0);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetDeviceHidden>
void fieldsOf(R& r, F&& f) {
    f("uid", r.uid);
    f("hidden", r.hidden);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetLocks>
void fieldsOf(R& r, F&& f) {
    f("_0", r._0);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetPreferredOrder>
void fieldsOf(R& r, F&& f) {
    f("uids", r.uids);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetDeviceDisplayOrder>
void fieldsOf(R& r, F&& f) {
    f("uids", r.uids);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::StageMode>
void fieldsOf(R& r, F&& f) {
    f("on", r.on);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetManualDuck>
void fieldsOf(R& r, F&& f) {
    f("on", r.on);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SaveGroup>
void fieldsOf(R& r, F&& f) {
    f("_0", r._0);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::DeleteGroup>
void fieldsOf(R& r, F&& f) {
    f("id", r.id);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SaveConfig>
void fieldsOf(R& r, F&& f) {
    f("name", r.name);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::LoadConfig>
void fieldsOf(R& r, F&& f) {
    f("name", r.name);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::DeleteConfig>
void fieldsOf(R& r, F&& f) {
    f("name", r.name);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::RenameConfig>
void fieldsOf(R& r, F&& f) {
    f("oldName", r.oldName);
    f("newName", r.newName);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetConfigIcon>
void fieldsOf(R& r, F&& f) {
    f("name", r.name);
    f("iconName", r.iconName);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SaveEQPreset>
void fieldsOf(R& r, F&& f) {
    f("_0", r._0);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::DeleteEQPreset>
void fieldsOf(R& r, F&& f) {
    f("id", r.id);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetLane>
void fieldsOf(R& r, F&& f) {
    f("_0", r._0);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::RemoveLane>
void fieldsOf(R& r, F&& f) {
    f("id", r.id);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetDuckRule>
void fieldsOf(R& r, F&& f) {
    f("_0", r._0);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::RemoveDuckRule>
void fieldsOf(R& r, F&& f) {
    f("id", r.id);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetFocusLink>
void fieldsOf(R& r, F&& f) {
    f("_0", r._0);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::RemoveFocusLink>
void fieldsOf(R& r, F&& f) {
    f("id", r.id);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetSmartSettings>
void fieldsOf(R& r, F&& f) {
    f("_0", r._0);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetPreferredMics>
void fieldsOf(R& r, F&& f) {
    f("uids", r.uids);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetBluetoothMemory>
void fieldsOf(R& r, F&& f) {
    f("_0", r._0);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetOutputOnlyMode>
void fieldsOf(R& r, F&& f) {
    f("deviceUID", r.deviceUID);
    f("on", r.on);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::SetMIDIMapping>
void fieldsOf(R& r, F&& f) {
    f("_0", r._0);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::RemoveMIDIMapping>
void fieldsOf(R& r, F&& f) {
    f("id", r.id);
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::Ping>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::Status>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::Shutdown>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::Diagnostics>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::ListDevices>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::ListConfigs>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::ListEQPresets>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::ListInstalledApps>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::ListRunningAudioApps>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::ScanAudioUnits>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::ListAudioUnits>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::ListBluetooth>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}
template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::ListMIDIMappings>
void fieldsOf(R& r, F&& f) {
    (void)r;
    (void)f;
}

template <class R, class F>
requires std::same_as<std::remove_const_t<R>, TonaviRequest::LearnMIDIControl>
void fieldsOf(R& r, F&& f) {
    f("timeoutSeconds", r.timeoutSeconds);
}

using Decoder = TonaviRequest (*)(const json&);

template <std::size_t I> TonaviRequest decodeCase(const json& object) {
    std::variant_alternative_t<I, TonaviRequest::Value> value;
    fieldsOf(value, [&](const char* key, auto& field) { WireJSON::readField(object, key, field); });
    return TonaviRequest{std::move(value)};
}

template <std::size_t... I>
std::unordered_map<std::string_view, Decoder> makeDecoders(std::index_sequence<I...>) {
    return {{caseNames[I], &decodeCase<I>}...};
}

const std::unordered_map<std::string_view, Decoder>& decoders() {
    static const auto table = makeDecoders(std::make_index_sequence<caseNames.size()>());
    return table;
}

} // namespace

std::string_view TonaviRequest::caseName() const {
    return caseNames[value.index()];
}

bool TonaviRequest::completesLater() const {
    return std::holds_alternative<SetOutputDevice>(value) ||
           std::holds_alternative<SetOutputDeviceOrdered>(value) || std::holds_alternative<LoadConfig>(value);
}

std::string encodeRequest(const TonaviRequest& request) {
    json fields = json::object();
    std::visit(
        [&](const auto& value) {
            fieldsOf(value,
                     [&](const char* key, const auto& field) { WireJSON::writeField(fields, key, field); });
        },
        request.value);
    json out = json::object();
    out[std::string(request.caseName())] = std::move(fields);
    return WireJSON::finishText(out);
}

TonaviRequest decodeRequest(std::string_view text) {
    const json object = WireJSON::parseText(text);
    if (!object.is_object())
        throw WireDecodingError("Expected to decode TonaviRequest from an object but found " +
                                WireJSON::describe(object) + ".");
    if (object.size() != 1)
        throw WireDecodingError("Invalid number of keys found, expected one.");
    const auto it = object.begin();
    const auto decoder = decoders().find(it.key());
    if (decoder == decoders().end())
        throw WireDecodingError("Cannot initialize TonaviRequest from invalid case \"" + it.key() + "\".");
    return WireJSON::withContext(it.key(), [&] {
        WireJSON::requireObject(it.value());
        return decoder->second(it.value());
    });
}

TonaviRequest decodeRequest(std::span<const std::uint8_t> bytes) {
    return decodeRequest(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

} // namespace tonavi
