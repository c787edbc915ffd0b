#include "audio/effects/NoiseSuppressorSettingsJSON.hpp"

#include "audio/json/StrictJSONReader.hpp"

#include <nlohmann/json.hpp>

namespace kavore {

nlohmann::json toJSON(const NoiseSuppressorSettings& s) {
    return {{"amount", s.amount}, {"enabled", s.enabled}};
}

NoiseSuppressorSettings noiseSuppressorSettingsFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "NoiseSuppressorSettings");
    return NoiseSuppressorSettings::unclamped(r.number("amount"), r.boolean("enabled"));
}

} // namespace kavore
