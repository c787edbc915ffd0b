#include "core/engine/TapWorkerState.hpp"

#include "audio/listening/GlobalListeningSettingsJSON.hpp"
#include "core/config/ConfigDecodeError.hpp"

#include <nlohmann/json.hpp>

namespace tonavi {

namespace {

const nlohmann::json& required(const nlohmann::json& json, const char* key) {
    auto it = json.find(key);
    if (it == json.end())
        throw ConfigDecodeError(std::string("tap worker state lacks \"") + key + "\"");
    return *it;
}

template <class T> T read(const nlohmann::json& json, const char* key) {
    try {
        return required(json, key).get<T>();
    } catch (const nlohmann::json::exception&) {
        throw ConfigDecodeError(std::string("tap worker state has a bad \"") + key + "\"");
    }
}

} // namespace

void to_json(nlohmann::json& json, const TapWorkerState& state) {
    json = nlohmann::json::object();
    json["app"] = state.app;
    json["currentDefaultOutputUID"] = state.currentDefaultOutputUID;
    json["sampleRate"] = state.sampleRate;
    json["stageMode"] = state.stageMode;
    if (state.followMeHero)
        json["followMeHero"] = *state.followMeHero;
    json["followMeBackgroundGain"] = state.followMeBackgroundGain;
    json["softMasterGain"] = state.softMasterGain;
    json["manualDuckDB"] = state.manualDuckDB;
    json["autoDuckApps"] = state.autoDuckApps;
    json["autoDuckDB"] = state.autoDuckDB;
    json["loudnessGuardActive"] = state.loudnessGuardActive;
    json["loudnessGuardCeilingDBFS"] = state.loudnessGuardCeilingDBFS;
    json["globalListening"] = kavore::toJSON(state.globalListening);
    json["duckRules"] = state.duckRules;
    json["activeDuckTriggers"] = state.activeDuckTriggers;
}

void from_json(const nlohmann::json& json, TapWorkerState& state) {
    if (!json.is_object())
        throw ConfigDecodeError("tap worker state is not an object");
    TapWorkerState out;
    try {
        required(json, "app").get_to(out.app);
    } catch (const nlohmann::json::exception&) {
        throw ConfigDecodeError("tap worker state has a bad \"app\"");
    }
    out.currentDefaultOutputUID = read<std::string>(json, "currentDefaultOutputUID");
    out.sampleRate = read<double>(json, "sampleRate");
    out.stageMode = read<bool>(json, "stageMode");
    if (auto it = json.find("followMeHero"); it != json.end() && !it->is_null())
        out.followMeHero = read<std::string>(json, "followMeHero");
    out.followMeBackgroundGain = read<double>(json, "followMeBackgroundGain");
    out.softMasterGain = read<double>(json, "softMasterGain");
    out.manualDuckDB = read<double>(json, "manualDuckDB");
    for (const auto& id : read<std::vector<std::string>>(json, "autoDuckApps"))
        out.autoDuckApps.insert(id);
    out.autoDuckDB = read<double>(json, "autoDuckDB");
    out.loudnessGuardActive = read<bool>(json, "loudnessGuardActive");
    out.loudnessGuardCeilingDBFS = read<double>(json, "loudnessGuardCeilingDBFS");
    out.globalListening = kavore::globalListeningSettingsFromJSON(required(json, "globalListening"));
    const auto& rules = required(json, "duckRules");
    if (!rules.is_array())
        throw ConfigDecodeError("tap worker state has a bad \"duckRules\"");
    try {
        for (const auto& rule : rules)
            out.duckRules.push_back(rule.get<AutoDuckRule>());
    } catch (const nlohmann::json::exception&) {
        throw ConfigDecodeError("tap worker state has a bad \"duckRules\"");
    }
    for (const auto& id : read<std::vector<std::string>>(json, "activeDuckTriggers"))
        out.activeDuckTriggers.insert(id);
    state = std::move(out);
}

} // namespace tonavi
