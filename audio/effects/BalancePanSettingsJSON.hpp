#pragma once
// JSON of the balance settings: {"balance": number, "enabled": bool}. Reading is strict (both keys
// required, JSONDecodeError otherwise) and keeps the stored balance unclamped.

#include "audio/effects/BalancePanSettings.hpp"
#include "audio/json/JSONDecodeError.hpp"

#include <nlohmann/json_fwd.hpp>

namespace kavore {

nlohmann::json toJSON(const BalancePanSettings& settings);
BalancePanSettings balancePanSettingsFromJSON(const nlohmann::json& j);

} // namespace kavore
