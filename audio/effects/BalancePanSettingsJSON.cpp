#include "audio/effects/BalancePanSettingsJSON.hpp"

#include "audio/json/StrictJSONReader.hpp"

#include <nlohmann/json.hpp>

namespace kavore {

nlohmann::json toJSON(const BalancePanSettings& s) {
    return {{"balance", s.balance}, {"enabled", s.enabled}};
}

BalancePanSettings balancePanSettingsFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "BalancePanSettings");
    return BalancePanSettings::unclamped(r.number("balance"), r.boolean("enabled"));
}

} // namespace kavore
