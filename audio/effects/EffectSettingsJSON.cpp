#include "audio/effects/EffectSettingsJSON.hpp"

#include "audio/json/StrictJSONReader.hpp"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace kavore {

nlohmann::json toJSON(const EQ10Settings& s) {
    nlohmann::json gains = nlohmann::json::array();
    for (double g : s.bandGainsDB)
        gains.push_back(g);
    return {{"bandGainsDB", std::move(gains)}, {"preampDB", s.preampDB}, {"enabled", s.enabled}};
}

EQ10Settings eq10SettingsFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "EQ10Settings");
    const auto& array = r.array("bandGainsDB");
    std::vector<double> gains;
    gains.reserve(array.size());
    for (std::size_t i = 0; i < array.size(); ++i)
        gains.push_back(
            StrictJSONReader::asNumber(array[i], "EQ10Settings.bandGainsDB[" + std::to_string(i) + "]"));
    return EQ10Settings(gains, r.number("preampDB"), r.boolean("enabled"));
}

nlohmann::json toJSON(const CompressorSettings& s) {
    return {{"amount", s.amount},
            {"voicing", std::string(compressorVoicingName(s.voicing))},
            {"enabled", s.enabled}};
}

CompressorSettings compressorSettingsFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "CompressorSettings");
    const double amount = r.number("amount");
    const auto voicing = compressorVoicingFromName(r.string("voicing"));
    if (!voicing)
        throw JSONDecodeError("CompressorSettings.voicing: unknown voicing");
    return CompressorSettings::unclamped(amount, *voicing, r.boolean("enabled"));
}

nlohmann::json toJSON(const LevelerSettings& s) {
    return {{"amount", s.amount}, {"enabled", s.enabled}};
}

LevelerSettings levelerSettingsFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "LevelerSettings");
    return LevelerSettings::unclamped(r.number("amount"), r.boolean("enabled"));
}

nlohmann::json toJSON(const OverdriveSettings& s) {
    return {{"multiplier", s.multiplier}};
}

OverdriveSettings overdriveSettingsFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "OverdriveSettings");
    return OverdriveSettings::unclamped(r.number("multiplier"));
}

nlohmann::json toJSON(const EQPreset& p) {
    return {{"id", p.id},
            {"name", p.name},
            {"icon", p.icon},
            {"settings", toJSON(p.settings)},
            {"builtin", p.builtin}};
}

EQPreset eqPresetFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "EQPreset");
    EQPreset p;
    p.id = r.string("id");
    p.name = r.string("name");
    p.icon = r.string("icon");
    p.settings = eq10SettingsFromJSON(r.value("settings"));
    p.builtin = r.boolean("builtin");
    return p;
}

} // namespace kavore
