// Codec of the root configuration record.

#include "core/config/ConfigEncodeError.hpp"
#include "core/config/ConfigJson.hpp"
#include "core/config/TonaviConfig.hpp"

namespace tonavi {

using namespace ConfigJson;

void to_json(json& j, const TonaviConfig& v) {
    j = json::object();
    j["schemaVersion"] = v.schemaVersion;
    j["apps"] = v.apps;
    j["devices"] = v.devices;
    j["locks"] = v.locks;
    j["bluetooth"] = v.bluetooth;
    j["lanes"] = v.lanes;
    j["duckRules"] = v.duckRules;
    j["focusLinks"] = v.focusLinks;
    j["hearingCare"] = v.hearingCare;
    j["groups"] = v.groups;
    j["ui"] = v.ui;
    j["systemRows"] = v.systemRows;
    j["customEQPresets"] = arrayJSON(v.customEQPresets);
    j["headphoneProfiles"] = arrayJSON(v.headphoneProfiles);
    j["stageModePersisted"] = v.stageModePersisted;
    j["startAtLogin"] = v.startAtLogin;
    j["superVolumeKeys"] = v.superVolumeKeys;
    j["softMasterPercent"] = v.softMasterPercent;
    j["softMasterMuted"] = v.softMasterMuted;
    j["smart"] = v.smart;
    j["globalListening"] = kavore::toJSON(v.globalListening);
    j["historicallyAudibleAppIDs"] = v.historicallyAudibleAppIDs;
    j["audibleAppLastHeardAt"] = v.audibleAppLastHeardAt;
    j["hiddenAppIDs"] = v.hiddenAppIDs;
    j["manuallyVisibleAppIDs"] = v.manuallyVisibleAppIDs;
}

void from_json(const json& j, TonaviConfig& v) {
    requireObject(j, "TonaviConfig");
    TonaviConfig out;
    readOptional(j, "schemaVersion", out.schemaVersion);
    readOptionalArray(j, "apps", out.apps);
    readOptionalArray(j, "devices", out.devices);
    readOptional(j, "locks", out.locks);
    readOptionalArray(j, "bluetooth", out.bluetooth);
    readOptionalArray(j, "lanes", out.lanes);
    readOptionalArray(j, "duckRules", out.duckRules);
    readOptionalArray(j, "focusLinks", out.focusLinks);
    readOptional(j, "hearingCare", out.hearingCare);
    readOptionalArray(j, "groups", out.groups);
    readOptional(j, "ui", out.ui);
    readOptional(j, "systemRows", out.systemRows);
    readOptionalArray(j, "customEQPresets", out.customEQPresets);
    readOptionalArray(j, "headphoneProfiles", out.headphoneProfiles);
    readOptional(j, "stageModePersisted", out.stageModePersisted);
    readOptional(j, "startAtLogin", out.startAtLogin);
    readOptional(j, "superVolumeKeys", out.superVolumeKeys);
    readOptional(j, "softMasterPercent", out.softMasterPercent);
    readOptional(j, "softMasterMuted", out.softMasterMuted);
    readOptional(j, "smart", out.smart);
    readOptional(j, "globalListening", out.globalListening);
    readOptional(j, "historicallyAudibleAppIDs", out.historicallyAudibleAppIDs);
    readOptional(j, "audibleAppLastHeardAt", out.audibleAppLastHeardAt);
    readOptional(j, "hiddenAppIDs", out.hiddenAppIDs);
    readOptional(j, "manuallyVisibleAppIDs", out.manuallyVisibleAppIDs);
    v = std::move(out);
}

std::string encodeTonaviConfig(const TonaviConfig& config) {
    json j;
    try {
        to_json(j, config);
    } catch (const json::exception& e) {
        throw ConfigEncodeError(e.what());
    }
    return dumpForDisk(j);
}

TonaviConfig decodeTonaviConfig(std::string_view bytes) {
    const json j = parseBytes(bytes);
    TonaviConfig config;
    from_json(j, config);
    return config;
}

} // namespace tonavi
