#include "audio/listening/GlobalListeningSettingsJSON.hpp"

#include "audio/chain/ChainSettingsJSON.hpp"

#include <nlohmann/json.hpp>

#include <string>
#include <utility>
#include <vector>

namespace kavore {

namespace {

double numberOr(const nlohmann::json& j, const char* key, double fallback) {
    const auto it = j.find(key);
    if (it == j.end() || !it->is_number())
        return fallback;
    return it->get<double>();
}

bool booleanOr(const nlohmann::json& j, const char* key, bool fallback) {
    const auto it = j.find(key);
    if (it == j.end() || !it->is_boolean())
        return fallback;
    return it->get<bool>();
}

} // namespace

nlohmann::json toJSON(ListeningFilterKind kind) {
    return std::string(listeningFilterKindName(kind));
}

nlohmann::json toJSON(const ListeningEQBand& b) {
    return {{"id", b.id}, {"kind", toJSON(b.kind)}, {"frequencyHz", b.frequencyHz}, {"gainDB", b.gainDB},
            {"q", b.q},   {"enabled", b.enabled}};
}

ListeningEQBand listeningEQBandFromJSON(const nlohmann::json& j) {
    if (!j.is_object())
        throw JSONDecodeError("ListeningEQBand: expected an object");
    const auto id = j.find("id");
    if (id == j.end() || !id->is_string())
        throw JSONDecodeError("ListeningEQBand.id: missing or not a string");
    const auto kindValue = j.find("kind");
    if (kindValue == j.end() || !kindValue->is_string())
        throw JSONDecodeError("ListeningEQBand.kind: missing or not a string");
    const auto kind = listeningFilterKindFromName(kindValue->get_ref<const std::string&>());
    if (!kind)
        throw JSONDecodeError("ListeningEQBand.kind: unknown kind");
    return ListeningEQBand(id->get<std::string>(), *kind,
                           numberOr(j, "frequencyHz", ListeningEQBand::defaultFrequencyHz),
                           numberOr(j, "gainDB", ListeningEQBand::defaultGainDB),
                           numberOr(j, "q", ListeningEQBand::defaultQ), booleanOr(j, "enabled", true));
}

nlohmann::json toJSON(const ListeningEQSettings& s) {
    nlohmann::json bands = nlohmann::json::array();
    for (const auto& b : s.bands)
        bands.push_back(toJSON(b));
    return {{"bands", std::move(bands)}};
}

ListeningEQSettings listeningEQSettingsFromJSON(const nlohmann::json& j) {
    if (!j.is_object())
        return ListeningEQSettings::flat();
    const auto it = j.find("bands");
    if (it == j.end() || !it->is_array())
        return ListeningEQSettings::flat();
    std::vector<ListeningEQBand> bands;
    bands.reserve(it->size());
    try {
        for (const auto& band : *it)
            bands.push_back(listeningEQBandFromJSON(band));
    } catch (const JSONDecodeError&) {
        return ListeningEQSettings::flat();
    }
    return ListeningEQSettings(std::move(bands));
}

nlohmann::json toJSON(const ListeningBalancerSettings& s) {
    return {{"enabled", s.enabled}, {"targetDBFS", s.targetDBFS}, {"strengthPercent", s.strengthPercent}};
}

ListeningBalancerSettings listeningBalancerSettingsFromJSON(const nlohmann::json& j) {
    if (!j.is_object())
        return ListeningBalancerSettings::defaults();
    return ListeningBalancerSettings(
        booleanOr(j, "enabled", false),
        numberOr(j, "targetDBFS", ListeningBalancerSettings::defaultTargetDBFS),
        numberOr(j, "strengthPercent", ListeningBalancerSettings::defaultStrengthPercent));
}

nlohmann::json toJSON(const GlobalListeningSettings& s) {
    nlohmann::json slots = nlohmann::json::array();
    for (const auto& slot : s.audioUnitSlots)
        slots.push_back(toJSON(slot));
    return {{"enabled", s.enabled},
            {"equalizer", toJSON(s.equalizer)},
            {"balancer", toJSON(s.balancer)},
            {"audioUnitSlots", std::move(slots)}};
}

GlobalListeningSettings globalListeningSettingsFromJSON(const nlohmann::json& j) {
    if (!j.is_object())
        return GlobalListeningSettings::off();
    const bool enabled = booleanOr(j, "enabled", false);

    ListeningEQSettings equalizer = ListeningEQSettings::flat();
    if (const auto it = j.find("equalizer"); it != j.end())
        equalizer = listeningEQSettingsFromJSON(*it);

    ListeningBalancerSettings balancer;
    if (const auto it = j.find("balancer"); it != j.end())
        balancer = listeningBalancerSettingsFromJSON(*it);

    // The slot list reads whole: one unreadable slot empties it.
    std::vector<EffectSlot> slots;
    if (const auto it = j.find("audioUnitSlots"); it != j.end() && it->is_array()) {
        try {
            for (const auto& slot : *it)
                slots.push_back(effectSlotFromJSON(slot));
        } catch (const JSONDecodeError&) {
            slots.clear();
        }
    }
    return GlobalListeningSettings(enabled, std::move(equalizer), balancer, std::move(slots));
}

} // namespace kavore
