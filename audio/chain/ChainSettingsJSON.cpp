#include "audio/chain/ChainSettingsJSON.hpp"

#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/json/StrictJSONReader.hpp"
#include "base/Encoding.hpp"

#include <nlohmann/json.hpp>

#include <string>

namespace kavore {

nlohmann::json toJSON(EffectKind kind) {
    return std::string(effectKindName(kind));
}

EffectKind effectKindFromJSON(const nlohmann::json& j) {
    if (!j.is_string())
        throw JSONDecodeError("EffectKind: expected a string");
    const auto kind = effectKindFromName(j.get_ref<const std::string&>());
    if (!kind)
        throw JSONDecodeError("EffectKind: unknown kind \"" + j.get<std::string>() + "\"");
    return *kind;
}

nlohmann::json toJSON(const AUComponentKey& k) {
    return {{"type", k.type},
            {"subtype", k.subtype},
            {"manufacturer", k.manufacturer},
            {"name", k.name},
            {"manufacturerName", k.manufacturerName}};
}

AUComponentKey auComponentKeyFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "AUComponentKey");
    AUComponentKey k;
    k.type = r.uint32("type");
    k.subtype = r.uint32("subtype");
    k.manufacturer = r.uint32("manufacturer");
    k.name = r.string("name");
    k.manufacturerName = r.string("manufacturerName");
    return k;
}

nlohmann::json toJSON(const EffectSlot& s) {
    nlohmann::json j = {{"id", s.id},
                        {"kind", toJSON(s.kind)},
                        {"nickname", s.nickname},
                        {"bypassed", s.bypassed},
                        {"settingsJSON", tonavi::base64Encode(s.settingsJSON)}};
    if (s.auComponent)
        j["auComponent"] = toJSON(*s.auComponent);
    if (s.audioUnitPreset)
        j["audioUnitPreset"] = tonavi::base64Encode(*s.audioUnitPreset);
    return j;
}

EffectSlot effectSlotFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "EffectSlot");
    EffectSlot s;
    s.id = r.string("id");
    s.kind = effectKindFromJSON(r.value("kind"));
    s.nickname = r.string("nickname");
    s.bypassed = r.boolean("bypassed");
    s.settingsJSON = r.bytes("settingsJSON");
    // Optional keys may be absent or null; when present they must still be well formed.
    if (const auto* au = r.optionalValue("auComponent"))
        s.auComponent = auComponentKeyFromJSON(*au);
    if (const auto* preset = r.optionalValue("audioUnitPreset"))
        s.audioUnitPreset = StrictJSONReader::asBytes(*preset, "EffectSlot.audioUnitPreset");
    return s;
}

nlohmann::json toJSON(const ChainSettings& c) {
    nlohmann::json slots = nlohmann::json::array();
    for (const auto& s : c.slots)
        slots.push_back(toJSON(s));
    return {{"slots", std::move(slots)}, {"overdrive", toJSON(c.overdrive)}, {"bypassed", c.bypassed}};
}

ChainSettings chainSettingsFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "ChainSettings");
    ChainSettings c;
    for (const auto& slot : r.array("slots"))
        c.slots.push_back(effectSlotFromJSON(slot));
    c.overdrive = overdriveSettingsFromJSON(r.value("overdrive"));
    c.bypassed = r.boolean("bypassed");
    return c;
}

std::vector<std::uint8_t> settingsJSONBytes(const nlohmann::json& settings) {
    const std::string text = settings.dump();
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

} // namespace kavore
